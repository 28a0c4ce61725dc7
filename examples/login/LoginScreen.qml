import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Vantora.Auth 1.0
import "../logic"
import "../style"

Sheet {
    id: login

    // The host knows its users; the daemon has no list of them.
    property var users: [{ uid: 1000, name: "Alex" }, { uid: 1001, name: "Robin" }]
    // The user who is to sign in; 0 while none is chosen.
    property real user: 0
    property alias patience: attempt.patience
    property alias memory: form.memory
    property alias deviceInterval: device.retryPause
    readonly property bool settled: device.isKnown && !attempt.busy

    // The user's login factors. The daemon judges each by itself and hands out a token for each; that a user who has
    // chosen several is asked for all of them is up to the screen. It asks for one after the other, and starts over
    // whenever a token is lost.
    property var chosen: []
    property int step: 0
    property bool signedIn: false
    property string lastLogin
    readonly property string name: nameOf(user)

    // Every login factor there is: what the model shows before a user is selected.
    property var offered: []
    // The factors that may be the login factor, where the daemon's word on that cannot be had.
    property var guesses: []

    function nameOf(uid) {
        const found = users.find(entry => entry.uid === uid);
        return found ? found.name : "";
    }

    function read() {
        chosen = [];
        lastLogin = "";
        if (!device.isKnown)
            return;
        Factors.read(user);
        // Each of these waits for the daemon, so they are no bindings.
        lastLogin = AuthSettingsClient.showLastLogin(user) ? AuthSettingsClient.lastLoginDate(user) : "";
        updateChosen();
    }

    // All that has been granted, and is under way, is no more.
    function startOver() {
        attempt.end();
        signedIn = false;
        step = 0;
    }

    function updateChosen() {
        let rows = Factors.chosenForLogin(Factors.rows());
        // A user who may not set factors may have got no rows yet. What is chosen is known all the same, but not
        // whether for login or for unlocking: one at a time is tried.
        guesses = rows.length || AuthSettingsClient.isUserSettable
                  ? [] : offered.filter(row => AuthSettingsClient.hasEnabledFactor(row.name));
        if (guesses.length)
            rows = [guesses[0]];
        if (rows.map(row => row.name).join() === chosen.map(row => row.name).join())
            return;
        chosen = rows;
        step = 0;
    }

    padding: 0
    Component.onCompleted: {
        offered = Factors.rows();
        if (!name)
            user = 0;
    }
    onUserChanged: {
        startOver();
        read();
    }
    // The focus goes to what has changed, not to what undoes it: a second Return would.
    onSignedInChanged: if (signedIn) heading.forceActiveFocus()

    Attempt {
        id: attempt

        objectName: "attempt"
        service: "login"
        deviceState: device.lockState
        onPassed: {
            if (login.step + 1 < login.chosen.length)
                ++login.step;
            else
                login.signedIn = true;
        }
        onRefused: {
            form.refuse();
            login.startOver();
        }
        onLost: login.startOver()
        onExpired: {
            login.startOver();
            form.expire();
        }
    }

    DeviceLock {
        id: device

        // This ends what is under way, and takes back what has been granted.
        onLockStateChanged: {
            // isKnown follows after this.
            if (lockState !== AuthDevlockClient.Locked && lockState !== AuthDevlockClient.Undefined)
                return;
            form.giveUp();
            login.startOver();
        }
        // The daemon is there, perhaps again and with other values.
        onIsKnownChanged: if (isKnown && !login.signedIn) login.read()
    }

    Connections {
        target: AuthSettingsClient.factors
        function onDataChanged() { login.updateChosen() }
        function onModelReset() { login.updateChosen() }
    }

    Scroller {
        objectName: "scroller"
        anchors.fill: parent
        column: pages

        ColumnLayout {
            id: pages

            width: Math.min(parent.width - 2 * Theme.gap, Theme.column)
            anchors.horizontalCenter: parent.horizontalCenter
            y: Math.max(Theme.gap, (parent.height - height) * 0.4)
            spacing: Theme.gap

            Avatar {
                visible: login.user
                name: login.name
                implicitWidth: 88
                Layout.alignment: Qt.AlignHCenter
            }
            Text {
                id: heading

                objectName: "heading"
                textFormat: Text.PlainText
                color: Theme.text
                text: login.signedIn ? qsTr("Signed in as %1").arg(login.name)
                      : login.user ? login.name : qsTr("Who is signing in?")
                font.pixelSize: 26
                horizontalAlignment: Text.AlignHCenter
                wrapMode: Text.Wrap
                Layout.fillWidth: true
                Accessible.role: Accessible.Heading
                Accessible.name: text
            }
            Label {
                objectName: "lastLogin"
                textFormat: Text.PlainText
                text: qsTr("Last sign-in: %1").arg(login.lastLogin)
                visible: login.lastLogin
                color: Theme.quiet
                horizontalAlignment: Text.AlignHCenter
                wrapMode: Text.Wrap
                Layout.fillWidth: true
            }

            Repeater {
                model: login.user ? [] : login.users

                Choice {
                    objectName: "user" + modelData.uid
                    text: modelData.name
                    onClicked: login.user = modelData.uid
                }
            }

            Label {
                objectName: "steps"
                textFormat: Text.PlainText
                text: qsTr("Step %1 of %2: %3").arg(login.step + 1).arg(login.chosen.length)
                      .arg(login.chosen.map(row => Factors.title(row.name, row.title)).join(", "))
                visible: form.visible && login.chosen.length > 1
                color: Theme.quiet
                horizontalAlignment: Text.AlignHCenter
                wrapMode: Text.Wrap
                Layout.fillWidth: true
            }
            SecretForm {
                id: form

                readonly property var row: login.chosen[login.step]

                visible: !!row && login.user !== 0 && !login.signedIn
                uid: login.user
                busy: attempt.busy
                overdue: attempt.overdue
                factor: row ? row.name : ""
                label: row ? Factors.title(row.name, row.title) : ""
                action: login.step + 1 < login.chosen.length ? qsTr("Next") : qsTr("Sign in")
                obstacle: device.obstacle
                Layout.topMargin: Theme.gap
                Layout.fillWidth: true
                onSubmitted: attempt.ask({ factor: factor, data: secret, uid: uid })
                onGivenUp: login.startOver()
            }
            Label {
                objectName: "noFactor"
                textFormat: Text.PlainText
                // Whether the daemon has told none, or nothing at all, cannot be told apart.
                text: device.isKnown ? qsTr("No way for %1 to sign in is known.").arg(login.name) : device.obstacle
                visible: login.user && !form.row
                color: Theme.quiet
                horizontalAlignment: Text.AlignHCenter
                wrapMode: Text.Wrap
                Layout.fillWidth: true
            }
            PushButton {
                objectName: "again"
                text: qsTr("Try again")
                visible: login.user && !form.row && device.isKnown
                Layout.fillWidth: true
                onClicked: login.read()
            }
            PushButton {
                objectName: "other"
                text: qsTr("Another way")
                flat: true
                visible: form.visible && login.guesses.length > 1
                enabled: !attempt.busy
                Layout.fillWidth: true
                onClicked: {
                    login.guesses = login.guesses.slice(1).concat(login.guesses[0]);
                    login.chosen = [login.guesses[0]];
                }
            }
            PushButton {
                objectName: "back"
                text: login.signedIn ? qsTr("Sign out") : qsTr("Someone else")
                flat: !login.signedIn
                visible: login.user
                enabled: !attempt.busy
                Layout.fillWidth: true
                onClicked: login.user = 0
            }
        }
    }
}
