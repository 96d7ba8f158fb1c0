import QtQuick
import QtQuick.Controls
import QtQuick.Controls.impl
import Ondril

// One application of the apps card: icon, name, "Playing" badge, favourite star and mute; the
// volume slider with the app's live level, the boost button with its percent, and the output
// button with the route summary. Under the main line stands at most one open picker. Every
// control writes through the card's AppAudioManager; the row redraws from what it publishes.
Item {
    id: row

    required property string bundleID
    required property string name
    required property bool isPlaying
    required property real volume
    required property bool muted
    required property var routeUIDs
    required property bool favourite
    required property string iconName

    property AppsCardModel card
    property bool showSeparator: false
    // "output", "boost" or "" for none: at most one picker is open in a row.
    property string openPicker: ""

    readonly property AppAudioManager manager: card.manager
    readonly property var palette: Appearance.palette
    readonly property real pt: 0.75 // Qt counts 72 points to 96 logical pixels

    function togglePicker(picker) {
        openPicker = openPicker === picker ? "" : picker
    }

    implicitHeight: stack.implicitHeight + (showSeparator ? 0.5 : 0)

    Column {
        id: stack
        width: row.width
        padding: 10
        spacing: 4

        // The main line: the icon column and the text column.
        Row {
            width: parent.width - 20
            spacing: 6

            Item {
                width: 26
                height: 26
                IconImage {
                    id: appIcon
                    anchors.centerIn: parent
                    name: row.iconName
                    visible: row.iconName !== "" && status === Image.Ready
                    width: 22
                    height: 22
                    sourceSize: Qt.size(22, 22)
                }
                // Without an icon of its own the app shows a glyph on a tile of the icon's size.
                Rectangle {
                    anchors.centerIn: parent
                    visible: !appIcon.visible
                    width: 22
                    height: 22
                    radius: 5
                    color: row.palette.rowHover

                    Symbol {
                        anchors.centerIn: parent
                        symbol: "app.fill"
                        size: 11
                        tint: row.palette.textTertiary
                    }
                }
            }

            Column {
                width: parent.width - 32
                spacing: 6

                Item {
                    width: parent.width
                    height: Math.max(nameText.implicitHeight, star.implicitHeight)

                    Row {
                        anchors.left: parent.left
                        anchors.right: buttons.left
                        anchors.rightMargin: 6
                        anchors.verticalCenter: parent.verticalCenter
                        spacing: 6
                        Text {
                            id: nameText
                            width: Math.min(implicitWidth, parent.width - (badge.visible ? badge.width + 6 : 0))
                            text: row.name
                            elide: Text.ElideRight
                            maximumLineCount: 1
                            font.pointSize: 12.5 * row.pt
                            color: row.palette.textPrimary
                        }
                        Rectangle {
                            id: badge
                            anchors.verticalCenter: parent.verticalCenter
                            visible: opacity > 0
                            opacity: row.isPlaying ? 1 : 0
                            scale: row.isPlaying ? 1 : 0.6
                            width: badgeText.implicitWidth + 10
                            height: badgeText.implicitHeight + 3
                            radius: height / 2
                            color: row.palette.accentSoft
                            Behavior on opacity {
                                NumberAnimation { duration: Appearance.expandDuration }
                            }
                            Behavior on scale {
                                NumberAnimation { duration: Appearance.expandDuration }
                            }
                            Text {
                                id: badgeText
                                anchors.centerIn: parent
                                text: "Playing"
                                font.pointSize: 9 * row.pt
                                color: row.palette.accent
                            }
                        }
                    }

                    Row {
                        id: buttons
                        anchors.right: parent.right
                        anchors.verticalCenter: parent.verticalCenter
                        spacing: 6
                        PressScaleButtonStyle {
                            id: star
                            objectName: "favouriteButton"
                            pressScale: 1
                            opacity: pressed ? 0.6 : 1
                            contentItem: Symbol {
                                symbol: row.favourite ? "star.fill" : "star"
                                size: 12
                                tint: row.favourite ? row.palette.accent : row.palette.textTertiary
                                scale: row.favourite ? 1.08 : 1
                                Behavior on scale {
                                    SpringAnimation {
                                        spring: Appearance.springStiffness
                                        damping: Appearance.springDamping
                                    }
                                }
                            }
                            onClicked: row.manager.setFavourite(row.bundleID, !row.favourite)
                        }
                        PressScaleButtonStyle {
                            objectName: "muteButton"
                            pressScale: 1
                            opacity: pressed ? 0.6 : 1
                            contentItem: Symbol {
                                symbol: row.muted ? "speaker.slash.fill" : "speaker.wave.2"
                                size: 12
                                tint: row.palette.textSecondary
                            }
                            onClicked: row.manager.setMuted(row.bundleID, !row.muted)
                        }
                    }
                }

                Row {
                    width: parent.width
                    spacing: 8

                    OndrilSlider {
                        id: slider
                        objectName: "volumeSlider"
                        anchors.verticalCenter: parent.verticalCenter
                        width: parent.width - boost.width - output.width - 16
                        trackHeight: 4
                        knobSize: 12
                        // Boost shows as a full track; the slider itself reaches 1.0 at most.
                        value: Math.min(row.volume, 1)
                        level: row.muted ? undefined : row.manager.levels[row.bundleID]
                        onChanged: v => row.manager.setVolume(row.bundleID, v)
                        // A drag writes `value`; afterwards it follows the record again.
                        onEnded: value = Qt.binding(() => Math.min(row.volume, 1))
                    }

                    PressScaleButtonStyle {
                        id: boost
                        objectName: "boostButton"
                        anchors.verticalCenter: parent.verticalCenter
                        width: 40
                        pressScale: 1
                        opacity: pressed ? 0.6 : 1
                        ToolTip.visible: hovered
                        ToolTip.delay: 700
                        ToolTip.text: "Volume and Boost"
                        contentItem: Text {
                            text: row.card.percentText(row.volume)
                            horizontalAlignment: Text.AlignRight
                            font.pointSize: 11 * row.pt
                            color: row.volume > 1 ? row.palette.accent : row.palette.textSecondary
                        }
                        onClicked: row.togglePicker("boost")
                    }

                    PressScaleButtonStyle {
                        id: output
                        objectName: "outputButton"
                        anchors.verticalCenter: parent.verticalCenter
                        pressScale: 1
                        opacity: pressed ? 0.6 : 1
                        topPadding: 3
                        bottomPadding: 3
                        leftPadding: 7
                        rightPadding: 7
                        contentItem: Row {
                            spacing: 3
                            Text {
                                objectName: "routeSummary"
                                anchors.verticalCenter: parent.verticalCenter
                                text: (row.card.destinationsTick, row.card.routeSummary(row.routeUIDs))
                                font.pointSize: 10.5 * row.pt
                                color: row.palette.textSecondary
                            }
                            Symbol {
                                anchors.verticalCenter: parent.verticalCenter
                                symbol: "chevron.down"
                                size: 8
                                tint: row.palette.textSecondary
                                rotation: row.openPicker === "output" ? 180 : 0
                                Behavior on rotation {
                                    SpringAnimation {
                                        spring: Appearance.springStiffness
                                        damping: Appearance.springDamping
                                    }
                                }
                            }
                        }
                        onClicked: row.togglePicker("output")
                    }
                }
            }
        }

        // The open picker, under a hairline padded 8.
        Column {
            id: picker
            objectName: "picker"
            width: parent.width - 20
            visible: row.openPicker !== ""
            opacity: visible ? 1 : 0
            Behavior on opacity {
                SpringAnimation {
                    spring: Appearance.springStiffness
                    damping: Appearance.springDamping
                }
            }

            Item {
                width: parent.width
                height: 16.5
                Rectangle {
                    x: 8
                    y: 8
                    width: parent.width - 16
                    height: 0.5
                    color: row.palette.hairline
                }
            }

            Repeater {
                model: row.openPicker === "output"
                       ? (row.card.destinationsTick, row.card.outputOptions(row.routeUIDs))
                       : row.openPicker === "boost" ? row.card.boostOptions(row.volume) : []
                delegate: AppPickerOption {
                    required property var modelData
                    objectName: "option:" + modelData.name
                    width: picker.width
                    name: modelData.name
                    subtitle: modelData.subtitle
                    selected: modelData.selected
                    onClicked: {
                        if (modelData.step !== undefined) {
                            row.manager.setVolume(row.bundleID, modelData.step)
                            row.openPicker = ""
                        } else if (modelData.uid !== undefined) {
                            // A device is a multi-selection: the picker stays open.
                            row.manager.setRoutes(row.bundleID,
                                                  row.card.toggledRoute(row.routeUIDs, modelData.uid))
                        } else {
                            row.manager.setRoutes(row.bundleID, modelData.route)
                            row.openPicker = ""
                        }
                    }
                }
            }
        }
    }

    // The separator under every row but the last, inset to the text column.
    Rectangle {
        visible: row.showSeparator
        x: 42
        anchors.bottom: parent.bottom
        width: row.width - 48
        height: 0.5
        color: row.palette.hairline
    }
}
