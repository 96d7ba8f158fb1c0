import QtQuick
import Ondril

// One option of an app row's output or boost picker: the name, a subtitle under it, and a
// checkmark at the right while selected. Indented 44 so that it lines up under the app's name.
PressScaleButtonStyle {
    id: option

    property string name
    property string subtitle
    property bool selected: false
    readonly property var palette: Appearance.palette
    readonly property real pt: 0.75 // Qt counts 72 points to 96 logical pixels

    pressScale: 0.97
    leftPadding: 44
    rightPadding: 10
    topPadding: 6
    bottomPadding: 6

    background: Rectangle {
        radius: 6
        color: option.hovered ? option.palette.rowHover : "transparent"
        Behavior on color {
            ColorAnimation { duration: Appearance.hoverDuration; easing.type: Easing.OutQuad }
        }
    }

    contentItem: Item {
        implicitHeight: texts.implicitHeight
        Column {
            id: texts
            anchors.left: parent.left
            anchors.right: check.left
            anchors.verticalCenter: parent.verticalCenter
            Text {
                width: parent.width
                text: option.name
                elide: Text.ElideRight
                font.pointSize: 12 * option.pt
                color: option.palette.textPrimary
            }
            Text {
                width: parent.width
                visible: option.subtitle !== ""
                text: option.subtitle
                elide: Text.ElideRight
                font.pointSize: 10 * option.pt
                color: option.palette.textSecondary
            }
        }
        Symbol {
            id: check
            anchors.right: parent.right
            anchors.verticalCenter: parent.verticalCenter
            visible: option.selected
            symbol: "checkmark"
            size: 10
            tint: option.palette.accent
        }
    }
}
