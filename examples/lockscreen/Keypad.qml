import QtQuick 2.15
import QtQuick.Controls 2.15
import "../style"

// Digits for those who have no keyboard. Who has one types them, and need not pass every key: only the last stops the
// Tab key.
Grid {
    id: keypad

    property real unit: 1
    // Whether there is little height.
    property bool low: false
    property bool ready: false
    signal digit(string digit)
    signal erase()
    signal accepted()

    columns: low ? 4 : 3
    rowSpacing: 8 * unit
    columnSpacing: (low ? 16 : 22) * unit

    Repeater {
        model: keypad.low ? ["1", "2", "3", "erase", "4", "5", "6", "0", "7", "8", "9", "accept"]
                          : ["1", "2", "3", "4", "5", "6", "7", "8", "9", "erase", "0", "accept"]

        AbstractButton {
            id: key

            readonly property bool accepts: modelData === "accept"
            readonly property bool erases: modelData === "erase"

            objectName: "key-" + modelData
            implicitWidth: 58 * keypad.unit
            implicitHeight: implicitWidth
            focusPolicy: accepts ? Qt.TabFocus : Qt.NoFocus
            enabled: keypad.ready || !accepts && !erases
            opacity: enabled ? 1 : 0.45
            text: accepts ? qsTr("OK") : erases ? qsTr("Erase") : modelData
            autoRepeat: erases
            background: Rectangle {
                radius: width / 2
                color: key.accepts ? Theme.accent : key.erases ? "transparent" : Theme.surface
                border.color: key.accepts || key.erases ? "transparent"
                                                        : Qt.rgba(Theme.line.r, Theme.line.g, Theme.line.b, 0.4)

                Rectangle {
                    anchors.fill: parent
                    radius: width / 2
                    color: Theme.text
                    opacity: key.down ? 0.15 : 0
                }
                FocusRing { shown: key.visualFocus }
            }
            contentItem: Label {
                text: key.text
                color: key.accepts ? Theme.accentText : Theme.text
                font.pixelSize: (key.erases ? 14 : key.accepts ? 17 : 24) * keypad.unit
                horizontalAlignment: Text.AlignHCenter
                verticalAlignment: Text.AlignVCenter
                Accessible.ignored: true
            }
            Accessible.role: Accessible.Button
            Accessible.name: accepts ? qsTr("Unlock") : erases ? qsTr("Erase the last digit") : modelData
            Keys.onReturnPressed: if (!event.isAutoRepeat) clicked()
            Keys.onEnterPressed: if (!event.isAutoRepeat) clicked()
            onClicked: accepts ? keypad.accepted() : erases ? keypad.erase() : keypad.digit(modelData)
        }
    }
}
