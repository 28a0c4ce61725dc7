import QtQuick 2.15
import QtQml.Models 2.15
import Vantora.Auth 1.0

// The device's state. AuthDevlockClient asks for it when it is made and is told of changes afterwards; a daemon that
// has come back need not announce one, so another client asks again while the state is not known.
Instantiator {
    id: device

    property int interval: 3000
    readonly property int state: object ? object.state : AuthDevlockClient.Undefined
    readonly property bool isKnown: state !== AuthDevlockClient.Undefined
    readonly property Timer again: Timer {
        interval: device.interval
        repeat: true
        running: !device.isKnown
        onTriggered: {
            device.active = false;
            device.active = true;
        }
    }
    // Why nobody can authenticate now; empty when one can.
    readonly property string obstacle: {
        switch (state) {
        case AuthDevlockClient.Undefined:
            return qsTr("Waiting for the authentication service…");
        case AuthDevlockClient.CodeEntryLockout:
            return qsTr("Too many wrong entries. Please wait a moment.");
        case AuthDevlockClient.ManagerLockout:
            return qsTr("This device has been locked by its manager.");
        }
        return "";
    }

    // The settings client is made first, and so hears of a locked device first: it says discredit() then, which must
    // not look like a failed authentication.
    active: AuthSettingsClient.uid >= 0

    AuthDevlockClient {}
}
