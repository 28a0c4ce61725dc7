import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15

// A titled group.
Pane {
    property string title
    default property alias content: column.data

    function focusHeading() { heading.forceActiveFocus() }

    Layout.fillWidth: true
    padding: Theme.gap
    background: Rectangle {
        radius: 12
        color: Theme.surface
    }
    Accessible.role: Accessible.Grouping
    Accessible.name: title

    contentItem: ColumnLayout {
        id: column

        spacing: Theme.gap / 2

        Text {
            id: heading

            text: title
            visible: text
            color: Theme.text
            font.pixelSize: 16
            font.bold: true
            wrapMode: Text.Wrap
            Layout.fillWidth: true
            Accessible.role: Accessible.Heading
            Accessible.name: text
        }
    }
}
