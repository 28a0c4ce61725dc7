import QtQuick 2.15
import QtQuick.Controls 2.15

// A button; the highlighted one is the thing to do.
Button {
    id: button

    implicitHeight: Theme.touch
    leftPadding: Theme.gap
    rightPadding: Theme.gap
    opacity: enabled ? 1 : 0.5
    background: Rectangle {
        implicitWidth: Theme.touch
        radius: 10
        color: button.highlighted ? Theme.accent : button.flat ? "transparent" : Theme.surface
        border.color: Theme.line
        border.width: button.highlighted || button.flat ? 0 : 1

        Rectangle {
            anchors.fill: parent
            radius: 10
            color: Theme.text
            opacity: button.down ? 0.15 : 0
        }
        FocusRing { shown: button.visualFocus }
    }
    contentItem: Text {
        text: button.text
        textFormat: Text.PlainText
        font: button.font
        color: button.highlighted ? button.palette.brightText
               : button.flat ? button.palette.windowText : button.palette.buttonText
        elide: Text.ElideRight
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
        Accessible.ignored: true
    }
    Accessible.name: text
    Accessible.onPressAction: if (enabled) clicked()
    Keys.onReturnPressed: if (!event.isAutoRepeat) clicked()
    Keys.onEnterPressed: if (!event.isAutoRepeat) clicked()
}
