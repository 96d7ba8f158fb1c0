import QtQuick
import Ondril

// The panel's content: 320 wide inside the window's transparent margin of 40, on the rounded
// panel surface. Reports the height of its content so that the window follows it.
Item {
    id: view

    readonly property var palette: Appearance.palette
    readonly property bool dark: Appearance.isDark

    signal heightReported(real height)

    // Called by the panel once it listens, for the height measured before that.
    function reportHeight() {
        heightReported(content.implicitHeight)
    }

    Rectangle {
        id: surface
        x: 40
        y: 40
        width: 320
        height: content.implicitHeight
        radius: 14
        color: view.dark ? Qt.rgba(30 / 255, 30 / 255, 32 / 255, 1)
                         : Qt.rgba(243 / 255, 243 / 255, 246 / 255, 1)
        border.width: 0.5
        border.color: view.dark ? Qt.rgba(1, 1, 1, 0.08) : Qt.rgba(0, 0, 0, 0.06)
    }

    Column {
        id: content
        objectName: "mainStack"
        x: 40
        y: 40
        width: 320
        padding: 10
        spacing: 12
        onImplicitHeightChanged: view.heightReported(implicitHeight)
    }
}
