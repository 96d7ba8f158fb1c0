#include "devices/AudioDeviceManager.h"
#include "platform/simulated/SimulatedAudioHardware.h"

#include "TestSupport.h"

#include <QLocale>
#include <QSignalSpy>
#include <QtTest>

namespace {

using Spec = SimulatedAudioHardware::DeviceSpec;

Spec outputSpec(const QString& uid, const QString& name = {}) {
    Spec spec;
    spec.uid = uid;
    spec.name = name.isEmpty() ? uid : name;
    return spec;
}

float storedVolume(const SimulatedAudioHardware& hardware, AudioObjectID id,
                   AudioObjectPropertyElement element) {
    AudioPropertyValue value;
    if (hardware.AudioObjectGetPropertyData(
            id, {kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, element},
            value))
        return -1.0f;
    return std::get<float>(value);
}

// A manager whose first publication has arrived.
std::unique_ptr<AudioDeviceManager> publishedManager(SimulatedAudioHardware& hardware) {
    auto manager = std::make_unique<AudioDeviceManager>(hardware);
    TestSupport::spinEventLoop();
    return manager;
}

// Rows that read "input|expected".
void addRows(const QList<const char*>& rows) {
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("expected");
    for (const char* row : rows)
        QTest::newRow(row) << QString(row).section(u'|', 0, -2) << QString(row).section(u'|', -1);
}

QStringList uids(const QList<AudioDevice>& devices) {
    QStringList result;
    for (const AudioDevice& device : devices)
        result.append(device.uid);
    return result;
}

} // namespace

// The device manager on the simulated service, and the string logic around a device: how a stored
// UID is recognised after the sound system changed its volatile parts (also through the manager:
// the group activation test's drifted member).
class TestAudioDeviceManager : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        // The sort follows the user's locale; pin one so the expected orders hold on any machine.
        QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    }

    void listsAreSortedByNameLocaleAwareCaseInsensitiveAndStable_data() {
        QTest::addColumn<QStringList>("serviceOrder"); // "name|uid"
        QTest::addColumn<QStringList>("expectedUIDs");
        QTest::newRow("case does not rank")
            << QStringList{"beta|1", "Alpha|2", "alpha zulu|3", "Gamma|4"}
            << QStringList{"2", "3", "1", "4"};
        QTest::newRow("accented letters sort with their base letter")
            << QStringList{"Zed|1", "Eve|2", "Émile|3", "eagle|4"}
            << QStringList{"4", "3", "2", "1"};
        QTest::newRow("equal names keep the service's order")
            << QStringList{"Speakers|b", "Dock|x", "Speakers|a", "speakers|c"}
            << QStringList{"x", "b", "a", "c"};
    }
    void listsAreSortedByNameLocaleAwareCaseInsensitiveAndStable() {
        QFETCH(QStringList, serviceOrder);
        QFETCH(QStringList, expectedUIDs);
        SimulatedAudioHardware hardware;
        for (const QString& entry : serviceOrder) {
            Spec spec = outputSpec(entry.section(u'|', 1), entry.section(u'|', 0, 0));
            spec.inputChannels = {2};
            hardware.addDevice(spec);
        }
        auto manager = publishedManager(hardware);
        QCOMPARE(uids(manager->outputDevices()), expectedUIDs);
        QCOMPARE(uids(manager->inputDevices()), expectedUIDs);
    }

    // Which devices are listed where, and under which UID and name: uid|name|output channels|
    // input channels|listed ("output", "input" or none)|shown name. "-" stands for a missing UID
    // or name; -1 output channels for an unreadable stream configuration.
    void enumerationKeepsAndLeavesOutDevices_data() {
        QTest::addColumn<QString>("row");
        for (const char* row :
             {"dock|Dock|2|0|output|Dock", "CADefaultDeviceAggregate-1234-0|Speakers|2|0||",
              "agg-0|CADefaultDeviceAggregate-77|2|0||",
              "agg-1|CADefaultDeviceAggregate-78|0|1|input|CADefaultDeviceAggregate-78",
              "com.kestrivane.ondril.group.3F2504E0-4F89-11D3-9A0C-0305E82C3301|Both Displays|2|2|"
              "output|Both Displays",
              "dock|Dock|-1|2||", "dock|Dock|0|0||", "-|Mystery|2|0|output|Mystery",
              "-|Mic|0|1|input|Mic", "dock|-|2|0|output|Unknown Device"})
            QTest::newRow(row) << QString(row);
    }
    void enumerationKeepsAndLeavesOutDevices() {
        QFETCH(QString, row);
        const QStringList fields = row.split(u'|');
        const QString &uid = fields[0], &name = fields[1], &listed = fields[4],
                      &shownName = fields[5];
        const int outputChannels = fields[2].toInt(), inputChannels = fields[3].toInt();
        SimulatedAudioHardware hardware;
        hardware.addDevice(outputSpec(QStringLiteral("other"))); // never collateral damage
        Spec spec = outputSpec(uid, name);
        spec.hasUID = uid != "-";
        spec.hasName = name != "-";
        spec.outputChannels = {std::uint32_t(outputChannels < 0 ? 2 : outputChannels)};
        if (inputChannels)
            spec.inputChannels = {std::uint32_t(inputChannels)};
        const AudioObjectID id = hardware.addDevice(spec);
        if (outputChannels < 0)
            hardware.failReads(id, kAudioDevicePropertyStreamConfiguration);

        auto manager = publishedManager(hardware);
        QVERIFY(manager->deviceIDForOutputUID(QStringLiteral("other")));
        QList<AudioDevice> records = manager->outputDevices() + manager->inputDevices();
        records.removeIf([&](const AudioDevice& device) { return device.id != id; });
        QCOMPARE(records.size(), listed.isEmpty() ? 0 : 1);
        if (records.isEmpty())
            return;
        QCOMPARE(records.first().isInput, listed == "input");
        QCOMPARE(records.first().uid, spec.hasUID ? uid : QString());
        QCOMPARE(records.first().name, shownName);
        if (records.first().isInput)
            QVERIFY(!records.first().volume && !records.first().isVolumeSettable);
    }

    // Nothing is assigned until the loop turns; then the defaults before the lists, every field
    // announced on every refresh, also when nothing changed.
    void publicationIsQueuedAndAssignsInOrder() {
        auto hardware = SimulatedAudioHardware::withDemoDevices();
        AudioDeviceManager manager(*hardware);
        QStringList order;
        QList<AudioObjectID> defaultSeenByOutputsObserver;
        connect(&manager, &AudioDeviceManager::defaultOutputIDChanged, this,
                [&] { order << "defaultOutputID"; });
        connect(&manager, &AudioDeviceManager::defaultInputIDChanged, this,
                [&] { order << "defaultInputID"; });
        connect(&manager, &AudioDeviceManager::outputDevicesChanged, this, [&] {
            order << "outputDevices";
            defaultSeenByOutputsObserver << manager.defaultOutputID();
        });
        connect(&manager, &AudioDeviceManager::inputDevicesChanged, this,
                [&] { order << "inputDevices"; });

        QVERIFY(manager.outputDevices().isEmpty());
        QCOMPARE(manager.defaultOutputID(), kAudioObjectUnknown);
        TestSupport::spinEventLoop();
        const QStringList once{"defaultOutputID", "defaultInputID", "outputDevices",
                               "inputDevices"};
        QCOMPARE(order, once);
        QCOMPARE(defaultSeenByOutputsObserver.first(), manager.defaultOutputID());
        QVERIFY(manager.defaultOutputID() != kAudioObjectUnknown);

        // A caller does not read back its own refresh: the lists keep their old values until the
        // hop.
        const auto before = manager.outputDevices();
        const AudioObjectID plugged = hardware->addDevice(outputSpec(QStringLiteral("usb-dac")));
        manager.refresh();
        QCOMPARE(manager.outputDevices(), before);
        TestSupport::spinEventLoop();
        QCOMPARE(manager.deviceIDForOutputUID(QStringLiteral("usb-dac")), plugged);
        order.clear();
        manager.refresh();
        manager.refresh();
        TestSupport::spinEventLoop();
        QCOMPARE(order, once + once);
    }

    void unreadableDefaultsAndDeviceListPublishNone() {
        auto hardware = SimulatedAudioHardware::withDemoDevices();
        for (auto selector :
             {kAudioHardwarePropertyDevices, kAudioHardwarePropertyDefaultOutputDevice,
              kAudioHardwarePropertyDefaultInputDevice})
            hardware->failReads(kAudioObjectSystemObject, selector);
        auto manager = publishedManager(*hardware);
        QVERIFY(manager->outputDevices().isEmpty() && manager->inputDevices().isEmpty());
        QCOMPARE(manager->defaultOutputID(), kAudioObjectUnknown);
        QCOMPARE(manager->defaultInputID(), kAudioObjectUnknown);

        hardware->clearFaults();
        manager->refresh();
        TestSupport::spinEventLoop();
        QVERIFY(!manager->outputDevices().isEmpty());
        QVERIFY(manager->defaultInputID() != kAudioObjectUnknown);
    }

    void channelOnlyVolumeControlsReadLeftAndAreAllWritten() {
        SimulatedAudioHardware hardware;
        Spec spec = outputSpec(QStringLiteral("hdmi"));
        spec.volume = {{1, 0.3f}, {2, 0.7f}};
        const AudioObjectID id = hardware.addDevice(spec);
        auto manager = publishedManager(hardware);
        QCOMPARE(manager->outputDevices().first().volume, std::optional<float>(0.3f));
        QVERIFY(manager->outputDevices().first().isVolumeSettable);

        QVERIFY(manager->setVolume(0.8f, id));
        QCOMPARE(storedVolume(hardware, id, 1), 0.8f);
        QCOMPARE(storedVolume(hardware, id, 2), 0.8f);
        // A device whose controls cannot be read has no volume, but is still known to be settable.
        hardware.failReads(id, kAudioDevicePropertyVolumeScalar);
        QCOMPARE(manager->volume(id), std::nullopt);
        QVERIFY(manager->isVolumeSettable(id));
    }

    // A write is clamped and updates the published list by itself, queued, without a refresh; a
    // device without a writable control changes nothing and publishes nothing.
    void setVolume_data() {
        QTest::addColumn<QString>("control"); // "", "read-only", "refused" or "none"
        QTest::addColumn<float>("value");
        QTest::addColumn<float>("published"); // -1: the write fails
        QTest::newRow("above one") << "" << 1.5f << 1.0f;
        QTest::newRow("below zero") << "" << -0.5f << 0.0f;
        QTest::newRow("no control") << "none" << 0.9f << -1.0f;
        QTest::newRow("read-only control") << "read-only" << 0.9f << -1.0f;
        QTest::newRow("write refused") << "refused" << 0.9f << -1.0f;
    }
    void setVolume() {
        QFETCH(QString, control);
        QFETCH(float, value);
        QFETCH(float, published);
        SimulatedAudioHardware hardware;
        Spec spec = outputSpec(QStringLiteral("speakers"));
        spec.volume = {{0, 0.4f}};
        if (control == "none")
            spec.volume.clear();
        if (control == "read-only")
            spec.readOnlyVolumeElements = {0};
        const AudioObjectID id = hardware.addDevice(spec);
        if (control == "refused")
            hardware.failWrites(id, kAudioDevicePropertyVolumeScalar);
        auto manager = publishedManager(hardware);
        const auto before = manager->outputDevices();
        QSignalSpy refreshes(manager.get(), &AudioDeviceManager::defaultOutputIDChanged);
        QSignalSpy outputs(manager.get(), &AudioDeviceManager::outputDevicesChanged);

        QCOMPARE(manager->setVolume(value, id), published >= 0);
        QCOMPARE(manager->outputDevices(), before);
        TestSupport::spinEventLoop();
        QCOMPARE(refreshes.count(), 0);
        QCOMPARE(outputs.count(), published >= 0 ? 1 : 0);
        QCOMPARE(manager->outputDevices().first().volume,
                 published >= 0 ? std::optional<float>(published) : before.first().volume);
    }

    // A device's mute when its control is missing, fixed or failing.
    void muteReadAndWrite_data() {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<bool>("readable");
        QTest::addColumn<bool>("written");
        QTest::newRow("no mute control") << "no control" << false << false;
        QTest::newRow("mute not settable") << "not settable" << true << false;
        QTest::newRow("read fails") << "read fails" << false << true;
        QTest::newRow("write fails") << "write fails" << true << false;
    }
    void muteReadAndWrite() {
        QFETCH(QString, fault);
        QFETCH(bool, readable);
        QFETCH(bool, written);
        SimulatedAudioHardware hardware;
        Spec spec = outputSpec(QStringLiteral("speakers"));
        spec.mute = fault == "no control" ? std::nullopt : std::optional<bool>(false);
        spec.muteSettable = fault != "not settable";
        const AudioObjectID id = hardware.addDevice(spec);
        if (fault == "read fails")
            hardware.failReads(id, kAudioDevicePropertyMute);
        if (fault == "write fails")
            hardware.failWrites(id, kAudioDevicePropertyMute);
        AudioDeviceManager manager(hardware);
        QCOMPARE(manager.isMuted(id), readable ? std::optional<bool>(false) : std::nullopt);
        QCOMPARE(manager.setMute(true, id), written);
        hardware.clearFaults();
        if (spec.mute)
            QCOMPARE(manager.isMuted(id), std::optional<bool>(written));
    }

    void destroyedManagerLeavesNoListenerBehind() {
        auto hardware = SimulatedAudioHardware::withDemoDevices();
        auto manager = std::make_unique<AudioDeviceManager>(*hardware);
        hardware->addDevice(outputSpec(QStringLiteral("late"))); // delivery queued
        manager.reset();
        QCOMPARE(hardware->listenerCount(), 0);
        TestSupport::spinEventLoop(); // the queued delivery must find nobody
    }

    // The stored UID, the present ones (comma-separated) and the one that matches: the same stable
    // key (the second, third and last of at least five parts) under another UID, only one.
    void matchingUIDTakesOnlyAnUnambiguousMatch_data() {
        addRows({"usb:mic:1:2:serial|usb:mic:1:2:serial,bt:mic:1:9:serial|bt:mic:1:9:serial",
                 "a:b:c:d:e:f:g|x:b:c:y:z:g|x:b:c:y:z:g",
                 "usb:mic:1:2:serial|x:mic:1:3:serial,y:mic:1:4:serial|",
                 "usb:mic:1:2:serial|usb:mic:1:2:serial|", "usb:mic:1:2:serial|mic:1:serial|",
                 "a:b:c:d|x:b:c:y:d|", "a:b:c:d:e|x:b:c:d:f|"});
    }
    void matchingUIDTakesOnlyAnUnambiguousMatch() {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        const auto match =
            AudioDevice::matchingUID(input.section(u'|', 0, 0), input.section(u'|', 1).split(u','));
        QCOMPARE(match.value_or(QString()), expected);
    }

    void baseUIDStripsOnlyAChannelList_data() {
        addRows({"X:1,2|X", "dev:a:3|dev:a", "X:|", "X:1a|", "X|", "X:,|X"});
    }
    void baseUIDStripsOnlyAChannelList() {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        QCOMPARE(AudioDevice::baseUID(input).value_or(QString()), expected);
    }
};

QTEST_GUILESS_MAIN(TestAudioDeviceManager)
#include "tst_audiodevicemanager.moc"
