import QtQuick
import Ondril

// The one custom control: a rounded track, a fill up to the value with the live level running
// inside it, and a knob that grows under the pointer. A drag (a click counts) writes `value`,
// then emits changed(v); release emits ended(value). Touching either end stop emits
// detentReached once per arrival; nothing snaps.
Item {
    id: slider

    property real value: 0
    property real trackHeight: 4
    property real knobSize: 12
    property var level: undefined // the live level 0...1, or undefined for none
    property var palette: Appearance.palette
    readonly property bool hovering: pointer.containsMouse
    readonly property bool pressed: pointer.pressed
    property int lastDetent: SliderGeometry.noDetent

    signal changed(real value)
    signal ended(real value)
    signal detentReached(int end)

    readonly property bool hasLevel: level !== undefined && level !== null
    readonly property real knobCentre: SliderGeometry.position(value, width)
    readonly property real fill: SliderGeometry.fillWidth(value, width, knobSize)

    implicitHeight: Math.max(trackHeight, knobSize)
    implicitWidth: 120

    function dragTo(x) {
        const v = SliderGeometry.valueAt(x, width)
        value = v
        detentStep(v)
        changed(v)
    }

    function detentStep(v) {
        const d = SliderGeometry.detent(v)
        if (d === lastDetent)
            return
        lastDetent = d
        // Linux desktops have no haptic engine: the arrival is announced for a future cue.
        if (d !== SliderGeometry.noDetent)
            detentReached(d)
    }

    Rectangle {
        id: track
        anchors.verticalCenter: parent.verticalCenter
        width: SliderGeometry.effectiveWidth(slider.width)
        height: slider.trackHeight
        radius: height / 2
        color: slider.palette.trackEmpty
    }

    Rectangle {
        id: fillLayer
        anchors.verticalCenter: parent.verticalCenter
        width: slider.fill
        height: slider.trackHeight
        radius: height / 2
        color: slider.palette.accentTrack
        opacity: slider.hasLevel ? 0.32 : 1
    }

    Rectangle {
        id: levelLayer
        objectName: "levelLayer"
        anchors.verticalCenter: parent.verticalCenter
        visible: slider.hasLevel
        width: slider.hasLevel ? SliderGeometry.levelWidth(slider.fill, slider.level) : 0
        height: slider.trackHeight
        radius: height / 2
        color: slider.palette.accentTrack
        Behavior on width {
            NumberAnimation { duration: 60; easing.type: Easing.Linear }
        }
    }

    Item {
        id: knob
        objectName: "knob"
        x: slider.knobCentre - slider.knobSize / 2
        anchors.verticalCenter: parent.verticalCenter
        width: slider.knobSize
        height: slider.knobSize
        scale: slider.hovering ? 1.14 : 1
        Behavior on scale {
            NumberAnimation { duration: 160; easing.type: Easing.OutQuad }
        }

        // Shadow: black at 0.35, radius 1.5, one point down.
        Rectangle {
            x: -0.75
            y: 1 - 0.75
            width: parent.width + 1.5
            height: parent.height + 1.5
            radius: width / 2
            color: "black"
            opacity: 0.35 / 2
        }
        Rectangle {
            anchors.fill: parent
            radius: width / 2
            color: slider.palette.knob
            border.width: 0.5
            border.color: Qt.rgba(0, 0, 0, 0.06)
        }
    }

    MouseArea {
        id: pointer
        anchors.fill: parent
        hoverEnabled: true
        preventStealing: true
        onPressed: mouse => slider.dragTo(mouse.x)
        onPositionChanged: mouse => {
            if (pressed)
                slider.dragTo(mouse.x)
        }
        onReleased: {
            slider.lastDetent = SliderGeometry.noDetent
            slider.ended(slider.value)
        }
    }
}
