import QtQuick 2.15
import Vantora.Auth 1.0
import "../logic"

// Follows the device lock, and unlocks it in attempts. It draws nothing.
//
// The device is unlocked when the daemon says so and at no other time: the outcome of a call, an error, or the time
// that has passed is never taken for it. An attempt ends with every change of the state, so what the daemon says late,
// or twice, or for somebody else finds nobody any more.
Item {
    id: lock

    // The user to unlock for; 0 leaves the choice to the daemon.
    property real user: 0
    property alias patience: attempt.patience
    property alias retryPause: device.retryPause
    property alias lookPause: device.lookPause
    property alias lookPatience: device.lookPatience

    readonly property alias deviceState: device.lockState
    readonly property alias unlocked: device.unlocked
    readonly property alias busy: attempt.busy
    // An attempt has had no outcome for so long that it may be given up.
    readonly property alias overdue: attempt.overdue
    // The device should have been locked, and is not.
    property bool lockingFailed: false

    // Milliseconds before calls that may freeze the screen, so that what the user is to see meanwhile is drawn.
    property int frame: 50

    // An attempt has ended, and the device is still locked.
    signal refused(string reason)

    function unlock(factor, data) {
        if (deviceState !== AuthDevlockClient.Locked || busy || !data)
            return false;
        const params = { factor: factor, data: data };
        if (user)
            params.uid = user;
        attempt.ask(params);
        return true;
    }

    function giveUp() { fail("") }

    function fail(reason) {
        attempt.end();
        refused(reason);
    }

    function lockNow() {
        lockingFailed = false;
        locking.start();
    }

    onDeviceStateChanged: {
        locking.stop();
        check.stop();
        lockingFailed = false;
        attempt.end();
    }

    DeviceLock {
        id: device

        objectName: "device"
        lookPause: 30000
        frame: lock.frame
    }

    Attempt {
        id: attempt

        objectName: "attempt"
        service: "unlock"
        deviceState: device.lockState
        prepared: deviceState === AuthDevlockClient.Locked
        frame: lock.frame
        // The unlocking belongs to it.
        busy: stage !== Attempt.Idle
        onRefused: lock.refused(qsTr("That was not accepted. Please try again."))
        onLost: lock.refused(qsTr("The device could not be unlocked. Please try again."))
        onExpired: lock.fail(qsTr("There was no answer. Please try again."))
    }

    // Whatever setLocked() returns, the device is unlocked when the daemon announces it.
    Timer {
        interval: lock.frame
        running: attempt.stage === Attempt.Passed
        onTriggered: {
            if (!attempt.setLocked(AuthDevlockClient.Unlocked))
                lock.fail(qsTr("The device could not be unlocked. Please try again."));
            else
                check.start();
        }
    }

    Timer {
        id: locking

        interval: lock.frame
        onTriggered: {
            device.wish(AuthDevlockClient.Locked);
            check.start();
        }
    }

    // The state just stays as it is when a locking has been refused, or an announcement got lost.
    Timer {
        id: check

        interval: 1000
        onTriggered: {
            lock.lockingFailed = lock.unlocked;
            device.look();
        }
    }
}
