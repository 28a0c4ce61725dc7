import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Window 2.15

// Scrolls a column of items when it is too tall, and follows the keyboard's focus.
Flickable {
    id: scroller

    property Item column
    readonly property Item focused: Window.activeFocusItem

    function follow() {
        for (let item = focused; item !== contentItem; item = item.parent) {
            if (!item)
                return;
        }
        const y = focused.mapToItem(contentItem, 0, 0).y;
        contentY = Math.max(0, Math.min(y - Theme.gap, Math.max(contentY, y + focused.height + Theme.gap - height)));
    }

    contentWidth: width
    contentHeight: Math.max(height, column.height + 2 * Theme.gap)
    boundsBehavior: Flickable.StopAtBounds
    ScrollBar.vertical: ScrollBar {}
    onFocusedChanged: follow()
}
