import QtQuick 2.15
import Vantora.Auth 1.0

// Has the daemon judge one secret at a time. It draws nothing.
//
// The daemon answers a connection and does not say which request it means, nor about whom. So each request has an
// AuthClient of its own, and with it a connection of its own: the answer to a request that has ended finds nobody any
// more. The client of the last request stays when it has passed, as what it has granted ends with its token. There must
// be no other AuthClient in the process: clients that are there at the same time share a connection, and hear of each
// other's tokens.
Request {
    id: attempt

    enum Stage {
        Idle,
        Sending,
        Asked,
        Passed,
        Failed
    }

    // What the secret is for: "login" or "unlock".
    property string service
    // The device's state, as a client knows it that stays.
    property int deviceState: AuthDevlockClient.Undefined
    // Whether a client is made before there is a secret to be sent.
    property bool prepared: false
    // Calls that wait for the daemon freeze the screen, for 25 seconds each when the daemon is mute: making a client,
    // and fetching its challenge. This many milliseconds before each, so that what is to be seen meanwhile is drawn.
    property int frame: 50

    property int stage: Attempt.Idle
    // What is still to be sent.
    property var params: null
    // The client that there is. QML makes it null when the client is really gone; Component.onDestruction comes before.
    property QtObject existing: null

    signal passed()
    // The daemon has not accepted the secret.
    signal refused()
    // What had passed does not count any more: the token is gone.
    signal lost()

    function ask(params) {
        if (stage !== Attempt.Idle)
            end();
        attempt.params = params;
        stage = Attempt.Sending;
    }

    // The token that it has brought is no more, and nobody hears what the daemon says late.
    function end() {
        stage = Attempt.Idle;
        params = null;
        if (client.item)
            client.item.dropAuthentication();
        client.active = false;
    }

    function setLocked(state) { return client.item.setLocked(state) }

    busy: stage !== Attempt.Idle && stage !== Attempt.Passed
    // What has not been sent by then is not sent any more.
    onOverdueChanged: if (overdue) params = null

    Loader {
        id: client

        active: false
        sourceComponent: AuthClient {
            // A new client says discredit() when it learns that the device is locked. Only after that it may ask: what
            // it says then is about the request. Should the device not be locked, it says nothing.
            property bool isSettled: false

            onDiscredit: {
                isSettled = true;
                if (attempt.stage === Attempt.Asked) {
                    attempt.stage = Attempt.Failed;
                } else if (attempt.stage === Attempt.Passed) {
                    attempt.end();
                    attempt.lost();
                }
            }
            onAuthenticatedChanged: {
                if (!authToken.byteLength)
                    return;
                if (attempt.stage === Attempt.Asked) {
                    attempt.stage = Attempt.Passed;
                    attempt.passed();
                } else if (attempt.stage !== Attempt.Passed) {
                    dropAuthentication(); // Nobody has asked for it.
                }
            }
            Component.onCompleted: attempt.existing = this
        }
    }

    // While the former client is there, a new one would share its connection.
    Timer {
        interval: attempt.frame
        running: (attempt.prepared || attempt.stage === Attempt.Sending) && !client.active && !attempt.existing
        onTriggered: client.active = true
    }

    Timer {
        interval: attempt.frame
        running: attempt.params !== null && client.item !== null
                 && (client.item.isSettled || attempt.deviceState !== AuthDevlockClient.Locked)
        onTriggered: {
            const params = attempt.params;
            attempt.params = null;
            attempt.stage = Attempt.Asked;
            client.item.authenticate(attempt.service, params);
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
