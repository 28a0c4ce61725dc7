import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import QtQuick.Templates 2.15 as T

// Asks for a user's secret. Who uses the form has the daemon judge the secret, and tells the form the outcome.
ColumnLayout {
    id: form

    property real uid: 0
    property string factor
    property string label
    property string action
    // Why nobody can authenticate now; empty when one can.
    property string obstacle
    property string message
    // Whether the daemon's outcome is awaited, and has been for so long that trying again is offered.
    property bool busy: false
    property bool overdue: false
    // Milliseconds until what was entered last, and not submitted, is forgotten.
    property int memory: 30000
    // The label of what was submitted last.
    property string asked
    signal submitted(string secret)
    // Nobody waits for the outcome any more, which may come all the same.
    signal givenUp()

    function submit() {
        if (busy || obstacle || !secret.text)
            return;
        message = "";
        asked = label;
        const data = secret.text;
        secret.clear();
        submitted(data);
    }

    function giveUp() {
        if (!busy)
            return;
        givenUp();
        focusSecret();
    }

    function refuse() { tell(qsTr("%1 was not accepted. Please try again.").arg(asked)) }
    function expire() { tell(qsTr("There was no answer. Please try again.")) }

    function tell(text) {
        message = text;
        focusSecret();
    }

    function focusSecret() {
        if (visible && !obstacle)
            secret.forceActiveFocus(Qt.OtherFocusReason);
    }

    spacing: Theme.gap / 2
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
        readOnly: form.busy
        echoMode: TextInput.Password
        // All that assistive technology hears of a TextField for passwords. It is not drawn: who can see reads the
        // label.
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
        onAccepted: form.submit()
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
            visible: form.busy && !form.overdue
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
            text: form.obstacle ? form.obstacle : form.overdue ? qsTr("There is no answer yet.")
                  : form.busy ? qsTr("Checking…") : form.message
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
        text: form.overdue ? qsTr("Try again") : form.action
        highlighted: true
        enabled: form.overdue || !form.busy && !form.obstacle && secret.text
        Layout.fillWidth: true
        onClicked: form.overdue ? form.giveUp() : form.submit()
    }
}
