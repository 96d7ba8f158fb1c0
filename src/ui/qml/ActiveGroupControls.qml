import QtQuick
import QtQuick.Controls
import Ondril

// Under an open group row: the master line (mute, master volume with the live level) and one
// balance row per member. Edits of a group that isn't active are stored and take effect when it
// plays.
Column {
    id: controls

    property var group
    property var palette: Appearance.palette
    // Every row reads again when devices, groups, hidden lists or names change.
    readonly property var memberRows: {
        menuBar.hiddenTick
        return group ? menuBar.memberRows(group.id) : []
    }

    width: parent ? parent.width : 0
    spacing: 11
    leftPadding: 10
    rightPadding: 10
    topPadding: 3
    bottomPadding: 6

    Row {
        width: controls.width - 20
        spacing: 10

        AbstractButton {
            objectName: "muteButton"
            width: 26
            height: 26
            anchors.verticalCenter: parent.verticalCenter
            onClicked: menuBar.toggleGroupMute()
            contentItem: Item {
                Symbol {
                    anchors.centerIn: parent
                    symbol: groupManager.isMuted ? "speaker.slash.fill" : "speaker.wave.2"
                    size: 14
                    tint: controls.palette.textSecondary
                }
            }
            background: null
        }
        Item {
            width: 20
            height: 15
            anchors.verticalCenter: parent.verticalCenter
            Symbol {
                anchors.centerIn: parent
                symbol: "speaker.wave.2"
                size: 15
                tint: controls.palette.glyph
            }
        }
        OndrilSlider {
            id: master
            objectName: "masterSlider"
            width: parent.width - 26 - 20 - 2 * parent.spacing
            anchors.verticalCenter: parent.verticalCenter
            trackHeight: 5
            knobSize: 15
            level: menuBar.masterLevel
            readonly property real stored: controls.group ? controls.group.masterVolume : 0
            // The store's echo is not written back under the user's finger.
            onStoredChanged: if (!pressed) value = stored
            Component.onCompleted: value = stored
            onChanged: v => menuBar.setMasterVolume(controls.group.id, v)
        }
    }

    Repeater {
        // By count, so that the rows, and a slider being dragged, live on while values change.
        model: controls.memberRows.length
        delegate: DeviceBalanceRow {
            required property int index
            groupID: controls.group.id
            member: controls.memberRows[index] || ({})
            palette: controls.palette
        }
    }
}
