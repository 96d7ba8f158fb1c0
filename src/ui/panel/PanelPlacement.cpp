#include "ui/panel/PanelPlacement.h"

#include <algorithm>
#include <cmath>

std::optional<int> PanelPlacement::screenFor(const QPointF& click, const QList<Screen>& screens,
                                             int primary) {
    for (int i = 0; i < screens.size(); ++i)
        if (screens[i].frame.contains(click))
            return i;
    for (int i = 0; i < screens.size(); ++i)
        if (screens[i].frame.left() <= click.x() && click.x() < screens[i].frame.right())
            return i;
    if (primary >= 0 && primary < screens.size())
        return primary;
    return std::nullopt;
}

PanelPlacement::Placement PanelPlacement::place(const QPointF& click, const Screen& screen,
                                                double contentHeight) {
    const QRectF& visible = screen.visibleFrame;
    const double right = std::min(click.x() + clickGap, visible.right() - sideInset);
    const double x = std::max(right - contentWidth - margin, visible.left() + sideInset - margin);
    const double height = contentHeight + 2 * margin;

    Placement placement;
    if (click.y() < screen.frame.center().y()) {
        placement.anchor = Anchor::top;
        placement.anchorY = visible.top() + edgeGap - margin;
        placement.window = QRectF(x, placement.anchorY, windowWidth, height);
    } else {
        placement.anchor = Anchor::bottom;
        placement.anchorY = visible.bottom() - edgeGap + margin;
        placement.window = QRectF(x, placement.anchorY - height, windowWidth, height);
    }
    return placement;
}

std::optional<double> PanelPlacement::nextContentHeight(double current, double reported) {
    const double height = std::max(reported, minimumContentHeight);
    if (std::abs(height - current) <= deadBand)
        return std::nullopt;
    return height;
}

QRectF PanelPlacement::resized(const Placement& placement, double contentHeight) {
    const double height = contentHeight + 2 * margin;
    const double top =
        placement.anchor == Anchor::top ? placement.anchorY : placement.anchorY - height;
    return QRectF(placement.window.x(), top, placement.window.width(), height);
}
