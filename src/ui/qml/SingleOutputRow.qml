import QtQuick
import Ondril

// One output device on its own: a tap (chosen()) sends all sound there.
PickerOptionRow {
    // id, uid, name and isAirPlay, as the menu bar reads them.
    property var device: ({})
    property bool isCurrent: false

    name: device.name || ""
    subtitle: device.isAirPlay ? "AirPlay" : ""
    selected: isCurrent
    trailingPadding: 9
}
