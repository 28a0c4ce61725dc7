import QtQuick 2.15
import QtQuick.Controls 2.15
import "../style"

// Shows a code as dots. It is no text field: those call the platform's keyboard, remember what was typed for undoing
// it, and let it be copied.
Item {
    id: field

    property real unit: 1
    // Not called text: that would be read out by assistive technology.
    property string digits
    readonly property int maximumLength: 128
    signal accepted()

    function append(digit) {
        if (digits.length < maximumLength)
            digits += digit;
    }

    function erase() { digits = digits.slice(0, -1) }

    function take(event) {
        event.accepted = true;
        if (/^[0-9]$/.test(event.text))
            append(event.text);
        else if (event.key === Qt.Key_Backspace)
            erase();
        else if (event.key !== Qt.Key_Return && event.key !== Qt.Key_Enter)
            event.accepted = false;
        else if (!event.isAutoRepeat)
            accepted();
    }

    activeFocusOnTab: true
    // Qt Quick does not tell the name of a field for passwords, but its description.
    Accessible.role: Accessible.EditableText
    Accessible.description: digits ? qsTr("Code, %n digit(s) entered", "", digits.length) : qsTr("Code, empty")
    Accessible.passwordEdit: true
    Accessible.focusable: true
    Accessible.focused: activeFocus

    FieldFrame {
        anchors.fill: parent
        focused: field.activeFocus
    }
    Row {
        readonly property real room: field.width - 2 * Theme.gap
        readonly property real dot: Math.min(14 * field.unit, room / (1.7 * field.digits.length))

        anchors.centerIn: parent
        spacing: dot * 0.7

        Repeater {
            objectName: "dots"
            model: field.digits.length

            Rectangle {
                width: parent ? parent.dot : 0
                height: width
                radius: width / 2
                color: Theme.text
                NumberAnimation on scale { from: 0.3; to: 1; duration: 120; easing.type: Easing.OutBack }
            }
        }
    }
}
