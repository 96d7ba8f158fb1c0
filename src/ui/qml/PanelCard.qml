import QtQuick
import Ondril

// A rounded card of the panel's main stack. Its children stack vertically inside a padding of 4.
Item {
    id: card

    property var palette: Appearance.palette
    property bool dark: Appearance.isDark
    default property alias content: column.data

    implicitHeight: column.implicitHeight
    width: parent ? parent.width - (parent.leftPadding || 0) - (parent.rightPadding || 0) : 0

    // Shadow: black at 0.22 (dark) or 0.06 (light), radius 5, 1.5 down.
    Rectangle {
        x: -2.5
        y: 1.5 - 2.5
        width: parent.width + 5
        height: parent.height + 5
        radius: 12 + 2.5
        color: "black"
        opacity: (card.dark ? 0.22 : 0.06) / 2
    }
    Rectangle {
        anchors.fill: parent
        radius: 12
        color: card.dark ? Qt.rgba(44 / 255, 44 / 255, 46 / 255, 1) : "white"
        border.width: 0.5
        border.color: card.dark ? Qt.rgba(1, 1, 1, 0.06) : Qt.rgba(0, 0, 0, 0.05)
    }
    Column {
        id: column
        width: parent.width
        padding: 4
    }
}
