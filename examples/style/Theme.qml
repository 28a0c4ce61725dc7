pragma Singleton
import QtQuick 2.15

// The colours of all screens, in light and dark. Texts stand out against their ground with a contrast of 4.5 or more.
QtObject {
    property bool dark: false

    readonly property color ground: dark ? "#14171c" : "#f5f6f8"
    readonly property color surface: dark ? "#20252d" : "#ffffff"
    readonly property color line: dark ? "#7c8594" : "#767f8d"
    readonly property color text: dark ? "#f1f3f6" : "#161a20"
    readonly property color quiet: dark ? "#b4bcc8" : "#535c69"
    readonly property color accent: dark ? "#7db3ff" : "#1456b8"
    readonly property color accentText: dark ? "#0c1116" : "#ffffff"
    readonly property color danger: dark ? "#ff9a92" : "#b3261e"
    readonly property color good: dark ? "#7fd99a" : "#1b6e37"

    readonly property int touch: 48
    // On a phone that is held sideways.
    readonly property int leastTouch: 40
    readonly property int gap: 16
    readonly property int column: 400
}
