#include "platform/pulse/PlaybackRateController.h"

#include <QtTest>

// The rate of a boosted destination's stream on PulseAudio: which way it moves, that readings
// within a period are averaged (writes arrive in whole fragments), that it never goes further
// than 1000 ppm from nominal, and how the level it keeps follows the sink's under-runs.
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

    // A sink that takes larger blocks than the level holds runs the stream dry: the level learns.
    void levelLearnsFromUnderruns_data() {
        QTest::addColumn<int>("periodsWithAnUnderrun");
        QTest::addColumn<int>("quietPeriods"); // after them, one a second
        QTest::addColumn<int>("targetMs");     // it starts at 20 ms
        QTest::newRow("an under-run raises it") << 1 << 0 << 22;
        QTest::newRow("up to 40 ms") << 15 << 0 << 40;
        QTest::newRow("15 quiet seconds lower it by 1 ms") << 1 << 15 << 21;
        QTest::newRow("never below where it started") << 1 << 600 << 20;
    }

    void levelLearnsFromUnderruns() {
        QFETCH(int, periodsWithAnUnderrun);
        QFETCH(int, quietPeriods);
        QFETCH(int, targetMs);
        PlaybackRateController controller(48000, 20000);
        for (int period = 0; period < periodsWithAnUnderrun + quietPeriods; ++period)
            controller.adjust(period < periodsWithAnUnderrun ? 1 : 0);
        controller.addLevel(targetMs * 1000);
        QCOMPARE(controller.adjust(), 48000u); // the level it now keeps plays at nominal
    }
};

QTEST_GUILESS_MAIN(PlaybackRateControllerTest)
#include "tst_playbackratecontroller.moc"
