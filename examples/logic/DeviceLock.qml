import QtQuick 2.15
import Vantora.Auth 1.0

// Follows the device lock. It draws nothing. The state is the one that the daemon has told, and nothing else.
Item {
    id: device

    // Whether the state is asked for; it is not known before.
    property bool active: true
    // Milliseconds until the state is asked for again while it is not known; doubled four times, and then this again.
    property int retryPause: 2000
    // Milliseconds between looks at whether a change of the state was missed; 0 for no looks.
    property int lookPause: 0
    // Milliseconds until a look without an answer takes the unlocked picture away. A daemon that is well answers at
    // once, and on a very busy device within seconds, for which the picture must not flicker. D-Bus would wait for 25
    // seconds: too long for a picture that may be wrong.
    property int lookPatience: 10000
    // Milliseconds before calls that may freeze the screen, so that what the user is to see meanwhile is drawn: above
    // all a locked device.
    property int frame: 50

    readonly property int lockState: client.item ? client.item.state : AuthDevlockClient.Undefined
    readonly property bool isKnown: lockState !== AuthDevlockClient.Undefined
    readonly property bool unlocked: lockState === AuthDevlockClient.Unlocked
    // Why nobody can authenticate now; empty when one can.
    readonly property string obstacle: {
        switch (lockState) {
        case AuthDevlockClient.Undefined:
            return qsTr("Waiting for the authentication service…");
        case AuthDevlockClient.CodeEntryLockout:
            return qsTr("Too many wrong entries. Please wait a moment.");
        case AuthDevlockClient.ManagerLockout:
            return qsTr("This device has been locked by its manager.");
        }
        return "";
    }

    // Asks for another state, which the daemon announces if it does so.
    function wish(state) { client.item.state = state }

    // The state is unknown at once; the new client is made when that has been drawn.
    function askAnew() { client.active = false }

    // A look that replaces another has the time that the other had left, or many looks could put the verdict off.
    function look() {
        witness.active = false;
        // The making of the witness counts: where the system bus is stuck, that alone takes D-Bus 50 seconds.
        verdict.start();
        witness.active = true;
    }

    onLockStateChanged: {
        witness.active = false;
        verdict.stop();
    }

    Loader {
        id: client

        active: false
        sourceComponent: AuthDevlockClient {}
    }

    Timer {
        interval: device.frame
        running: device.active && !client.active
        onTriggered: client.active = true
    }

    // An announcement may get lost, and a daemon that takes over from another without a gap need not make any. So now
    // and then another client asks. Where it is told something else, ours begins anew.
    //
    // A client that gets no answer says nothing: it stays at Undefined, as it does when the answer is just that. Nobody
    // knows then whether an unlocked device still is unlocked, so ours begins anew as well. A locked picture stays as
    // it is: it cannot do harm, an attempt under way has limits of its own, and a slow daemon must not cost the user
    // what they are entering.
    Loader {
        id: witness

        active: false
        sourceComponent: AuthDevlockClient {}
    }

    // An announcement reaches the two clients one after the other; what they know is compared when both have heard it.
    Timer {
        id: verdict

        objectName: "verdict"
        interval: witness.item && witness.item.state !== AuthDevlockClient.Undefined ? device.frame
                                                                                     : device.lookPatience
        onTriggered: {
            const told = witness.item.state;
            witness.active = false;
            if (told !== device.lockState && (told !== AuthDevlockClient.Undefined || device.unlocked))
                device.askAnew();
        }
    }

    Timer {
        interval: device.lookPause
        repeat: true
        running: device.isKnown && interval > 0
        onTriggered: if (!witness.active) device.look()
    }

    // A daemon that has come back need not announce the state, and then the client stays as it is: another one asks. No
    // secret can be entered before, as nobody knows whether it would count. The pause grows, to more than D-Bus waits
    // for an answer, for the sake of a daemon that answers slowly: a new client does not hear the answer to an old one.
    // Then it begins anew, as nobody wants to wait so long for a daemon that is there again. Should the system bus have
    // gone, the new client ends the process, which starts again with another bus.
    Timer {
        property int count: 0

        interval: device.retryPause << count % 5
        repeat: true
        running: !device.isKnown
        onRunningChanged: count = 0
        onTriggered: {
            device.askAnew();
            ++count;
        }
    }
}
