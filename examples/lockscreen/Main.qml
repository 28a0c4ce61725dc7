import QtQuick 2.15
import "../style"

Screen {
    id: window

    property alias unlocked: content.unlocked

    function enter(code) { content.enter(code) }

    title: qsTr("Lock screen")
    settled: content.settled

    LockScreen {
        id: content

        anchors.fill: parent
        focus: true
        user: window.user
    }
}
