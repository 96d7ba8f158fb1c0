import QtQuick
import Ondril

// The hairline between two rows of a list, inset to the text column.
Item {
    property var palette: Appearance.palette

    width: parent ? parent.width : 0
    implicitHeight: 0.5

    Rectangle {
        x: 42
        width: parent.width - 42 - 6
        height: 0.5
        color: parent.palette.hairline
    }
}
