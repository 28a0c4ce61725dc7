import QtQuick 2.15
import QtQuick.Controls 2.15

// Stands for a user.
Rectangle {
    property string name

    implicitWidth: Theme.touch
    implicitHeight: width
    radius: width / 2
    color: Theme.accent

    Label {
        anchors.centerIn: parent
        textFormat: Text.PlainText
        text: parent.name.charAt(0).toUpperCase()
        color: Theme.accentText
        font.pixelSize: parent.width * 0.45
        Accessible.ignored: true
    }
}
