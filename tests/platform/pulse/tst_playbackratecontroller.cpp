#include "platform/pulse/PlaybackRateController.h"

#include <QtTest>

// The rate of a boosted destination's stream on PulseAudio: which way it moves, that readings
// within a period are averaged (writes arrive in whole fragments), and that it never goes further
// than 1000 ppm from nominal.
class PlaybackRateControllerTest : public QObject {
    Q_OBJECT

private slots:
    void rateFollowsTheLevel_data() {
        QTest::addColumn<QList<int>>("levelsMs"); // one period's readings; the target is 20 ms
        QTest::addColumn<int>("rate");
        QTest::newRow("on target") << QList{20, 20} << 48000;
        QTest::newRow("a saw-tooth around the target") << QList{10, 30} << 48000;
        QTest::newRow("fuller plays faster") << QList{25} << 48024;
        QTest::newRow("emptier plays slower") << QList{15} << 47976;
        QTest::newRow("far fuller is held at +1000 ppm") << QList{200} << 48048;
        QTest::newRow("empty is held at -1000 ppm") << QList{0} << 47952;
        QTest::newRow("no readings keep the rate") << QList<int>{} << 48000;
    }

    void rateFollowsTheLevel() {
        QFETCH(QList<int>, levelsMs);
        QFETCH(int, rate);
        PlaybackRateController controller(48000, 20000);
        for (int level : levelsMs)
            controller.addLevel(level * 1000);
        QCOMPARE(controller.adjust(), std::uint32_t(rate));
    }
};

QTEST_GUILESS_MAIN(PlaybackRateControllerTest)
#include "tst_playbackratecontroller.moc"
