import QtQuick 2.15
import QtQuick.Window 2.15
import Vantora.Auth 1.0

// A screen that uses everything there is, and ends as it was told when the daemon sends the factor signal "quit".
Window {
    id: screen

    property string ending
    property bool flight: false

    signal ready()
    signal engineDone()

    function begin() {
        if (devlock.state === AuthDevlockClient.Undefined || AuthSettingsClient.uid !== 1000)
            return;
        if (flight) {
            client.authenticate("login", { data: "1234" });
            client.changeAuthData("code", { old: "1", "new": "2" });
            client.unlockIfNeeded();
            AuthSettingsClient.authenticate("login", { data: "1234" });
        }
        ready();
    }

    visible: true
    width: 200
    height: 200

    AuthClient {
        id: client

        onFactorSignal: {
            if (factor !== "quit")
                return;
            if (screen.ending === "close")
                screen.close();
            else if (screen.ending === "quit" || screen.ending === "never")
                Qt.quit();
            else if (screen.ending === "exit")
                Qt.exit(7);
            else
                screen.engineDone();
        }
    }

    AuthDevlockClient {
        id: devlock

        onStateChanged: screen.begin()
    }

    AuthSettings {
        id: settings

        uid: AuthSettingsClient.uid
    }

    Column {
        Text { text: settings.lastLoginDate + AuthSettingsClient.userWarning + client.progress }

        Repeater {
            model: AuthSettingsClient.factors

            Text { text: model.name + model.enabled + AuthSettingsClient.hasChosenFactor(model.name) }
        }
    }

    Component.onCompleted: AuthSettingsClient.uid = 1000
}
