import QtQuick
import QtQuick.Controls
import Ondril

// The panel's content: 320 wide inside the window's transparent margin of 40, on the rounded
// panel surface. The main stack holds the output card, the input card when there are inputs to
// show, and the apps card; the new-group screen takes its place while open. Reports the height of
// its content so that the window follows it.
Item {
    id: view

    readonly property var palette: Appearance.palette
    readonly property bool dark: Appearance.isDark
    readonly property var outputs: menuBar.visibleOutputs
    readonly property var inputs: menuBar.visibleInputs
    readonly property var groups: groupManager.groups
    readonly property real contentHeight: menuBar.screen === "main" ? content.implicitHeight
                                                                    : newGroupScreen.implicitHeight

    signal heightReported(real height)

    // Called by the panel once it listens, for the height measured before that.
    function reportHeight() {
        heightReported(contentHeight)
    }
    onContentHeightChanged: heightReported(contentHeight)

    // The drop shadow the margin is for: window managers give a frameless window none. Faint
    // rings widening into the margin add up to a soft edge, darkest next to the surface.
    Repeater {
        model: 8

        Rectangle {
            required property int index
            readonly property real spread: (index + 1) * 2.5

            x: 40 - spread
            y: 40 - spread + 4
            width: 320 + 2 * spread
            height: view.contentHeight + 2 * spread
            radius: 14 + spread
            color: "black"
            opacity: view.dark ? 0.06 : 0.025
        }
    }

    Rectangle {
        id: surface
        x: 40
        y: 40
        width: 320
        height: view.contentHeight
        radius: 14
        color: view.dark ? Qt.rgba(30 / 255, 30 / 255, 32 / 255, 1)
                         : Qt.rgba(243 / 255, 243 / 255, 246 / 255, 1)
        border.width: 0.5
        border.color: view.dark ? Qt.rgba(1, 1, 1, 0.08) : Qt.rgba(0, 0, 0, 0.06)
    }

    Column {
        id: content
        objectName: "mainStack"
        visible: menuBar.screen === "main"
        x: 40
        y: 40
        width: 320
        padding: 10
        spacing: 12

        PanelCard {
            objectName: "outputCard"

            SectionHeader {
                id: outputHeader
                sectionID: "output"
                title: "Output"
                subtitle: menuBar.outputSubtitle
                accessory: PressScaleButtonStyle {
                    objectName: "newGroupButton"
                    width: 22
                    height: 20
                    onClicked: menuBar.openNewGroup()
                    contentItem: Item {
                        Symbol {
                            anchors.centerIn: parent
                            symbol: "rectangle.stack.badge.plus"
                            size: 12
                            tint: view.palette.textSecondary
                        }
                    }
                    ToolTip.visible: hovered
                    ToolTip.text: "New Group"
                }
            }

            Column {
                objectName: "outputRows"
                visible: !outputHeader.isCollapsed
                width: parent.width - 8

                Repeater {
                    // By count, so that an open group's controls live on while values change.
                    model: view.groups.length
                    delegate: Column {
                        id: groupEntry
                        required property int index
                        readonly property var group: view.groups[index]
                        readonly property bool isOpen: group !== undefined
                                                       && menuBar.expandedGroupID === group.id
                        width: parent.width

                        RowSeparator {
                            visible: groupEntry.index > 0
                        }
                        GroupRow {
                            objectName: "groupRow_" + (groupEntry.group ? groupEntry.group.name : "")
                            group: groupEntry.group
                            isActive: group !== undefined
                                      && groupManager.activeGroupID === group.id
                            isOpen: groupEntry.isOpen
                            onSelect: menuBar.selectGroup(group.id)
                            onToggleDisclosure: menuBar.toggleDisclosure(group.id)
                            onDeleteRequested: menuBar.deleteGroup(group.id)
                        }
                        Loader {
                            active: groupEntry.isOpen
                            visible: active
                            width: parent.width
                            sourceComponent: ActiveGroupControls {
                                group: groupEntry.group
                            }
                        }
                    }
                }

                Repeater {
                    model: view.outputs.length
                    delegate: Column {
                        id: outputEntry
                        required property int index
                        readonly property var device: view.outputs[index] || ({})
                        width: parent.width

                        RowSeparator {
                            visible: outputEntry.index > 0 || view.groups.length > 0
                        }
                        SingleOutputRow {
                            objectName: "outputRow_" + (outputEntry.device.name || "")
                            device: outputEntry.device
                            isCurrent: groupManager.activeGroupID === ""
                                       && outputEntry.device.id === menuBar.defaultOutputID
                            onChosen: menuBar.sendToDevice(device.id)
                        }
                    }
                }
            }
        }

        PanelCard {
            objectName: "inputCard"
            visible: view.inputs.length > 0

            SectionHeader {
                id: inputHeader
                sectionID: "input"
                title: "Input"
                subtitle: menuBar.inputSubtitle
            }

            Column {
                visible: !inputHeader.isCollapsed
                width: parent.width - 8

                Repeater {
                    model: view.inputs.length
                    delegate: Column {
                        id: inputEntry
                        required property int index
                        readonly property var device: view.inputs[index] || ({})
                        width: parent.width

                        RowSeparator {
                            visible: inputEntry.index > 0
                        }
                        PickerOptionRow {
                            objectName: "inputRow_" + (inputEntry.device.name || "")
                            name: inputEntry.device.name || ""
                            selected: inputEntry.device.id === menuBar.defaultInputID
                            onChosen: menuBar.chooseInput(inputEntry.device.id)
                        }
                    }
                }
            }
        }

        // Last in the stack; it hides itself where per-app audio is not supported. Its collapsed
        // state is kept with the other sections'.
        AppsCard {
            objectName: "appsCard"
            collapsed: menuBar.collapsed.indexOf("apps") >= 0
            onCollapsedChanged: if (collapsed !== menuBar.isCollapsed("apps"))
                                    menuBar.toggleSection("apps")
        }
    }

    // The new-group screen, while `menuBar.screen` is "newGroup"; it closes with
    // menuBar.closeNewGroup(). Until that screen exists, opening it falls back to the main stack.
    Loader {
        id: newGroupScreen
        x: 40
        y: 40
        width: 320
        source: menuBar.screen === "newGroup" ? "NewGroupView.qml" : ""
        onStatusChanged: if (status === Loader.Error)
                             Qt.callLater(menuBar.closeNewGroup)
    }
}
