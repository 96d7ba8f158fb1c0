#pragma once

#include <QList>
#include <QPointF>
#include <QRectF>

#include <optional>

// Where the panel window stands and how tall it is. Desktop coordinates with y growing downward.
// The window is 400 wide, the visible content 320, with a transparent margin of 40 all round for
// the shadow. A tray at the top of a screen opens the panel downward from 6 below the visible
// frame's top; a tray at the bottom opens it upward from 6 above the visible frame's bottom.
class PanelPlacement {
public:
    static constexpr double windowWidth = 400;
    static constexpr double contentWidth = 320;
    static constexpr double margin = 40;
    static constexpr double minimumContentHeight = 120;
    static constexpr double deadBand = 0.5;
    static constexpr double edgeGap = 6;
    static constexpr double clickGap = 2;
    static constexpr double sideInset = 4;

    // Which edge stays put while the content grows or shrinks.
    enum class Anchor { top, bottom };

    struct Screen {
        QRectF frame;
        QRectF visibleFrame;
    };

    struct Placement {
        QRectF window;
        Anchor anchor = Anchor::top;
        double anchorY = 0; // the window's top (anchor top) or bottom (anchor bottom) edge
    };

    // The screen that holds the click; else the first whose columns hold its x (a panel's bar
    // may lie outside its screen's frame); else `primary`. None without screens.
    static std::optional<int> screenFor(const QPointF& click, const QList<Screen>& screens,
                                        int primary);

    // The click point stands for the tray button. The content's right edge lies 2 right of it
    // but 4 inside the visible frame; its left edge keeps 4 inside, which wins on a narrow frame.
    static Placement place(const QPointF& click, const Screen& screen, double contentHeight);

    // A new content height: at least 120; a change of 0.5 or less is none.
    static std::optional<double> nextContentHeight(double current, double reported);

    // The window for a new content height, with its anchored edge kept.
    static QRectF resized(const Placement& placement, double contentHeight);
};
