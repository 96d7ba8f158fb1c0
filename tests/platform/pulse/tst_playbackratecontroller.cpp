#include "platform/pulse/PlaybackRateController.h"

#include <QtTest>

// The rate of a boosted destination's stream on PulseAudio: which way it moves, that readings
// within a period are averaged (writes arrive in whole fragments), and that it never goes further
// than a few hundred ppm from nominal.
class PlaybackRateControllerTest : public QObject {
    Q_OBJECT

private slots:
    void rateFollowsTheLevel_data() {
        QTest::addColumn<QList<int>>("settledMs"); // readings of the first period: the target
        QTest::addColumn<QList<int>>("laterMs");   // readings of the next one
        QTest::addColumn<int>("rate");
        QTest::newRow("steady") << QList{20, 20} << QList{20, 20} << 48000;
        QTest::newRow("a saw-tooth around the target") << QList{15, 25} << QList{10, 30} << 48000;
        QTest::newRow("fuller plays faster") << QList{20} << QList{25} << 48024;
        QTest::newRow("emptier plays slower") << QList{20} << QList{15} << 47976;
        QTest::newRow("far fuller is held at +1000 ppm") << QList{20} << QList{200} << 48048;
        QTest::newRow("empty is held at -1000 ppm") << QList{20} << QList{0} << 47952;
        QTest::newRow("no readings keep the rate") << QList{20} << QList<int>{} << 48000;
    }

    void rateFollowsTheLevel() {
        QFETCH(QList<int>, settledMs);
        QFETCH(QList<int>, laterMs);
        QFETCH(int, rate);
        PlaybackRateController controller(48000);
        for (int level : settledMs)
            controller.addLevel(level * 1000);
        QCOMPARE(controller.adjust(), 48000u);
        for (int level : laterMs)
            controller.addLevel(level * 1000);
        QCOMPARE(controller.adjust(), std::uint32_t(rate));
    }
};

QTEST_GUILESS_MAIN(PlaybackRateControllerTest)
#include "tst_playbackratecontroller.moc"
