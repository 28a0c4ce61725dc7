import QtQuick 2.15
import QtQuick.Controls 2.15
import "../style"

// The time and the date.
Item {
    id: clock

    property real unit: 1
    property date now: new Date()
    readonly property string timeFormat: Qt.locale().timeFormat(Locale.ShortFormat).replace(":ss", "")

    implicitHeight: column.implicitHeight
    Accessible.role: Accessible.StaticText
    Accessible.name: time.text + ", " + date.text

    Timer {
        interval: 1000
        repeat: true
        running: clock.visible
        onTriggered: clock.now = new Date()
    }

    Column {
        id: column

        anchors.centerIn: parent
        width: parent.width

        Label {
            id: time

            objectName: "time"
            width: parent.width
            text: clock.now.toLocaleTimeString(Qt.locale(), clock.timeFormat)
            font.pixelSize: 68 * clock.unit
            font.weight: Font.ExtraLight
            horizontalAlignment: Text.AlignHCenter
            fontSizeMode: Text.HorizontalFit
            Accessible.ignored: true
        }
        Label {
            id: date

            objectName: "date"
            width: parent.width
            text: clock.now.toLocaleDateString(Qt.locale(), Locale.LongFormat)
            color: Theme.quiet
            font.pixelSize: 15 * clock.unit
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.Wrap
            Accessible.ignored: true
        }
    }
}
