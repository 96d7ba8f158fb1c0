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
        QTest::newRow("still held after ten quiet minutes") << 1 << 600 << 22;
        QTest::newRow("then lowered by 1 ms") << 1 << 900 << 21;
        QTest::newRow("never below where it started") << 1 << 1800 << 20;
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

    // A device whose clock runs off the source's drains or fills the stream by that many ppm of
    // its own; a rate controlled by the level alone would settle a drift-sized distance off it.
    void levelSettlesOnTheTargetAgainstADriftingDevice_data() {
        QTest::addColumn<double>("devicePpm");
        QTest::newRow("device fast") << 300.0;
        QTest::newRow("device slow") << -300.0;
    }

    void levelSettlesOnTheTargetAgainstADriftingDevice() {
        QFETCH(double, devicePpm);
        PlaybackRateController controller(48000, 20000);
        double levelMs = 20;
        for (int second = 0; second < 300; ++second) {
            controller.addLevel(std::llround(levelMs * 1000));
            const double streamPpm = (controller.adjust() / 48000.0 - 1.0) * 1e6;
            // A second at a higher stream rate reads more of the stream; a faster device too.
            levelMs -= (streamPpm + devicePpm) / 1000.0;
            QVERIFY2(levelMs > 15 && levelMs < 25, "the loop must not swing");
        }
        QCOMPARE_LT(std::abs(levelMs - 20), 0.3);
    }
};

QTEST_GUILESS_MAIN(PlaybackRateControllerTest)
#include "tst_playbackratecontroller.moc"
