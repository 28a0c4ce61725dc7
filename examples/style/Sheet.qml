import QtQuick 2.15
import QtQuick.Controls 2.15

// What fills the window of a screen, in the colours of the theme.
Page {
    padding: Theme.gap
    palette {
        window: Theme.ground
        windowText: Theme.text
        base: Theme.surface
        text: Theme.text
        button: Theme.surface
        buttonText: Theme.text
        brightText: Theme.accentText
        dark: Theme.line
        mid: Theme.line
        midlight: Theme.surface
        light: Theme.surface
        highlight: Theme.accent
        highlightedText: Theme.accentText
        link: Theme.accent
    }
    background: Rectangle { color: Theme.ground }
}
