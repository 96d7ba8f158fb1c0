#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "appaudio/LevelMeter.h"
#include "appaudio/SwitchSound.h"
#include "devices/AudioDeviceManager.h"
#include "platform/UserDefaults.h"
#include "platform/simulated/SimulatedAudioHardware.h"
#include "platform/simulated/SimulatedSoundLibrary.h"

#include <QtTest>

#include "TestSupport.h"

// The meter's tap and the switch sound on the simulated service. The scale and ballistics are a
// formula of their own; that the meter moves with real audio is the app audio server test's.
class LevelMeterTest : public QObject {
    Q_OBJECT

private slots:
    void meterTapsTheDefaultOutputWhileRunning() {
        SimulatedAudioHardware hardware;
        SimulatedAudioHardware::DeviceSpec speakers;
        speakers.uid = QStringLiteral("speakers");
        hardware.setDefaultOutputDevice(hardware.addDevice(speakers));
        AudioDeviceManager audio(hardware);
        LevelMeter meter(audio);

        meter.stop(); // without start: nothing
        meter.start();
        meter.start();
        QVERIFY(meter.isRunning());
        QCOMPARE(hardware.processTaps().size(), std::size_t(1));
        QVERIFY(hardware.tapDescription(hardware.processTaps().front())->isExclusive);

        hardware.runIOCycle(meter.aggID(), std::vector<float>(8, -0.25f), 4);
        QCOMPARE(meter.box().peak.load(), 0.25f);

        meter.tick();
        QVERIFY(meter.outputLevel() > 0.0);
        meter.stop();
        QCOMPARE(meter.outputLevel(), 0.0);
        QVERIFY(hardware.processTaps().empty());
        QVERIFY(hardware.aggregateDevices().empty());
    }

    void withoutARealOutputNothingIsLeftBehind() {
        SimulatedAudioHardware hardware;
        AudioDeviceManager audio(hardware);
        TestSupport::spinEventLoop();
        LevelMeter meter(audio);
        meter.start();
        QVERIFY(!meter.isRunning());
        QVERIFY(hardware.processTaps().empty());
    }

    void switchSound_data() {
        QTest::addColumn<bool>("enabled");
        QTest::addColumn<QStringList>("known");
        QTest::addColumn<QString>("played");

        const QString theme =
            QStringLiteral("/usr/share/sounds/freedesktop/stereo/audio-volume-change.oga");
        QTest::newRow("the named pop") << true << QStringList{"Pop", theme} << "Pop";
        QTest::newRow("the theme's sound when there is no pop")
            << true << QStringList{theme} << theme;
        QTest::newRow("no sound: silence") << true << QStringList{} << "";
        QTest::newRow("switched off") << false << QStringList{"Pop"} << "";
    }

    void switchSound() {
        QFETCH(bool, enabled);
        QFETCH(QStringList, known);
        QFETCH(QString, played);

        QTemporaryDir directory;
        UserDefaults defaults(directory.filePath(QStringLiteral("defaults.json")));
        NotificationCenter center;
        AppSettings settings(defaults, center);
        if (!enabled)
            defaults.setBool(false, SettingsKeys::switchSound);
        SimulatedSoundLibrary library;
        for (const QString& sound : std::as_const(known))
            library.addSound(sound);

        playSwitchSound(QStringLiteral("headphones"), settings, library);
        playSwitchSound(std::nullopt, settings, library);
        if (played.isEmpty()) {
            QVERIFY(library.played().isEmpty());
            QCOMPARE(activeSwitchSoundCount(), 0);
            return;
        }
        QCOMPARE(library.played().size(), 2);
        QCOMPARE(library.played()[0].sound, played);
        QCOMPARE(library.played()[0].deviceUID, QStringLiteral("headphones"));
        QCOMPARE(library.played()[1].deviceUID, QString());
        // Each is held from its start until 2 s later.
        QCOMPARE(activeSwitchSoundCount(), 2);
        QTRY_COMPARE_WITH_TIMEOUT(activeSwitchSoundCount(), 0, 3000);
    }
};

QTEST_GUILESS_MAIN(LevelMeterTest)
#include "tst_levelmeter.moc"
