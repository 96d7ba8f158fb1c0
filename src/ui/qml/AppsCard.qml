import QtQuick
import Ondril

// The panel's apps section, as a card: the header "Apps" with what is playing, the Show All
// button and the collapse chevron; under it the call to action until capture is allowed, then one
// AppRow per app of `apps` (or of `allApps` while Show All is on), or the empty text. Present only
// where per-app audio is supported. The panel hands its AppsCardModel over as "appsCard".
Item {
    id: section

    property AppsCardModel model: appsCard
    readonly property AppAudioManager manager: model.manager
    // The section's collapsed state; the view that hosts the card persists it under the id "apps".
    property bool collapsed: false
    readonly property var palette: Appearance.palette
    readonly property bool dark: Appearance.isDark
    readonly property real pt: 0.75 // Qt counts 72 points to 96 logical pixels

    visible: manager.isSupported
    width: parent && parent.leftPadding !== undefined
           ? parent.width - parent.leftPadding - parent.rightPadding : implicitWidth
    implicitWidth: 300
    implicitHeight: visible ? content.implicitHeight + 8 : 0

    // The card: black shadow 1.5 down, then the rounded surface with its hairline stroke.
    Rectangle {
        anchors.fill: surface
        anchors.topMargin: 1.5
        anchors.bottomMargin: -1.5
        radius: 12
        color: "black"
        opacity: section.dark ? 0.22 : 0.06
    }
    Rectangle {
        id: surface
        anchors.fill: parent
        radius: 12
        color: section.dark ? Qt.rgba(44 / 255, 44 / 255, 46 / 255, 1) : "white"
        border.width: 0.5
        border.color: section.dark ? Qt.rgba(1, 1, 1, 0.06) : Qt.rgba(0, 0, 0, 0.05)
    }

    Column {
        id: content
        x: 4
        y: 4
        width: section.width - 8

        // Header: a tap anywhere toggles the section.
        Item {
            id: header
            width: parent.width
            height: titles.implicitHeight + 14

            MouseArea {
                anchors.fill: parent
                onClicked: section.collapsed = !section.collapsed
            }
            Column {
                id: titles
                anchors.left: parent.left
                anchors.leftMargin: 8
                anchors.right: showAll.visible ? showAll.left : chevron.left
                anchors.rightMargin: 8
                anchors.verticalCenter: parent.verticalCenter
                Text {
                    width: parent.width
                    text: "Apps"
                    elide: Text.ElideRight
                    font.pointSize: 13 * section.pt
                    font.weight: Font.DemiBold
                    color: section.palette.textPrimary
                }
                Text {
                    objectName: "appsSubtitle"
                    width: parent.width
                    text: section.model.subtitle
                    elide: Text.ElideRight
                    font.pointSize: 11 * section.pt
                    color: section.palette.textSecondary
                }
            }
            PressScaleButtonStyle {
                id: showAll
                objectName: "showAllButton"
                anchors.right: chevron.left
                anchors.rightMargin: 8
                anchors.verticalCenter: parent.verticalCenter
                visible: section.model.showAllButtonVisible
                pressScale: 0.97
                contentItem: Text {
                    text: section.model.showAllApps ? "Show Fewer" : "Show All"
                    font.pointSize: 10.5 * section.pt
                    font.weight: Font.DemiBold
                    color: section.palette.accent
                }
                onClicked: section.model.showAllApps = !section.model.showAllApps
            }
            Item {
                id: chevron
                anchors.right: parent.right
                anchors.rightMargin: 8
                anchors.verticalCenter: parent.verticalCenter
                width: 18
                height: 18
                Symbol {
                    anchors.centerIn: parent
                    symbol: "chevron.down"
                    size: 9
                    tint: section.palette.textTertiary
                    rotation: section.collapsed ? -90 : 0
                    Behavior on rotation {
                        NumberAnimation {
                            duration: Appearance.expandDuration
                            easing.type: Easing.InOutQuad
                        }
                    }
                }
            }
        }

        // Under an expanded header: a hairline padded 6 at the sides and 2 below.
        Item {
            visible: !section.collapsed
            width: parent.width
            height: 2.5
            Rectangle {
                x: 6
                width: parent.width - 12
                height: 0.5
                color: section.palette.hairline
            }
        }

        AppsPermissionPrompt {
            objectName: "permissionPrompt"
            visible: !section.collapsed && !section.manager.permissionGranted
            width: parent.width
            manager: section.manager
        }

        Text {
            objectName: "emptyText"
            visible: !section.collapsed && section.manager.permissionGranted && rows.count === 0
            x: 16
            width: parent.width - 32
            topPadding: 14
            bottomPadding: 14
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.WordWrap
            text: "Nothing is playing. Apps appear here when they make sound, or star one to keep it pinned."
            font.pointSize: 11 * section.pt
            color: section.palette.textSecondary
        }

        Column {
            objectName: "appRows"
            visible: !section.collapsed && section.manager.permissionGranted
            width: parent.width
            Repeater {
                id: rows
                model: section.model.rows
                delegate: AppRow {
                    required property int index
                    objectName: "appRow:" + bundleID
                    width: content.width
                    card: section.model
                    showSeparator: index < rows.count - 1
                }
            }
        }
    }
}
