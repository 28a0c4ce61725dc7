import QtQuick 2.15

// A padlock.
Item {
    id: glyph

    property bool open: false
    property color color

    implicitWidth: 36
    implicitHeight: 44

    // The upper half of a ring; that of an open lock stands beside it, on one leg.
    Item {
        x: glyph.width * (glyph.open ? 0.55 : 0.14)
        width: glyph.width * 0.72
        height: glyph.height * 0.45
        clip: true

        Rectangle {
            width: parent.width
            height: glyph.height
            radius: width / 2
            color: "transparent"
            border.color: glyph.color
            border.width: glyph.width * 0.12
        }
    }
    Rectangle {
        y: glyph.height * 0.44
        width: glyph.width
        height: glyph.height * 0.56
        radius: glyph.width * 0.16
        color: glyph.color
    }
}
