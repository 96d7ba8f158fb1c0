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

    // The named pop, else the theme's sound, else silence; none while switched off. Each is held
    // from its start until 2 s later.
    void switchSoundPicksItsSoundAndIsHeldWhilePlaying() {
        QTemporaryDir directory;
        UserDefaults defaults(directory.filePath(QStringLiteral("defaults.json")));
        NotificationCenter center;
        AppSettings settings(defaults, center);
        SimulatedSoundLibrary library;
        const QString theme =
            QStringLiteral("/usr/share/sounds/freedesktop/stereo/audio-volume-change.oga");
        playSwitchSound(QStringLiteral("headphones"), settings, library); // no sound at all
        library.addSound(theme);
        playSwitchSound(std::nullopt, settings, library);
        library.addSound(QStringLiteral("Pop"));
        playSwitchSound(QStringLiteral("headphones"), settings, library);
        defaults.setBool(false, SettingsKeys::switchSound);
        playSwitchSound(QStringLiteral("headphones"), settings, library);

        QCOMPARE(library.played().size(), 2);
        QCOMPARE(library.played()[0].sound, theme);
        QCOMPARE(library.played()[0].deviceUID, QString());
        QCOMPARE(library.played()[1].sound, QStringLiteral("Pop"));
        QCOMPARE(library.played()[1].deviceUID, QStringLiteral("headphones"));
        QCOMPARE(activeSwitchSoundCount(), 2);
        QTRY_COMPARE_WITH_TIMEOUT(activeSwitchSoundCount(), 0, 3000);
    }
};

QTEST_GUILESS_MAIN(LevelMeterTest)
#include "tst_levelmeter.moc"
