import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Vantora.Auth 1.0
import "../logic"
import "../style"

// Lets the user choose among the factors that unlock for them.
FocusScope {
    id: chooser

    property real unit: 1
    property real user: 0
    property string current
    property var factors: []
    signal chosen(string name)

    // Waits for the daemon, with several calls: when it is mute to all of them, the locked screen is frozen for minutes.
    // The settings client stays afterwards, and waits again for a daemon that comes back and is mute.
    function read() {
        Factors.read(user);
        const names = AuthSettingsClient.unlockFactors;
        factors = names.length ? names : ["code"];
    }

    focus: true
    Keys.onEscapePressed: chosen(current)
    Keys.onDownPressed: nextItemInFocusChain(true).forceActiveFocus(Qt.TabFocusReason)
    Component.onCompleted: forceActiveFocus()

    // What is shown meanwhile is drawn first.
    Timer {
        interval: 50
        running: true
        onTriggered: chooser.read()
    }

    Scroller {
        id: scroller

        objectName: "choices"
        anchors.fill: parent
        column: choices
        clip: contentHeight > height

        ColumnLayout {
            id: choices

            width: parent.width
            spacing: Theme.gap / 2 * chooser.unit

            Text {
                objectName: "chooserTitle"
                text: chooser.factors.length ? qsTr("How do you want to unlock?")
                                             : qsTr("Looking up your ways to unlock…")
                color: Theme.text
                font.pixelSize: 18 * chooser.unit
                horizontalAlignment: Text.AlignHCenter
                wrapMode: Text.Wrap
                Layout.fillWidth: true
                Layout.bottomMargin: Theme.gap / 2
                Accessible.role: Accessible.Heading
                Accessible.name: text
            }
            Repeater {
                model: chooser.factors

                PushButton {
                    id: choice

                    objectName: "factor-" + modelData
                    text: Factors.title(modelData)
                    highlighted: modelData === chooser.current
                    implicitHeight: Math.max(Theme.leastTouch, Theme.touch * chooser.unit)
                    font.pixelSize: Math.max(14, 16 * chooser.unit)
                    Layout.fillWidth: true
                    Layout.maximumWidth: 260 * chooser.unit
                    Layout.alignment: Qt.AlignHCenter
                    Accessible.description: highlighted ? qsTr("In use now") : ""
                    Keys.onUpPressed: nextItemInFocusChain(false).forceActiveFocus(Qt.BacktabFocusReason)
                    Keys.onDownPressed: nextItemInFocusChain(true).forceActiveFocus(Qt.TabFocusReason)
                    Component.onCompleted: if (highlighted) forceActiveFocus(Qt.TabFocusReason)
                    // It has the focus before it has a place.
                    onYChanged: if (activeFocus) scroller.follow()
                    onClicked: chooser.chosen(modelData)
                }
            }
            PushButton {
                objectName: "leave"
                text: qsTr("Back")
                flat: true
                palette.windowText: Theme.accent
                palette.highlight: Theme.accent
                font.pixelSize: 15 * chooser.unit
                implicitHeight: Math.max(Theme.leastTouch, Theme.touch * chooser.unit)
                Layout.alignment: Qt.AlignHCenter
                Layout.topMargin: Theme.gap / 2
                Keys.onUpPressed: nextItemInFocusChain(false).forceActiveFocus(Qt.BacktabFocusReason)
                onClicked: chooser.chosen(chooser.current)
            }
        }
    }
}
