#include "ui/OndrilQml.h"
#include "ui/SliderGeometry.h"

#include <QQmlComponent>
#include <QQuickItem>
#include <QQuickView>
#include <QSignalSpy>
#include <QTest>

#include <memory>

class TestOndrilSlider : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<QQuickView> m_view;

    QQuickItem* showSlider(double width, const QByteArray& extra = {}) {
        m_view = std::make_unique<QQuickView>();
        QQmlComponent component(m_view->engine());
        component.setData("import QtQuick\nimport \"qrc:/ondril/ui\"\n"
                          "Item { width: 300; height: 40\n"
                          "  OndrilSlider { objectName: 'slider'; x: 50; y: 12; width: " +
                              QByteArray::number(width) + "; trackHeight: 5; knobSize: 15\n" +
                              extra + " } }",
                          QUrl(QStringLiteral("qrc:/test.qml")));
        auto* root = qobject_cast<QQuickItem*>(component.create());
        if (!root) {
            qWarning() << component.errors();
            return nullptr;
        }
        m_view->setContent(QUrl(), &component, root);
        m_view->resize(300, 40);
        m_view->show();
        if (!QTest::qWaitForWindowExposed(m_view.get()))
            return nullptr;
        return root->findChild<QQuickItem*>(QStringLiteral("slider"));
    }

private slots:
    void initTestCase() { OndrilQml::registerTypes(); }

    void drawsValueAndFill_data() {
        QTest::addColumn<double>("value");
        QTest::addColumn<double>("width");
        QTest::addColumn<double>("knobCentre");
        QTest::addColumn<double>("fill");
        QTest::newRow("zero is a knob-wide stub") << 0.0 << 200.0 << 0.0 << 15.0;
        QTest::newRow("below zero") << -0.3 << 200.0 << 0.0 << 15.0;
        QTest::newRow("1.5 draws as full") << 1.5 << 200.0 << 200.0 << 200.0;
        QTest::newRow("zero width computes with 1") << 0.5 << 0.0 << 0.5 << 1.0;
        QTest::newRow("negative width computes with 1") << 1.0 << -20.0 << 1.0 << 1.0;
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

    void endStops_data() {
        QTest::addColumn<double>("value");
        QTest::addColumn<int>("detent");
        QTest::newRow("0.001 touches the start") << 0.001 << 0;
        QTest::newRow("0.0015 does not") << 0.0015 << int(SliderGeometry::noDetent);
        QTest::newRow("0.998 does not") << 0.998 << int(SliderGeometry::noDetent);
        QTest::newRow("0.999 touches the end") << 0.999 << 1;
    }
    void endStops() {
        QFETCH(double, value);
        QFETCH(int, detent);
        QCOMPARE(SliderGeometry::detent(value), detent);
    }

    void levelRunsInsideTheFill_data() {
        QTest::addColumn<double>("level");
        QTest::addColumn<double>("width");
        QTest::newRow("half") << 0.5 << 40.0;
        QTest::newRow("2 fills the whole fill") << 2.0 << 80.0;
        QTest::newRow("below 0 shows nothing") << -1.0 << 0.0;
    }
    void levelRunsInsideTheFill() {
        QFETCH(double, level);
        QFETCH(double, width);
        QQuickItem* slider = showSlider(200, "value: 0.4; level: " + QByteArray::number(level));
        QVERIFY(slider);
        auto* layer = slider->findChild<QQuickItem*>(QStringLiteral("levelLayer"));
        QVERIFY(layer);
        QTRY_COMPARE(layer->width(), width);
    }

    void dragPastEitherEndWritesExactEndsAndTicksOnce() {
        QQuickItem* slider = showSlider(200);
        QVERIFY(slider);
        QSignalSpy changed(slider, SIGNAL(changed(double)));
        QSignalSpy ended(slider, SIGNAL(ended(double)));
        QSignalSpy detents(slider, SIGNAL(detentReached(int)));

        QTest::mousePress(m_view.get(), Qt::LeftButton, {}, QPoint(150, 20));
        QCOMPARE(slider->property("value").toDouble(), 0.5);
        QTest::mouseMove(m_view.get(), QPoint(290, 20));
        QTest::mouseMove(m_view.get(), QPoint(299, 21));
        QCOMPARE(slider->property("value").toDouble(), 1.0);
        QCOMPARE(detents.size(), 1);
        QCOMPARE(detents.first().first().toInt(), 1);

        QTest::mouseMove(m_view.get(), QPoint(1, 20));
        QCOMPARE(slider->property("value").toDouble(), 0.0);
        QCOMPARE(detents.size(), 2);
        QTest::mouseRelease(m_view.get(), Qt::LeftButton, {}, QPoint(1, 20));
        QCOMPARE(ended.size(), 1);
        QCOMPARE(ended.first().first().toDouble(), 0.0);
        QCOMPARE(changed.last().first().toDouble(), 0.0);

        // A new drag starts with no detent, so it ticks at the end it starts on.
        QTest::mousePress(m_view.get(), Qt::LeftButton, {}, QPoint(50, 20));
        QCOMPARE(detents.size(), 3);
        QTest::mouseRelease(m_view.get(), Qt::LeftButton, {}, QPoint(50, 20));
    }
};

QTEST_MAIN(TestOndrilSlider)
#include "tst_ondrilslider.moc"
