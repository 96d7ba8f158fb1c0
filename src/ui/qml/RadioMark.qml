import QtQuick
import Ondril

// The radio mark of an option row: filled in the accent when chosen, an empty ring otherwise;
// it dips to 0.92 while pressed, with the press spring.
Item {
    property bool chosen: false
    property bool pressed: false
    property var palette: Appearance.palette

    width: 18
    height: 15
    scale: pressed ? 0.92 : 1
    Behavior on scale {
        SpringAnimation { spring: Appearance.springStiffness; damping: Appearance.springDamping }
    }

    Symbol {
        anchors.centerIn: parent
        symbol: parent.chosen ? "largecircle.fill.circle" : "circle"
        size: 15
        tint: parent.chosen ? parent.palette.accent : parent.palette.textTertiary
        opacity: parent.chosen ? 1 : 0.5
    }
}
