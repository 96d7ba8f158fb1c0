#include "ui/SliderGeometry.h"

#include <QTest>

// The slider's rules that are not drawing, where they guard against a degenerate width. Dragging
// past either end writes the exact end (the panel's group sliders), and the level runs inside the
// fill (the apps card).
class TestOndrilSlider : public QObject {
    Q_OBJECT

private slots:
    void drawsValueAndFill_data() {
        QTest::addColumn<double>("value");
        QTest::addColumn<double>("width");
        QTest::addColumn<double>("knobCentre");
        QTest::addColumn<double>("fill");
        QTest::newRow("zero is a knob-wide stub") << 0.0 << 200.0 << 0.0 << 15.0;
        QTest::newRow("1.5 draws as full") << 1.5 << 200.0 << 200.0 << 200.0;
        QTest::newRow("zero width (or less) computes with 1") << 0.5 << 0.0 << 0.5 << 1.0;
    }
    void drawsValueAndFill() {
        QFETCH(double, value);
        QFETCH(double, width);
        QFETCH(double, knobCentre);
        QFETCH(double, fill);
        QCOMPARE(SliderGeometry::position(value, width), knobCentre);
        QCOMPARE(SliderGeometry::fillWidth(value, width, 15), fill);
    }

    void pointerPositionGivesValue_data() {
        QTest::addColumn<double>("x");
        QTest::addColumn<double>("width");
        QTest::addColumn<double>("value");
        QTest::newRow("zero width") << 0.5 << 0.0 << 0.5;
        QTest::newRow("zero width, past the end") << 3.0 << 0.0 << 1.0;
    }
    void pointerPositionGivesValue() {
        QFETCH(double, x);
        QFETCH(double, width);
        QFETCH(double, value);
        QCOMPARE(SliderGeometry::valueAt(x, width), value);
    }
};

QTEST_APPLESS_MAIN(TestOndrilSlider)
#include "tst_ondrilslider.moc"
