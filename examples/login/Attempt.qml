import QtQuick 2.15
import Vantora.Auth 1.0

// Has the daemon judge one secret at a time. It draws nothing.
//
// The daemon answers a connection and does not say which request it means, nor about whom. So each request has an
// AuthClient of its own, and with it a connection of its own: the answer to a request that was given up finds nobody
// any more. The client of the last request stays when it has passed, as what it has granted ends with its token. There
// must be no other AuthClient in the process: clients that are there at the same time share a connection.
Item {
    id: attempt

    enum Stage {
        Idle,
        Sending,
        Asked,
        Failed,
        Passed
    }

    // The device's state, as a client knows it that stays.
    property int deviceState: AuthDevlockClient.Undefined

    property int stage: Attempt.Idle
    property var request: null
    // The client that there is, until it is really gone: Component.onDestruction comes before that.
    property QtObject existing: null

    signal passed()
    // The daemon has not accepted the secret.
    signal refused()
    // The token is gone, or whatever was under way, and nothing was said about the secret.
    signal lost()

    function ask(params) {
        end();
        request = params;
        stage = Attempt.Sending;
    }

    function end() {
        stage = Attempt.Idle;
        request = null;
        if (client.item)
            client.item.dropAuthentication();
        client.active = false;
    }

    function lose() {
        end();
        lost();
    }

    onDeviceStateChanged: {
        if (stage === Attempt.Idle)
            return;
        if (deviceState === AuthDevlockClient.Locked || deviceState === AuthDevlockClient.Undefined)
            lose();
    }

    Loader {
        id: client

        active: false
        sourceComponent: AuthClient {
            // A new client says discredit() when it learns that the device is locked. Only after that it may ask: what
            // it says then is about the request. Should the device not be locked, it says nothing.
            property bool isSettled: false

            onDiscredit: {
                isSettled = true;
                if (attempt.stage === Attempt.Asked)
                    attempt.stage = Attempt.Failed;
                else if (attempt.stage === Attempt.Passed)
                    attempt.lose();
            }
            onAuthenticatedChanged: {
                if (attempt.stage !== Attempt.Asked || !authToken.byteLength)
                    return;
                attempt.stage = Attempt.Passed;
                attempt.passed();
            }
            Component.onCompleted: attempt.existing = this
        }
    }

    // Making a client and fetching its challenge wait for the daemon, up to 25 seconds for each of their calls when it
    // is mute: first comes a frame that shows that something is under way. While the former client is there, a new one
    // would share its connection.
    Timer {
        interval: 50
        running: attempt.stage === Attempt.Sending && !client.active && !attempt.existing
        onTriggered: client.active = true
    }
    Timer {
        interval: 0
        running: attempt.stage === Attempt.Sending && client.item !== null
                 && (client.item.isSettled || attempt.deviceState !== AuthDevlockClient.Locked)
        onTriggered: {
            const request = attempt.request;
            attempt.request = null;
            attempt.stage = Attempt.Asked;
            client.item.authenticate("login", request);
            // The library sends nothing that D-Bus cannot carry.
            if (!client.item.progress)
                attempt.stage = Attempt.Failed;
        }
    }

    // A client that hears of a locking, or that the daemon has gone, says the same as of a secret that was not
    // accepted. When it hears of that first, the state follows at once.
    Timer {
        interval: 0
        running: attempt.stage === Attempt.Failed
        onTriggered: {
            attempt.end();
            attempt.refused();
        }
    }
}
