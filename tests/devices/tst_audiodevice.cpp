#include "devices/AudioDevice.h"

#include <QtTest>

// The pure string logic around a device: which symbol it shows, and how a stored UID is
// recognised after the sound system changed its volatile parts.
class AudioDeviceTest : public QObject {
    Q_OBJECT

private slots:
    void iconFollowsFlagsBeforeName_data();
    void iconFollowsFlagsBeforeName();
    void stableKeyNeedsFiveParts_data();
    void stableKeyNeedsFiveParts();
    void matchingUIDTakesOnlyAnUnambiguousMatch_data();
    void matchingUIDTakesOnlyAnUnambiguousMatch();
    void baseUIDStripsOnlyAChannelList_data();
    void baseUIDStripsOnlyAChannelList();
};

// The menu row knows a shorter table than the device's own icon: no AirPlay, beats, tv or dock.
void AudioDeviceTest::iconFollowsFlagsBeforeName_data() {
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isAirPlay");
    QTest::addColumn<bool>("isInput");
    QTest::addColumn<QString>("icon");
    QTest::addColumn<QString>("rowIcon");

    QTest::newRow("airplay beats an airpod name")
        << "AirPods Pro" << true << false << "airplayaudio"
        << "airpodspro";
    QTest::newRow("input beats a display name") << "LG Display Mic" << false << true << "mic"
                                                << "mic";
    QTest::newRow("display name on an output") << "LG Display Mic" << false << false << "display"
                                               << "display";
    QTest::newRow("headphones") << "USB Headphones" << false << false << "airpodspro"
                                << "airpodspro";
    QTest::newRow("beats before display") << "Beats Monitor" << false << false << "airpodspro"
                                          << "display";
    QTest::newRow("tv as a bare substring") << "Stvdio Speakers" << false << false << "display"
                                            << "hifispeaker.fill";
    QTest::newRow("built-in, any case") << "BUILT-IN Output" << false << false << "laptopcomputer"
                                        << "laptopcomputer";
    QTest::newRow("macbook") << "MacBook Pro Speakers" << false << false << "laptopcomputer"
                             << "laptopcomputer";
    QTest::newRow("dock") << "CalDigit TS4" << false << false << "cable.connector"
                          << "hifispeaker.fill";
    QTest::newRow("hub") << "USB Hub Audio" << false << false << "cable.connector"
                         << "hifispeaker.fill";
    QTest::newRow("anything else") << "Scarlett 2i2" << false << false << "hifispeaker.fill"
                                   << "hifispeaker.fill";
    QTest::newRow("empty name") << "" << false << false << "hifispeaker.fill"
                                << "hifispeaker.fill";
}

void AudioDeviceTest::iconFollowsFlagsBeforeName() {
    QFETCH(QString, name);
    QFETCH(bool, isAirPlay);
    QFETCH(bool, isInput);
    QFETCH(QString, icon);
    QFETCH(QString, rowIcon);
    AudioDevice device;
    device.name = name;
    device.isAirPlay = isAirPlay;
    device.isInput = isInput;
    QCOMPARE(device.iconName(), icon);
    QCOMPARE(AudioDevice::rowIconName(name, isInput), rowIcon);
}

void AudioDeviceTest::stableKeyNeedsFiveParts_data() {
    QTest::addColumn<QString>("uid");
    QTest::addColumn<QString>("key"); // "<none>": absent

    QTest::newRow("five parts") << "a:b:c:d:e"
                                << "b:c:e";
    QTest::newRow("four parts") << "a:b:c:d"
                                << "<none>";
    QTest::newRow("seven parts drop the middle") << "a:b:c:d:e:f:g"
                                                 << "b:c:g";
    QTest::newRow("empty parts count") << "::::"
                                       << "::";
    QTest::newRow("no colon") << "plain"
                              << "<none>";
}

void AudioDeviceTest::stableKeyNeedsFiveParts() {
    QFETCH(QString, uid);
    QFETCH(QString, key);
    QCOMPARE(AudioDevice::stableKey(uid).value_or(QStringLiteral("<none>")), key);
}

void AudioDeviceTest::matchingUIDTakesOnlyAnUnambiguousMatch_data() {
    QTest::addColumn<QString>("uid");
    QTest::addColumn<QStringList>("candidates");
    QTest::addColumn<QString>("match"); // empty: none

    QTest::newRow("itself and one other")
        << "usb:mic:1:2:serial" << QStringList{"usb:mic:1:2:serial", "bt:mic:1:9:serial"}
        << "bt:mic:1:9:serial";
    QTest::newRow("two others are ambiguous")
        << "usb:mic:1:2:serial" << QStringList{"x:mic:1:3:serial", "y:mic:1:4:serial"} << "";
    QTest::newRow("only itself") << "usb:mic:1:2:serial" << QStringList{"usb:mic:1:2:serial"} << "";
    QTest::newRow("short candidate skipped")
        << "usb:mic:1:2:serial" << QStringList{"mic:1:serial"} << "";
    QTest::newRow("short uid has no key") << "a:b:c:d" << QStringList{"x:b:c:y:d"} << "";
    QTest::newRow("different last part") << "a:b:c:d:e" << QStringList{"x:b:c:d:f"} << "";
}

void AudioDeviceTest::matchingUIDTakesOnlyAnUnambiguousMatch() {
    QFETCH(QString, uid);
    QFETCH(QStringList, candidates);
    QFETCH(QString, match);
    const auto result = AudioDevice::matchingUID(uid, candidates);
    if (match.isEmpty())
        QVERIFY2(!result.has_value(), qPrintable(result.value_or(QString())));
    else
        QCOMPARE(result.value_or(QString()), match);
}

void AudioDeviceTest::baseUIDStripsOnlyAChannelList_data() {
    QTest::addColumn<QString>("uid");
    QTest::addColumn<QString>("base"); // "<none>": absent

    QTest::newRow("channel list") << "X:1,2"
                                  << "X";
    QTest::newRow("single channel") << "dev:a:3"
                                    << "dev:a";
    QTest::newRow("nothing behind the colon") << "X:"
                                              << "<none>";
    QTest::newRow("letter in the list") << "X:1a"
                                        << "<none>";
    QTest::newRow("no colon") << "X"
                              << "<none>";
    QTest::newRow("only commas") << "X:,"
                                 << "X";
}

void AudioDeviceTest::baseUIDStripsOnlyAChannelList() {
    QFETCH(QString, uid);
    QFETCH(QString, base);
    QCOMPARE(AudioDevice::baseUID(uid).value_or(QStringLiteral("<none>")), base);
}

QTEST_GUILESS_MAIN(AudioDeviceTest)
#include "tst_audiodevice.moc"
