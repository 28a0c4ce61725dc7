import QtQuick 2.15

// Shows where the keyboard's focus is; around its parent, with a gap that shows it on every ground.
Rectangle {
    property bool shown: false

    anchors.fill: parent
    anchors.margins: -4
    radius: parent.radius + 4
    color: "transparent"
    border.color: Theme.accent
    border.width: 2
    visible: shown
}
