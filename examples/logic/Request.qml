import QtQuick 2.15

// How long the outcome of a request is awaited.
Item {
    id: request

    // Whether the outcome is awaited.
    property bool busy: false
    // It has been for so long that the request may be given up.
    property bool overdue: false
    // Milliseconds until then.
    property int patience: 10000
    // Milliseconds until the request ends by itself: who has made it may have gone, and what is late must not let
    // anybody in then.
    property int longest: 60000
    signal expired()

    onBusyChanged: overdue = false

    Timer {
        interval: request.patience
        running: request.busy
        onTriggered: request.overdue = true
    }

    Timer {
        interval: request.longest
        running: request.busy
        onTriggered: request.expired()
    }
}
