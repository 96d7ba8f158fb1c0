import QtQuick
import QtQuick.Controls
import Ondril

// The apps section before capture is allowed: what per-app audio does, and the button that asks
// for it. While a request is polled the button waits, disabled; a request that ran out of time
// adds the declined text.
Item {
    id: prompt

    property AppAudioManager manager
    readonly property var palette: Appearance.palette
    readonly property real pt: 0.75 // Qt counts 72 points to 96 logical pixels

    implicitHeight: stack.implicitHeight + 32

    Column {
        id: stack
        x: 16
        y: 16
        width: prompt.width - 32
        spacing: 8

        Symbol {
            anchors.horizontalCenter: parent.horizontalCenter
            symbol: "slider.horizontal.3"
            size: 22
            tint: prompt.palette.textSecondary
        }
        Column {
            width: parent.width
            spacing: 3
            Text {
                width: parent.width
                horizontalAlignment: Text.AlignHCenter
                text: "Control Apps Individually"
                font.pointSize: 12.5 * prompt.pt
                font.weight: Font.DemiBold
                color: prompt.palette.textPrimary
            }
            Text {
                width: parent.width
                horizontalAlignment: Text.AlignHCenter
                wrapMode: Text.WordWrap
                text: "Give each app its own volume and output. Ondril captures app audio through the sound server."
                font.pointSize: 11 * prompt.pt
                color: prompt.palette.textSecondary
            }
        }
        Text {
            objectName: "declinedText"
            width: parent.width
            visible: prompt.manager.permissionDenied
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.WordWrap
            text: "Ondril could not capture app audio. Check that the sound server lets it record."
            font.pointSize: 10.5 * prompt.pt
            color: prompt.palette.textSecondary
        }
        PressScaleButtonStyle {
            id: enable
            objectName: "enableButton"
            anchors.horizontalCenter: parent.horizontalCenter
            readonly property bool waiting: prompt.manager.requestingPermission
            pressScale: 0.97
            enabled: !waiting
            leftPadding: 12
            rightPadding: 12
            topPadding: 6
            bottomPadding: 6
            background: Rectangle {
                radius: 7
                color: prompt.palette.accent
                opacity: enable.enabled ? 1 : 0.6
            }
            contentItem: Row {
                spacing: 5
                BusyIndicator {
                    visible: enable.waiting
                    running: visible
                    width: 14
                    height: 14
                    anchors.verticalCenter: parent.verticalCenter
                }
                Symbol {
                    visible: !enable.waiting
                    anchors.verticalCenter: parent.verticalCenter
                    symbol: "waveform"
                    size: 11
                    tint: "white"
                }
                Text {
                    anchors.verticalCenter: parent.verticalCenter
                    text: enable.waiting ? "Waiting for Permission" : "Enable Per-App Audio"
                    font.pointSize: 12 * prompt.pt
                    font.weight: Font.DemiBold
                    color: "white"
                }
            }
            onClicked: prompt.manager.requestPermission()
        }
    }
}
