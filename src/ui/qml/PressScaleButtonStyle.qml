import QtQuick
import QtQuick.Templates as T
import Ondril

// A plain button that draws its content and, while pressed, shrinks to `pressScale` about its
// centre with the press spring. Callers use 0.97.
T.AbstractButton {
    id: button

    property real pressScale: 0.97

    padding: 0
    // Templates size a button from nothing: it takes the size of its content and padding.
    implicitWidth: Math.max(implicitBackgroundWidth + leftInset + rightInset,
                            implicitContentWidth + leftPadding + rightPadding)
    implicitHeight: Math.max(implicitBackgroundHeight + topInset + bottomInset,
                             implicitContentHeight + topPadding + bottomPadding)
    background: null
    hoverEnabled: true
    scale: pressed ? pressScale : 1
    transformOrigin: Item.Center

    Behavior on scale {
        SpringAnimation {
            spring: Appearance.springStiffness
            damping: Appearance.springDamping
        }
    }
}
