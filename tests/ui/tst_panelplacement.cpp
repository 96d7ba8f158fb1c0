#include "ui/panel/PanelPlacement.h"

#include <QTest>

using Screen = PanelPlacement::Screen;
Q_DECLARE_METATYPE(std::optional<double>)

namespace {

// A 1920 by 1080 screen with a 32-high bar at the top.
Screen topBarScreen(double x = 0, double width = 1920) {
    return {QRectF(x, 0, width, 1080), QRectF(x, 32, width, 1048)};
}

} // namespace

class TestPanelPlacement : public QObject {
    Q_OBJECT

private slots:
    void placesTheWindowAtTheClick_data() {
        QTest::addColumn<QPointF>("click");
        QTest::addColumn<Screen>("screen");
        QTest::addColumn<QRectF>("window");
        // Content right edge 2 right of the click, window top 34 above the visible top, 4 inside
        // the visible frame's right: the tray test places it so on its X screen.
        QTest::newRow("narrow frame: the left limit wins")
            << QPointF(290, 16) << topBarScreen(0, 300) << QRectF(-36, -2, 400, 480);
        QTest::newRow("second screen to the right")
            << QPointF(2500, 16) << topBarScreen(1920) << QRectF(2142, -2, 400, 480);
    }
    void placesTheWindowAtTheClick() {
        QFETCH(QPointF, click);
        QFETCH(Screen, screen);
        QFETCH(QRectF, window);
        QCOMPARE(PanelPlacement::place(click, screen, 400).window, window);
    }

    void choosesTheScreenOfTheClick_data() {
        QTest::addColumn<QPointF>("click");
        QTest::addColumn<int>("primary");
        QTest::addColumn<int>("screen");
        QTest::newRow("inside the second screen, not the primary") << QPointF(2000, 10) << 0 << 1;
        QTest::newRow("above all frames: by column") << QPointF(2000, -5) << 0 << 1;
        QTest::newRow("outside every column: the primary") << QPointF(5000, 10) << 1 << 1;
    }
    void choosesTheScreenOfTheClick() {
        QFETCH(QPointF, click);
        QFETCH(int, primary);
        QFETCH(int, screen);
        const QList<Screen> screens = {topBarScreen(), topBarScreen(1920)};
        QCOMPARE(PanelPlacement::screenFor(click, screens, primary), std::optional(screen));
        QCOMPARE(PanelPlacement::screenFor(click, {}, 0), std::optional<int>());
    }

    void contentHeightHasAFloorAndADeadBand_data() {
        QTest::addColumn<double>("current");
        QTest::addColumn<double>("reported");
        QTest::addColumn<std::optional<double>>("next");
        QTest::newRow("50 becomes 120") << 400.0 << 50.0 << std::optional(120.0);
        QTest::newRow("0.4 away is dropped") << 300.0 << 300.4 << std::optional<double>();
        QTest::newRow("0.6 away is taken") << 300.0 << 300.6 << std::optional(300.6);
        QTest::newRow("below the floor at the floor") << 120.0 << 10.0 << std::optional<double>();
    }
    void contentHeightHasAFloorAndADeadBand() {
        QFETCH(double, current);
        QFETCH(double, reported);
        QFETCH(std::optional<double>, next);
        QCOMPARE(PanelPlacement::nextContentHeight(current, reported), next);
    }
};

QTEST_MAIN(TestPanelPlacement)
#include "tst_panelplacement.moc"
