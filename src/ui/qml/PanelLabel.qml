import QtQuick
import QtQuick.Window

// One line of the panel's text at `size` logical pixels (the sizes are fractional, so they are
// turned into points at the screen's logical density).
Text {
    property real size: 13

    font.pointSize: size * 72 / (Screen.logicalPixelDensity * 25.4)
    elide: Text.ElideRight
    maximumLineCount: 1
    textFormat: Text.PlainText
}
