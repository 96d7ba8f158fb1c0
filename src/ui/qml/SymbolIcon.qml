import QtQuick
import QtQuick.Controls.impl
import Ondril

// A symbol of the screens drawn from the desktop's icon theme, recoloured to `tint`.
// `pointSize` is the symbol's size in the layout's points (logical pixels).
Item {
    id: symbolIcon

    property string symbol
    property real pointSize: 12
    property color tint: Appearance.palette.glyph

    implicitWidth: pointSize
    implicitHeight: pointSize

    IconImage {
        anchors.fill: parent
        name: Symbols.themeName(symbolIcon.symbol)
        color: symbolIcon.tint
        sourceSize: Qt.size(symbolIcon.pointSize, symbolIcon.pointSize)
        fillMode: Image.PreserveAspectFit
    }
}
