import QtQuick 2.15
import "../style"

Screen {
    id: screen

    title: qsTr("Sign in")
    settled: login.settled

    LoginScreen {
        id: login

        anchors.fill: parent
        user: screen.user
    }
}
