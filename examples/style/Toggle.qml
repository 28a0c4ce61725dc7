import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15

// A switch that shows what the daemon last said, never what was wished for.
CheckDelegate {
    id: toggle

    property bool on: false
    property string note
    // Whether the daemon has not followed the last wish.
    property bool refused: false
    property int patience: 1000
    signal wished()

    function wish() {
        if (!enabled)
            return;
        // The user's press has put a value in the place of the binding.
        checked = Qt.binding(() => on);
        refused = false;
        answer.wanted = !on;
        answer.restart();
        wished();
    }

    implicitHeight: Math.max(Theme.touch, implicitContentHeight + topPadding + bottomPadding)
    focusPolicy: Qt.StrongFocus
    padding: 0
    topPadding: 6
    bottomPadding: 6
    Layout.fillWidth: true
    checked: on
    onToggled: wish()
    onOnChanged: refused = false
    onEnabledChanged: {
        answer.stop();
        refused = false;
    }
    Keys.onReturnPressed: if (!event.isAutoRepeat) wish()
    Keys.onEnterPressed: if (!event.isAutoRepeat) wish()
    Accessible.name: text
    Accessible.description: caption.text
    Accessible.onPressAction: wish()
    Accessible.onToggleAction: wish()

    contentItem: ColumnLayout {
        spacing: 2

        Label {
            textFormat: Text.PlainText
            text: toggle.text
            wrapMode: Text.Wrap
            rightPadding: toggle.indicator.width + Theme.gap
            Layout.fillWidth: true
            Accessible.ignored: true
        }
        Label {
            id: caption

            textFormat: Text.PlainText
            text: toggle.refused ? qsTr("Not accepted") : toggle.note
            visible: text
            color: toggle.refused ? Theme.danger : Theme.quiet
            font.pixelSize: 13
            wrapMode: Text.Wrap
            rightPadding: toggle.indicator.width + Theme.gap
            Layout.fillWidth: true
            Accessible.ignored: true
        }
    }
    indicator: Rectangle {
        x: toggle.width - width
        y: (toggle.height - height) / 2
        width: 48
        height: 28
        radius: 14
        opacity: toggle.enabled ? 1 : 0.5
        color: toggle.checked ? Theme.accent : "transparent"
        border.color: toggle.checked ? Theme.accent : Theme.line
        border.width: 2

        Rectangle {
            x: 4 + (toggle.checked ? 1 : 0) * (parent.width - width - 8)
            anchors.verticalCenter: parent.verticalCenter
            width: 20
            height: 20
            radius: 10
            color: toggle.checked ? Theme.accentText : Theme.line
        }
    }
    background: Rectangle {
        radius: 6
        color: "transparent"

        FocusRing {
            anchors.leftMargin: -10
            anchors.rightMargin: -10
            shown: toggle.visualFocus
        }
    }

    Timer {
        id: answer

        property bool wanted: false

        interval: toggle.patience
        onTriggered: toggle.refused = toggle.on !== wanted
    }
}
