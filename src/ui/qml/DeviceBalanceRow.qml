import QtQuick
import QtQuick.Controls
import QtQuick.Window
import Ondril

// One member of the open group: its name (double-click to rename), its balance slider and the
// balance in percent.
Item {
    id: row

    property string groupID
    // uid, realName, label, shownName, draft and balance, as the menu bar reads them.
    property var member: ({})
    property var palette: Appearance.palette
    property bool editing: false

    width: parent ? parent.width - 20 : 0
    implicitHeight: Math.max(nameColumn.height, 20) + 12

    function startEditing() {
        field.text = member.draft
        editing = true
        field.forceActiveFocus()
    }
    function finishEditing(save) {
        if (!editing)
            return
        editing = false
        if (save)
            menuBar.rename(member.uid, field.text)
    }

    Item {
        id: nameColumn
        objectName: "nameColumn"
        x: 11
        width: 128
        height: 20
        anchors.verticalCenter: parent.verticalCenter

        PanelLabel {
            objectName: "memberName"
            visible: !row.editing
            width: parent.width
            anchors.verticalCenter: parent.verticalCenter
            text: row.member.shownName || ""
            size: 11.5
            color: row.palette.textPrimary
            ToolTip.visible: namePointer.containsMouse && !row.editing
            ToolTip.delay: 600
            ToolTip.text: "Double-Click to Rename"
        }
        MouseArea {
            id: namePointer
            anchors.fill: parent
            enabled: !row.editing
            hoverEnabled: true
            onDoubleClicked: row.startEditing()
        }
        TextInput {
            id: field
            objectName: "renameField"
            visible: row.editing
            width: parent.width
            anchors.verticalCenter: parent.verticalCenter
            font.pointSize: 11.5 * 72 / (Screen.logicalPixelDensity * 25.4)
            color: row.palette.textPrimary
            selectionColor: row.palette.accentSoft
            clip: true
            Keys.onReturnPressed: row.finishEditing(true)
            Keys.onEnterPressed: row.finishEditing(true)
            Keys.onEscapePressed: event => {
                row.finishEditing(false)
                event.accepted = true // Escape ends the edit, not the panel
            }
            onActiveFocusChanged: if (!activeFocus) row.finishEditing(true)
        }
    }

    OndrilSlider {
        id: balance
        objectName: "balanceSlider"
        x: nameColumn.x + nameColumn.width
        width: percent.x - x
        anchors.verticalCenter: parent.verticalCenter
        trackHeight: 4
        knobSize: 12
        readonly property real stored: row.member.balance !== undefined ? row.member.balance : 1
        onStoredChanged: if (!pressed) value = stored
        Component.onCompleted: value = stored
        onChanged: v => menuBar.setBalance(row.groupID, row.member.uid, v)
    }

    PanelLabel {
        id: percent
        objectName: "percent"
        x: row.width - 11 - width
        width: 40
        anchors.verticalCenter: parent.verticalCenter
        horizontalAlignment: Text.AlignRight
        text: menuBar.percentText(balance.value)
        size: 11
        font.family: "monospace"
        color: row.palette.textSecondary
    }
}
