import QtQuick 2.15
import Vantora.Auth 1.0

// Follows the device lock, and unlocks it in attempts. It draws nothing.
//
// The device is unlocked when the daemon says so and at no other time: the outcome of a call, an error, or the time
// that has passed is never taken for it. What the daemon may do late, or twice, or for somebody else is met with one
// rule: an attempt has an AuthClient of its own, and so a connection of its own, which ends with the attempt and with
// every change of the state. The answer to an attempt that has ended finds nobody any more. So there must be no other
// AuthClient in the process: clients that are there at the same time share a connection, and hear of each other's
// tokens.
Item {
    id: lock

    enum Stage {
        Idle,
        Sending,
        Asked,
        Unlocking
    }

    // The user to unlock for; 0 leaves the choice to the daemon.
    property real user: 0
    // Milliseconds until an attempt that has no outcome may be given up.
    property int patience: 10000
    // Milliseconds until it ends by itself: who has entered the code may have gone, and what is late must not unlock
    // then.
    property int longestAttempt: 60000
    // Milliseconds until the state is asked for again while it is not known; doubled four times, and then this again.
    property int retryPause: 2000
    // Milliseconds between looks at whether a change of the state was missed.
    property int lookPause: 30000
    // Milliseconds until a look without an answer takes the unlocked picture away. A daemon that is well answers at once,
    // and on a very busy device within seconds, for which the picture must not flicker. D-Bus would wait for 25 seconds:
    // too long for a picture that may be wrong.
    property int lookPatience: 10000

    readonly property int deviceState: devlock.item ? devlock.item.state : AuthDevlockClient.Undefined
    readonly property bool unlocked: deviceState === AuthDevlockClient.Unlocked
    readonly property bool busy: stage !== Lock.Idle
    readonly property bool acceptsEntry: deviceState === AuthDevlockClient.Locked && !busy
    // An attempt has had no outcome for so long that it may be given up.
    property bool overdue: false
    // The device should have been locked, and is not.
    property bool lockingFailed: false

    // Calls that wait for the daemon freeze the screen, for 25 seconds each when the daemon is mute: fetching the
    // challenge, setLocked(), setting the state, and making a client. This many milliseconds before each, so that what
    // the user is to see meanwhile is drawn: above all a locked device.
    readonly property int frame: 50

    property int stage: Lock.Idle
    property var request: null
    // The client that there is, until it is really gone: Component.onDestruction comes before that.
    property QtObject existing: null

    // An attempt has ended, and the device is still locked.
    signal refused(string reason)

    function attempt(factor, data) {
        if (!acceptsEntry || !data)
            return false;
        request = { factor: factor, data: data };
        if (user)
            request.uid = user;
        stage = Lock.Sending;
        return true;
    }

    function giveUp() {
        end();
        refused("");
    }

    function lockNow() {
        lockingFailed = false;
        locking.start();
    }

    // The state is unknown at once; the new client is made when that has been drawn.
    function askAnew() { devlock.active = false }

    // A look that replaces another has the time that the other had left, or many looks could put the verdict off.
    function lookAtState() {
        look.active = false;
        look.active = true;
        verdict.start();
    }

    function end() {
        stage = Lock.Idle;
        request = null;
        if (client.item)
            client.item.dropAuthentication();
        client.active = false;
    }

    function fail(reason) {
        end();
        refused(reason);
    }

    onDeviceStateChanged: {
        look.active = false;
        verdict.stop();
        locking.stop();
        check.stop();
        lockingFailed = false;
        end();
    }
    onStageChanged: if (stage === Lock.Idle) overdue = false

    Loader {
        id: devlock

        active: false
        sourceComponent: AuthDevlockClient {}
    }

    Timer {
        interval: lock.frame
        running: !devlock.active
        onTriggered: devlock.active = true
    }

    // An announcement may get lost, and a daemon that takes over from another without a gap need not make any. So now
    // and then another client asks. Where it is told something else, ours begins anew.
    //
    // A client that gets no answer says nothing: it stays at Undefined, as it does when the answer is just that. Nobody
    // knows then whether an unlocked device still is unlocked, so ours begins anew as well. A locked picture stays as it
    // is: it cannot do harm, an attempt under way has limits of its own, and a slow daemon must not cost the user what
    // they are entering.
    Loader {
        id: look

        active: false
        sourceComponent: AuthDevlockClient {}
    }

    // An announcement reaches the two clients one after the other; what they know is compared when both have heard it.
    Timer {
        id: verdict

        interval: look.item && look.item.state !== AuthDevlockClient.Undefined ? lock.frame : lock.lookPatience
        onTriggered: {
            const told = look.item.state;
            look.active = false;
            if (told !== lock.deviceState && (told !== AuthDevlockClient.Undefined || lock.unlocked))
                lock.askAnew();
        }
    }

    Timer {
        interval: lock.lookPause
        repeat: true
        running: lock.deviceState !== AuthDevlockClient.Undefined
        onTriggered: if (!look.active) lock.lookAtState()
    }

    // A daemon that has come back need not announce the state, and then the client stays as it is: another one asks. No
    // code can be entered before, as nobody knows whether it would count. The pause grows, to more than D-Bus waits for
    // an answer, for the sake of a daemon that answers slowly: a new client does not hear the answer to an old one.
    // Then it begins anew, as nobody wants to wait so long for a daemon that is there again. Should the system bus have
    // gone, the new client ends the process, which starts again with another bus.
    Timer {
        property int count: 0

        interval: lock.retryPause << count % 5
        repeat: true
        running: lock.deviceState === AuthDevlockClient.Undefined
        onRunningChanged: count = 0
        onTriggered: {
            lock.askAnew();
            ++count;
        }
    }

    Loader {
        id: client

        active: false
        sourceComponent: AuthClient {
            // A new client follows the device lock like ours, and says discredit() when it learns that the device is
            // locked. Only after that it may ask: what it says then is about the request.
            property bool ready: false

            onDiscredit: {
                ready = true;
                if (lock.stage === Lock.Asked)
                    lock.fail(qsTr("That was not accepted. Please try again."));
            }
            onAuthenticatedChanged: {
                if (!authToken.byteLength)
                    return;
                if (lock.stage === Lock.Asked)
                    lock.stage = Lock.Unlocking;
                else if (lock.stage !== Lock.Unlocking)
                    dropAuthentication(); // Nobody has asked for it.
            }
            Component.onCompleted: lock.existing = this
        }
    }

    // While the former client is there, a new one would share its connection.
    Timer {
        interval: lock.frame
        running: lock.deviceState === AuthDevlockClient.Locked && !client.active && !lock.existing
        onTriggered: client.active = true
    }

    Timer {
        interval: lock.frame
        running: lock.stage === Lock.Sending && lock.request !== null && client.item !== null && client.item.ready
        onTriggered: {
            const request = lock.request;
            lock.request = null;
            lock.stage = Lock.Asked;
            client.item.authenticate("unlock", request);
            // The library sends nothing that D-Bus cannot carry.
            if (!client.item.progress)
                lock.fail(qsTr("That was not accepted. Please try again."));
        }
    }

    // Whatever setLocked() returns, the device is unlocked when the daemon announces it. It returns false, too, when
    // the token has been dropped meanwhile.
    Timer {
        interval: lock.frame
        running: lock.stage === Lock.Unlocking
        onTriggered: {
            if (!client.item.setLocked(AuthDevlockClient.Unlocked))
                lock.fail(qsTr("The device could not be unlocked. Please try again."));
            else
                check.start();
        }
    }

    // What has not been sent by then is not sent any more.
    Timer {
        interval: lock.patience
        running: lock.busy
        onTriggered: {
            lock.overdue = true;
            lock.request = null;
        }
    }

    Timer {
        interval: lock.longestAttempt
        running: lock.busy
        onTriggered: lock.fail(qsTr("There was no answer. Please try again."))
    }

    Timer {
        id: locking

        interval: lock.frame
        onTriggered: {
            devlock.item.state = AuthDevlockClient.Locked;
            check.start();
        }
    }

    // The state just stays as it is when a locking has been refused, or an announcement got lost.
    Timer {
        id: check

        interval: 1000
        onTriggered: {
            lock.lockingFailed = lock.unlocked;
            lock.lookAtState();
        }
    }
}
