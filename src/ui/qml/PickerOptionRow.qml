import QtQuick
import Ondril

// One choice of a list: a radio mark, the name and an optional subtitle. A tap emits chosen().
PressScaleButtonStyle {
    id: option

    property string name
    property string subtitle
    property bool selected: false
    property var palette: Appearance.palette
    property real trailingPadding: 8

    width: parent ? parent.width : 0
    implicitHeight: content.implicitHeight + 14
    signal chosen()

    onClicked: chosen()

    Rectangle {
        anchors.fill: parent
        radius: 8
        color: option.hovered ? option.palette.rowHover : "transparent"
        Behavior on color {
            ColorAnimation { duration: Appearance.hoverDuration; easing.type: Easing.OutQuad }
        }
    }

    Row {
        id: content
        x: 8
        y: 7
        width: parent.width - 8 - option.trailingPadding
        spacing: 11

        RadioMark {
            anchors.verticalCenter: parent.verticalCenter
            chosen: option.selected
            pressed: option.pressed
            palette: option.palette
        }
        Column {
            width: content.width - 18 - content.spacing
            anchors.verticalCenter: parent.verticalCenter
            PanelLabel {
                width: parent.width
                text: option.name
                size: 12.5
                color: option.palette.textPrimary
            }
            PanelLabel {
                visible: option.subtitle !== ""
                width: parent.width
                text: option.subtitle
                size: 10.5
                color: option.palette.textSecondary
            }
        }
    }
}
