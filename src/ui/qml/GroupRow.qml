import QtQuick
import QtQuick.Controls
import Ondril

// One output group: its state mark, name and member count, and, while open, the trash. A tap on
// the row selects the group, on the chevron opens or closes it; a secondary click offers
// "Delete Group".
Item {
    id: row

    property var group
    property bool isActive: false
    property bool isOpen: false
    property var palette: Appearance.palette
    readonly property bool hover: rowHover.hovered
    readonly property bool deleteHover: trashPointer.containsMouse

    signal select()
    signal toggleDisclosure()
    signal deleteRequested()

    width: parent ? parent.width : 0
    implicitHeight: content.implicitHeight + 18

    Rectangle {
        anchors.fill: parent
        radius: 8
        color: row.isActive ? row.palette.rowActive
                            : row.hover ? row.palette.rowHover : "transparent"
        Behavior on color {
            ColorAnimation { duration: Appearance.hoverDuration; easing.type: Easing.OutQuad }
        }
    }

    // The row stays lit while the pointer is over its trash or chevron.
    HoverHandler {
        id: rowHover
    }

    MouseArea {
        anchors.fill: parent
        acceptedButtons: Qt.LeftButton | Qt.RightButton
        onClicked: mouse => {
            if (mouse.button === Qt.RightButton)
                contextMenu.popup()
            else
                row.select()
        }
    }

    Row {
        id: content
        x: 8
        y: 9
        width: parent.width - 16
        spacing: 10

        Item {
            width: 16
            height: 16
            anchors.verticalCenter: parent.verticalCenter
            Rectangle {
                anchors.fill: parent
                radius: 8
                visible: row.isActive
                color: row.palette.accent
            }
            Symbol {
                anchors.centerIn: parent
                symbol: row.isActive ? "checkmark" : "circle"
                size: row.isActive ? 12 : 11
                tint: row.isActive ? "white" : row.palette.textTertiary
                opacity: row.isActive ? 1 : 0.6
            }
        }

        Column {
            width: content.width - 16 - 20 - (row.isOpen ? 20 + content.spacing : 0)
                   - 2 * content.spacing
            anchors.verticalCenter: parent.verticalCenter
            PanelLabel {
                width: parent.width
                text: row.group ? row.group.name : ""
                size: 13
                font.weight: Font.Medium
                color: row.palette.textPrimary
            }
            PanelLabel {
                width: parent.width
                text: row.group ? menuBar.groupCountText(row.group.memberUIDs.length, row.isActive)
                                : ""
                size: 11
                color: row.palette.textSecondary
            }
        }

        Item {
            objectName: "trash"
            visible: row.isOpen
            width: 20
            height: 20
            anchors.verticalCenter: parent.verticalCenter
            Symbol {
                anchors.centerIn: parent
                symbol: "trash"
                size: 12
                tint: row.deleteHover ? "#ff3b30" : row.palette.textTertiary
            }
            MouseArea {
                id: trashPointer
                anchors.fill: parent
                hoverEnabled: true
                onClicked: row.deleteRequested()
            }
            ToolTip.visible: row.deleteHover
            ToolTip.text: "Delete Group"
        }

        Item {
            objectName: "disclosure"
            width: 20
            height: 20
            anchors.verticalCenter: parent.verticalCenter
            Symbol {
                anchors.centerIn: parent
                symbol: "chevron.right"
                size: 11
                tint: row.palette.textTertiary
                rotation: row.isOpen ? 90 : 0
                Behavior on rotation {
                    NumberAnimation {
                        duration: Appearance.expandDuration
                        easing.type: Easing.InOutQuad
                    }
                }
            }
            MouseArea {
                anchors.fill: parent
                onClicked: row.toggleDisclosure()
            }
        }
    }

    Menu {
        id: contextMenu
        MenuItem {
            text: "Delete Group"
            icon.source: "image://symbol/trash/ff3b30"
            onTriggered: row.deleteRequested()
        }
    }
}
