import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15

// A user to choose.
Button {
    id: choice

    implicitHeight: Theme.touch + Theme.gap
    focusPolicy: Qt.StrongFocus
    leftPadding: Theme.gap
    rightPadding: Theme.gap
    Layout.fillWidth: true
    contentItem: RowLayout {
        spacing: Theme.gap

        Avatar {
            name: choice.text
            implicitWidth: 40
        }
        Label {
            textFormat: Text.PlainText
            text: choice.text
            elide: Text.ElideRight
            Layout.fillWidth: true
            Accessible.ignored: true
        }
        Label {
            text: "›"
            color: Theme.quiet
            font.pixelSize: 24
            Accessible.ignored: true
        }
    }
    background: Rectangle {
        radius: 12
        color: choice.down ? Theme.ground : Theme.surface
        border.color: choice.down ? Theme.line : "transparent"

        FocusRing { shown: choice.visualFocus }
    }
    Accessible.name: text
    Accessible.onPressAction: if (enabled) clicked()
    Keys.onReturnPressed: if (!event.isAutoRepeat) clicked()
    Keys.onEnterPressed: if (!event.isAutoRepeat) clicked()
}
