import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "../style"

// Says in what state the device is where there is nothing to enter.
ColumnLayout {
    id: notice

    property real unit: 1
    property bool open: false
    property bool busy: false
    property string title
    property string text
    property string action
    signal triggered()

    spacing: Theme.gap * unit
    Accessible.role: Accessible.AlertMessage
    Accessible.name: title
    Accessible.description: text

    Item {
        Layout.fillHeight: true
        Layout.preferredHeight: 2
    }
    Rectangle {
        implicitWidth: 104 * notice.unit
        implicitHeight: implicitWidth
        radius: width / 2
        color: Theme.surface
        Layout.alignment: Qt.AlignHCenter

        LockGlyph {
            anchors.centerIn: parent
            scale: notice.unit
            visible: !notice.busy
            open: notice.open
            color: notice.open ? Theme.good : Theme.accent
        }
        BusyIndicator {
            anchors.centerIn: parent
            visible: notice.busy
            palette.dark: Theme.accent
            Accessible.ignored: true
        }
    }
    Text {
        objectName: "title"
        text: notice.title
        color: Theme.text
        font.pixelSize: 24 * notice.unit
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.Wrap
        Layout.fillWidth: true
        Accessible.role: Accessible.Heading
        Accessible.name: text
    }
    Label {
        objectName: "text"
        text: notice.text
        color: Theme.quiet
        font.pixelSize: 16 * notice.unit
        lineHeight: 1.2
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.Wrap
        Layout.fillWidth: true
        Layout.maximumWidth: 320 * notice.unit
        Layout.alignment: Qt.AlignHCenter
        Accessible.ignored: true
    }
    PushButton {
        objectName: "action"
        visible: notice.action !== ""
        text: notice.action
        highlighted: true
        font.pixelSize: 16 * notice.unit
        implicitHeight: Math.max(Theme.leastTouch, Theme.touch * notice.unit)
        implicitWidth: 200 * notice.unit
        Layout.alignment: Qt.AlignHCenter
        Layout.topMargin: Theme.gap
        onClicked: notice.triggered()
    }
    Item {
        Layout.fillHeight: true
        Layout.preferredHeight: 3
    }
}
