import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import QtQuick.Templates 2.15 as T
import "../logic"
import "../style"

// Where the user enters a code, on the keyboard or the keypad, or another factor's secret.
ColumnLayout {
    id: panel

    property real unit: 1
    property bool low: false
    property string factor
    property bool busy: false
    property bool overdue: false
    property string message
    // Milliseconds until what was entered last, and not submitted, is forgotten.
    property int memory: 30000
    readonly property bool takesCode: factor === "code"
    readonly property alias shaking: shake.running
    readonly property string secret: takesCode ? code.digits : field.text
    signal submitted(string secret)
    signal givenUp()
    signal chooserWanted()

    function enter(text) {
        startOver();
        if (busy || !visible)
            return;
        if (takesCode)
            code.digits = text;
        else
            field.text = text;
        submit();
    }

    // Who enters something anew does not wait for an answer any more.
    function startOver() {
        if (overdue)
            givenUp();
    }

    // Whatever becomes of the secret, it stays in no field.
    function submit() {
        if (busy || !secret)
            return;
        const entered = secret;
        clear();
        submitted(entered);
    }

    function clear() {
        code.digits = "";
        field.text = "";
        message = "";
    }

    function refuse(reason) {
        message = reason;
        if (reason)
            shake.restart();
        focusField();
    }

    function focusField() {
        (takesCode ? code : field).forceActiveFocus(Qt.OtherFocusReason);
    }

    spacing: Theme.gap / 2 * unit
    onSecretChanged: {
        if (!secret)
            return forgetting.stop();
        message = "";
        forgetting.restart();
    }
    // Digits count wherever the focus is.
    Keys.onPressed: {
        if (!takesCode)
            return;
        if (/^[0-9]$/.test(event.text))
            startOver();
        if (!busy)
            code.take(event);
    }

    Text {
        id: prompt

        objectName: "prompt"
        text: {
            switch (panel.factor) {
            case "code":
                return qsTr("Enter your code");
            case "smartcard":
                return qsTr("Enter the secret of your smart card");
            case "sudis":
                return qsTr("Enter your Sudis password");
            }
            return qsTr("Enter your secret for “%1”").arg(Factors.title(panel.factor));
        }
        // A factor's name is no markup.
        textFormat: Text.PlainText
        color: Theme.text
        font.pixelSize: 18 * panel.unit
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.Wrap
        Layout.fillWidth: true
        Accessible.role: Accessible.Heading
        Accessible.name: text
    }

    Item {
        implicitHeight: Math.max(Theme.leastTouch, 52 * panel.unit)
        Layout.fillWidth: true
        Layout.maximumWidth: 260 * panel.unit
        Layout.alignment: Qt.AlignHCenter
        transform: Translate { id: offset }

        CodeField {
            id: code

            objectName: "code"
            anchors.fill: parent
            visible: panel.takesCode
            enabled: !panel.busy
            unit: panel.unit
            onAccepted: panel.submit()
        }
        T.TextField {
            id: field

            objectName: "field"
            anchors.fill: parent
            visible: !panel.takesCode
            enabled: !panel.busy
            leftPadding: Theme.gap
            rightPadding: Theme.gap
            font.pixelSize: 18 * panel.unit
            color: Theme.text
            selectionColor: Theme.accent
            selectedTextColor: Theme.accentText
            verticalAlignment: TextInput.AlignVCenter
            horizontalAlignment: Text.AlignHCenter
            echoMode: TextInput.Password
            // All that assistive technology hears of a TextField for passwords. It is not drawn: who can see reads the
            // prompt.
            placeholderText: prompt.text
            inputMethodHints: Qt.ImhSensitiveData | Qt.ImhNoPredictiveText | Qt.ImhNoAutoUppercase
            background: FieldFrame { focused: field.activeFocus }
            onAccepted: panel.submit()
        }
        BusyIndicator {
            anchors.centerIn: parent
            visible: panel.busy && !panel.overdue
            implicitWidth: 40
            implicitHeight: 40
            palette.dark: Theme.accent
            Accessible.ignored: true
        }
    }

    Text {
        objectName: "message"
        text: panel.overdue ? qsTr("There is no answer yet.") : panel.busy ? qsTr("Checking…") : panel.message
        color: panel.busy ? Theme.quiet : Theme.danger
        font.pixelSize: 14 * panel.unit
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
        wrapMode: Text.Wrap
        Layout.fillWidth: true
        Layout.minimumHeight: 36 * panel.unit
        Accessible.role: Accessible.AlertMessage
        Accessible.name: text
    }

    Keypad {
        objectName: "keypad"
        visible: panel.takesCode
        enabled: !panel.busy
        unit: panel.unit
        low: panel.low
        ready: panel.secret !== ""
        Layout.alignment: Qt.AlignHCenter
        onDigit: code.append(digit)
        onErase: code.erase()
        onAccepted: panel.submit()
    }
    PushButton {
        objectName: "unlock"
        visible: !panel.takesCode
        enabled: !panel.busy && panel.secret !== ""
        text: qsTr("Unlock")
        highlighted: true
        font.pixelSize: Math.max(14, 16 * panel.unit)
        implicitHeight: Math.max(Theme.leastTouch, Theme.touch * panel.unit)
        Layout.fillWidth: true
        Layout.maximumWidth: 260 * panel.unit
        Layout.alignment: Qt.AlignHCenter
        onClicked: panel.submit()
    }

    Item { Layout.fillHeight: true }
    PushButton {
        objectName: "footer"
        // Leaving an attempt that is under way would not end it: first it has to be given up.
        enabled: !panel.busy || panel.overdue
        text: panel.overdue ? qsTr("Try again") : qsTr("Other ways to unlock")
        flat: !panel.overdue
        highlighted: panel.overdue
        font.pixelSize: 15 * panel.unit
        palette.windowText: Theme.accent
        palette.highlight: Theme.accent
        palette.brightText: Theme.accentText
        implicitHeight: Math.max(Theme.leastTouch, Theme.touch * panel.unit)
        Layout.fillWidth: true
        Layout.maximumWidth: implicitWidth
        Layout.alignment: Qt.AlignHCenter
        // It could not have the focus before.
        onEnabledChanged: if (panel.overdue) forceActiveFocus(Qt.TabFocusReason)
        onClicked: panel.overdue ? panel.givenUp() : panel.chooserWanted()
    }

    // Who has begun to enter a secret may have gone.
    Timer {
        id: forgetting

        interval: panel.memory
        onTriggered: panel.clear()
    }

    SequentialAnimation {
        id: shake

        loops: 3
        NumberAnimation { target: offset; property: "x"; to: -10 * panel.unit; duration: 40 }
        NumberAnimation { target: offset; property: "x"; to: 10 * panel.unit; duration: 60 }
        NumberAnimation { target: offset; property: "x"; to: 0; duration: 40 }
    }
}
