import QtQuick 2.15
import QtQuick.Controls 2.15

// The window of a screen.
ApplicationWindow {
    property bool dark: false
    // The user whose screen it is.
    property real user: 0
    // Whether the screen shows what the daemon has told, rather than that it still waits.
    property bool settled: true

    visible: true
    color: Theme.ground
    Component.onCompleted: Theme.dark = dark
}
