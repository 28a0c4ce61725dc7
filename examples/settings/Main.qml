import QtQuick 2.15
import "../style"

Screen {
    id: screen

    title: qsTr("Sign-in settings")
    settled: page.settled

    SettingsPage {
        id: page

        anchors.fill: parent
        user: screen.user
    }
}
