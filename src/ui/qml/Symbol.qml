import QtQuick
import QtQuick.Window

// One of the screens' symbols ("chevron.down", "trash"), drawn `size` wide and high in `tint`,
// from the desktop's icon theme or Ondril's own drawings.
Image {
    id: symbolImage

    property string symbol
    property color tint: "black"
    property real size: 12

    width: size
    height: size
    fillMode: Image.PreserveAspectFit
    sourceSize: Qt.size(Math.ceil(size * Screen.devicePixelRatio),
                        Math.ceil(size * Screen.devicePixelRatio))
    // The colour travels in the address as hex digits; '#' would start a fragment.
    source: symbol ? "image://symbol/" + symbol + "/" + String(tint).substring(1) : ""
}
