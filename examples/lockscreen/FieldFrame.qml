import QtQuick 2.15
import "../style"

// Around what can be entered; the focus shows.
Rectangle {
    property bool focused: false

    radius: 14
    color: Theme.surface
    border.color: focused ? Theme.accent : Theme.line
    border.width: focused ? 2 : 1
}
