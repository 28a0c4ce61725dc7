import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import QtQuick.Templates 2.15 as T

// Asks for a user's secret. Who uses it has the daemon judge the secret, and tells the form the outcome.
ColumnLayout {
    id: form

    property real uid: 0
    property string factor
    property string label
    property string action
    // Why nobody can authenticate now; empty when one can.
    property string obstacle
    property string message
    // How long to wait for the daemon before offering to try again.
    property int patience: 10000
    // Milliseconds until what was entered last, and not submitted, is forgotten.
    property int memory: 30000
    property bool asking: false
    property bool isStuck: false
    property string asked
    property real askedUid: 0
    signal submitted(string secret)
    // Nobody waits for the outcome any more, which may come all the same; it is about askedUid.
    signal givenUp()

    function ask() {
        if (asking || obstacle || !secret.text)
            return;
        message = "";
        asked = label;
        askedUid = uid;
        asking = true;
        const data = secret.text;
        secret.clear();
        submitted(data);
    }

    function giveUp() {
        if (!asking)
            return;
        asking = false;
        givenUp();
        focusSecret();
    }

    function accept() {
        asking = false;
    }

    function refuse() {
        if (!asking)
            return;
        asking = false;
        message = qsTr("%1 was not accepted. Please try again.").arg(asked);
        focusSecret();
    }

    function focusSecret() {
        if (visible && !obstacle)
            secret.forceActiveFocus(Qt.OtherFocusReason);
    }

    spacing: Theme.gap / 2
    onAskingChanged: isStuck = false
    // An answer that is still to come is about something else then.
    onFactorChanged: {
        giveUp();
        secret.clear();
    }
    onUidChanged: {
        giveUp();
        secret.clear();
        message = "";
    }
    onObstacleChanged: {
        message = "";
        if (obstacle)
            secret.clear();
    }

    Timer {
        interval: form.patience
        running: form.asking
        onTriggered: form.isStuck = true
    }
    // Who has begun to enter a secret may have gone.
    Timer {
        id: forgetting

        interval: form.memory
        onTriggered: secret.clear()
    }

    Label {
        textFormat: Text.PlainText
        text: form.label
        color: Theme.quiet
        font.pixelSize: 14
        Accessible.ignored: true
    }
    T.TextField {
        id: secret

        objectName: "secret"
        implicitHeight: Theme.touch
        color: Theme.text
        selectionColor: Theme.accent
        selectedTextColor: Theme.accentText
        verticalAlignment: TextInput.AlignVCenter
        leftPadding: 12
        rightPadding: 12
        font.pixelSize: 18
        // What is hidden would keep the keyboard's focus.
        enabled: form.visible && !form.obstacle
        opacity: enabled ? 1 : 0.5
        readOnly: form.asking
        echoMode: TextInput.Password
        // All that the toolkit tells of a field for passwords. It is not drawn: who can see reads the label.
        placeholderText: form.label
        inputMethodHints: Qt.ImhSensitiveData | Qt.ImhNoPredictiveText | Qt.ImhNoAutoUppercase
                          | (form.factor === "code" ? Qt.ImhPreferNumbers : Qt.ImhNone)
        background: Rectangle {
            radius: 10
            color: Theme.surface
            border.color: secret.activeFocus ? Theme.accent : Theme.line
            border.width: secret.activeFocus ? 2 : 1
        }
        Layout.fillWidth: true
        onAccepted: form.ask()
        onTextEdited: form.message = ""
        onTextChanged: text ? forgetting.restart() : forgetting.stop()
        // At once: a screen that is settled shows where the focus is.
        onEnabledChanged: form.focusSecret()
    }
    RowLayout {
        spacing: Theme.gap / 2
        Layout.fillWidth: true
        Layout.minimumHeight: 40

        BusyIndicator {
            visible: form.asking && !form.isStuck
            running: visible
            implicitWidth: 32
            implicitHeight: 32
            palette.dark: Theme.accent
            Accessible.ignored: true
        }
        Text {
            id: note

            objectName: "note"
            textFormat: Text.PlainText
            text: form.obstacle ? form.obstacle : form.isStuck ? qsTr("There is no answer yet.")
                  : form.asking ? qsTr("Checking…") : form.message
            color: form.message && !form.obstacle ? Theme.danger : Theme.quiet
            font.pixelSize: 14
            wrapMode: Text.Wrap
            Layout.fillWidth: true
            Accessible.role: Accessible.AlertMessage
            Accessible.name: text
        }
    }
    PushButton {
        objectName: "submit"
        text: form.isStuck ? qsTr("Try again") : form.action
        highlighted: true
        enabled: form.isStuck || !form.asking && !form.obstacle && secret.text
        Layout.fillWidth: true
        onClicked: form.isStuck ? form.giveUp() : form.ask()
    }
}
