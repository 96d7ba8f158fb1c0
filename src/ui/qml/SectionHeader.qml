import QtQuick
import Ondril

// The head of a card: title and subtitle, an optional accessory, and the chevron that tells
// whether the section is open. A tap anywhere on it toggles the section. Under an open section's
// header stands a hairline.
Column {
    id: header

    property string sectionID
    property string title
    property string subtitle
    property var palette: Appearance.palette
    property alias accessory: accessorySlot.data
    readonly property bool isCollapsed: menuBar.collapsed.indexOf(sectionID) >= 0

    width: parent ? parent.width - 8 : 0

    Item {
        objectName: "sectionHeader_" + header.sectionID
        width: parent.width
        implicitHeight: headerRow.implicitHeight + 14

        MouseArea {
            anchors.fill: parent
            onClicked: menuBar.toggleSection(header.sectionID)
        }

        Row {
            id: headerRow
            x: 8
            y: 7
            width: parent.width - 16
            spacing: 8

            Column {
                width: headerRow.width - accessorySlot.width - 18
                       - (accessorySlot.width > 0 ? 2 * headerRow.spacing : headerRow.spacing)
                anchors.verticalCenter: parent.verticalCenter
                PanelLabel {
                    width: parent.width
                    text: header.title
                    size: 13
                    font.weight: Font.DemiBold
                    color: header.palette.textPrimary
                }
                PanelLabel {
                    objectName: "sectionSubtitle"
                    width: parent.width
                    text: header.subtitle
                    size: 11
                    color: header.palette.textSecondary
                }
            }
            Item {
                id: accessorySlot
                width: childrenRect.width
                height: childrenRect.height
                anchors.verticalCenter: parent.verticalCenter
            }
            Item {
                width: 18
                height: 18
                anchors.verticalCenter: parent.verticalCenter
                Symbol {
                    anchors.centerIn: parent
                    symbol: "chevron.down"
                    size: 9
                    tint: header.palette.textTertiary
                    rotation: header.isCollapsed ? -90 : 0
                    Behavior on rotation {
                        NumberAnimation {
                            duration: Appearance.expandDuration
                            easing.type: Easing.InOutQuad
                        }
                    }
                }
            }
        }
    }

    Item {
        visible: !header.isCollapsed
        width: parent.width
        implicitHeight: 0.5 + 2
        Rectangle {
            x: 6
            width: parent.width - 12
            height: 0.5
            color: header.palette.hairline
        }
    }
}
