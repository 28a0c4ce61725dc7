import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Vantora.Auth 1.0
import "../logic"
import "../style"

Sheet {
    id: page

    // The host knows its users; the daemon has no list of them.
    property var users: [{ uid: 1000, name: "Alex" }, { uid: 1001, name: "Robin" }]
    // The user whose settings are shown; 0 while none is chosen.
    property real user: 0
    property alias patience: request.patience
    property alias memory: form.memory
    property alias deviceInterval: device.retryPause
    readonly property bool settled: device.isKnown && !request.busy
    readonly property string name: nameOf(user)

    // Made before the device's state is asked for, and so hears of a locked device first: it says discredit() then,
    // which must not look like a failed authentication.
    readonly property QtObject client: AuthSettingsClient
    readonly property bool isUnlocked: AuthSettingsClient.authenticated && device.isKnown
    // Why a change was refused is not known. Where a daemon has taken over from another without a gap, the client still
    // has the other's token and challenge, and gets no new ones.
    property Toggle lastRefused: null
    readonly property bool isRefused: lastRefused !== null && lastRefused.refused
    // What the daemon has told, as far as no property of AuthSettingsClient follows it. A row is isPending when a wish
    // that the daemon has not followed waits in the client, perhaps made for another user; it is written with the next
    // choice.
    property var rows: []
    property var unlockFactors: []
    readonly property var loginFactors: Factors.chosenForLogin(rows)
    // The daemon tells what is chosen for unlocking, but not what it offers: usually what it offers for login.
    property var unlockNames: []

    // Whom a request was about whose outcome nobody awaits any more; 0 if there is none. A token that comes of it while
    // somebody else's is awaited would be taken for that, because the daemon does not say whose it is; it would refuse
    // the changes only. Changes need the token of this very client, whose connection lasts as long as the daemon. So
    // nobody else can unlock their settings until the daemon has gone.
    property real unheard: 0
    // Whom the last request was about.
    property real asked: 0

    function nameOf(uid) {
        const found = users.find(entry => entry.uid === uid);
        return found ? found.name : "";
    }

    function titleOf(name) {
        const found = rows.find(row => row.name === name);
        return Factors.title(name, found ? found.title : "");
    }

    function read() {
        if (!device.isKnown)
            return;
        Factors.read(user);
        update();
    }

    function update() {
        rows = Factors.rows().map((row, index) => Object.assign(row, {
            isPending: AuthSettingsClient.hasChosenFactor(row.name) !== row.enabled,
            canBeTriggered: !row.isUnlock && AuthSettingsClient.canTriggerFactor(index)
        }));
        unlockFactors = AuthSettingsClient.unlockFactors;
        const names = rows.map(row => row.name);
        names.push(...unlockFactors.filter(name => !names.includes(name)));
        // Another list makes other switches, which do not have the keyboard's focus.
        if (names.join() !== unlockNames.join())
            unlockNames = names;
    }

    padding: 0
    // A token is one user's.
    onUserChanged: {
        form.giveUp();
        AuthSettingsClient.dropAuthentication();
        read();
    }
    // The focus goes to what has changed, not to what undoes it: a second Return would.
    onIsUnlockedChanged: if (isUnlocked) summary.focusHeading()
    Component.onCompleted: {
        if (!name)
            user = 0;
    }

    Request {
        id: request

        objectName: "request"
        onExpired: {
            form.giveUp();
            form.expire();
        }
    }

    DeviceLock {
        id: device

        active: page.client !== null
        // The daemon is there, perhaps again and with other values.
        onIsKnownChanged: {
            if (isKnown)
                page.read();
            else
                page.unheard = 0;
        }
        // This ends what is under way, and the daemon may answer it all the same.
        onLockStateChanged: if (lockState === AuthDevlockClient.Locked) form.giveUp()
    }

    Connections {
        target: AuthSettingsClient
        function onUnlockFactorsChanged() { page.update() }
        function onAuthenticatedChanged() {
            if (!AuthSettingsClient.authenticated)
                return;
            if (!request.busy) {
                // The late answer to a request that was given up, perhaps another user's.
                AuthSettingsClient.dropAuthentication();
                return;
            }
            request.busy = false;
            // A daemon that has just answered can be read: changes must not start from values that are not this
            // user's.
            page.read();
        }
        function onDiscredit() {
            if (!request.busy)
                return;
            request.busy = false;
            form.refuse();
        }
    }
    Connections {
        target: AuthSettingsClient.factors
        function onDataChanged() { page.update() }
        function onModelReset() { page.update() }
    }

    Scroller {
        objectName: "scroller"
        anchors.fill: parent
        column: cards

        GridLayout {
            id: cards

            columns: page.user && page.width > 2 * Theme.column ? 2 : 1
            y: Theme.gap
            width: Math.min(parent.width - 2 * Theme.gap, columns * 1.25 * Theme.column)
            anchors.horizontalCenter: parent.horizontalCenter
            columnSpacing: Theme.gap
            rowSpacing: Theme.gap

            RowLayout {
                spacing: Theme.gap
                Layout.columnSpan: cards.columns
                Layout.fillWidth: true

                Avatar {
                    name: page.name
                    visible: page.user
                }
                ColumnLayout {
                    spacing: 2

                    Text {
                        objectName: "heading"
                        textFormat: Text.PlainText
                        color: Theme.text
                        text: page.user ? page.name : qsTr("Whose settings?")
                        font.pixelSize: 22
                        elide: Text.ElideRight
                        Layout.fillWidth: true
                        Accessible.role: Accessible.Heading
                        Accessible.name: text
                    }
                    Label {
                        text: qsTr("Sign-in and unlocking")
                        color: Theme.quiet
                        font.pixelSize: 14
                        elide: Text.ElideRight
                        Layout.fillWidth: true
                    }
                }
            }

            ColumnLayout {
                spacing: Theme.gap
                visible: page.user
                Layout.fillWidth: true
                Layout.preferredWidth: 1
                Layout.alignment: Qt.AlignTop

                Card {
                    id: summary

                    title: !page.isUnlocked ? qsTr("Settings are locked")
                           : page.isRefused ? qsTr("A change was not accepted") : qsTr("Settings are unlocked")

                    Label {
                        objectName: "summary"
                        textFormat: Text.PlainText
                        text: !page.isUnlocked ? qsTr("To change them, show that you are %1.").arg(page.name)
                              : page.isRefused ? qsTr("Reopening the settings may help.")
                              : qsTr("Changes take effect at once.")
                        color: Theme.quiet
                        font.pixelSize: 14
                        wrapMode: Text.Wrap
                        Layout.fillWidth: true
                    }
                    SecretForm {
                        id: form

                        visible: page.user && !page.isUnlocked
                        uid: page.user
                        busy: request.busy
                        overdue: request.overdue
                        // For a token one login factor is enough.
                        factor: page.loginFactors.length ? page.loginFactors[0].name : "code"
                        label: page.titleOf(factor)
                        action: qsTr("Unlock settings")
                        obstacle: device.obstacle ? device.obstacle
                                  : page.unheard && page.unheard !== page.user
                                    ? qsTr("A request about %1 is still open. "
                                           + "Please close the settings and open them again.")
                                      .arg(page.nameOf(page.unheard))
                                    : ""
                        Layout.fillWidth: true
                        // QML makes a double of a number that a real property holds, and Qt D-Bus would send it as one.
                        onSubmitted: {
                            page.asked = uid;
                            request.busy = true;
                            const params = { factor: factor, data: secret, uid: uid };
                            AuthSettingsClient.authenticate("login", AuthParameters.from(params));
                        }
                        onGivenUp: {
                            page.unheard = page.asked;
                            request.busy = false;
                            AuthSettingsClient.dropAuthentication();
                        }
                    }
                    PushButton {
                        objectName: "lock"
                        text: qsTr("Lock settings")
                        visible: page.isUnlocked
                        Layout.fillWidth: true
                        onClicked: AuthSettingsClient.dropAuthentication()
                    }
                }

                Card {
                    visible: warning.text

                    Text {
                        id: warning

                        objectName: "warning"
                        textFormat: Text.PlainText
                        color: Theme.text
                        text: AuthSettingsClient.userWarning !== "settings_users-la-user_has_token_hint"
                              ? AuthSettingsClient.userWarning
                              : qsTr("Keep your smart card at hand: you need it to sign in or to unlock the device.")
                        font.pixelSize: 14
                        wrapMode: Text.Wrap
                        Layout.fillWidth: true
                        Accessible.role: Accessible.AlertMessage
                        Accessible.name: text
                    }
                }

                Card {
                    title: qsTr("Signing in")

                    Label {
                        objectName: "managed"
                        text: page.loginFactors.length
                              ? qsTr("How you sign in is managed for you.")
                              : qsTr("How you sign in is managed for you, and not shown here.")
                        visible: !AuthSettingsClient.isUserSettable
                        color: Theme.quiet
                        font.pixelSize: 14
                        wrapMode: Text.Wrap
                        Layout.fillWidth: true
                    }
                    Repeater {
                        model: AuthSettingsClient.factors

                        Toggle {
                            readonly property var row: page.rows[index]

                            objectName: "login-" + model.name
                            text: Factors.title(model.name, model.title)
                            note: row && row.isPending ? qsTr("Not accepted yet; asked for again with the next change")
                                  : model.disabled ? qsTr("Disabled on this device") : ""
                            on: model.enabled
                            visible: !model.isUnlock && (model.enabled || AuthSettingsClient.isUserSettable)
                            // Where only one may be chosen, another choice replaces it. (Unchoosing one of several
                            // that are chosen all the same would leave none.)
                            enabled: page.isUnlocked && AuthSettingsClient.isUserSettable && visible
                                     && (AuthSettingsClient.isMultiFactorable || !model.enabled)
                                     && row !== undefined && row.canBeTriggered
                            onWished: AuthSettingsClient.triggerFactor(index)
                            onRefusedChanged: if (refused) page.lastRefused = this
                        }
                    }
                    Toggle {
                        objectName: "multiFactor"
                        text: qsTr("Several at once")
                        note: qsTr("Signing in asks for all that are chosen")
                        on: AuthSettingsClient.isMultiFactorable
                        visible: AuthSettingsClient.isUserSettable
                        enabled: page.isUnlocked
                        onWished: AuthSettingsClient.isMultiFactorable = !on
                        onRefusedChanged: if (refused) page.lastRefused = this
                    }
                }
            }

            ColumnLayout {
                spacing: Theme.gap
                Layout.fillWidth: true
                Layout.preferredWidth: 1
                Layout.alignment: Qt.AlignTop

                Card {
                    title: qsTr("Unlocking")
                    visible: page.user

                    Repeater {
                        model: page.unlockNames

                        Toggle {
                            objectName: "unlock-" + modelData
                            text: page.titleOf(modelData)
                            note: modelData === "sudis" ? qsTr("Replaces all others") : ""
                            on: page.unlockFactors.includes(modelData)
                            enabled: page.isUnlocked && AuthSettingsClient.isUserSettable
                            onWished: AuthSettingsClient.triggerUnlockFactor(modelData)
                            onRefusedChanged: if (refused) page.lastRefused = this
                        }
                    }
                    Toggle {
                        objectName: "notifications"
                        text: qsTr("Notifications on the locked screen")
                        on: AuthSettingsClient.showNotifications
                        enabled: page.isUnlocked
                        onWished: AuthSettingsClient.showNotifications = !on
                        onRefusedChanged: if (refused) page.lastRefused = this
                    }
                }

                Card {
                    objectName: "users"
                    title: page.user ? qsTr("Other users") : ""
                    visible: others.count && (!page.user || AuthSettingsClient.canSwitchToUser)

                    Repeater {
                        id: others

                        model: page.users.filter(entry => entry.uid !== page.user)

                        Choice {
                            objectName: "user" + modelData.uid
                            text: modelData.name
                            leftPadding: 0
                            rightPadding: 0
                            enabled: !request.busy
                            onClicked: page.user = modelData.uid
                        }
                    }
                }
            }
        }
    }
}
