#include "devices/AudioDeviceManager.h"
#include "platform/simulated/SimulatedAudioHardware.h"

#include "TestSupport.h"

#include <QLocale>
#include <QSignalSpy>
#include <QtTest>

namespace {

using Spec = SimulatedAudioHardware::DeviceSpec;

Spec outputSpec(const QString& uid, const QString& name) {
    Spec spec;
    spec.uid = uid;
    spec.name = name;
    return spec;
}

const AudioDevice* findRecord(const QList<AudioDevice>& devices, AudioObjectID id) {
    for (const AudioDevice& device : devices)
        if (device.id == id)
            return &device;
    return nullptr;
}

QStringList names(const QList<AudioDevice>& devices) {
    QStringList result;
    for (const AudioDevice& device : devices)
        result.append(device.name);
    return result;
}

QStringList uids(const QList<AudioDevice>& devices) {
    QStringList result;
    for (const AudioDevice& device : devices)
        result.append(device.uid);
    return result;
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

} // namespace

class TestAudioDeviceManager : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void enumerationKeepsAndLeavesOutDevices_data();
    void enumerationKeepsAndLeavesOutDevices();
    void listsAreSortedByNameLocaleAwareCaseInsensitiveAndStable_data();
    void listsAreSortedByNameLocaleAwareCaseInsensitiveAndStable();
    void publicationIsQueuedAndAssignsInOrder();
    void everyRefreshEmitsAllFourSignalsEvenWhenNothingChanged();
    void unreadableDefaultsAndDeviceListPublishNone();
    void channelOnlyVolumeControlsReadLeftAndAreAllWritten();
    void setVolumeClampsAndUpdatesTheListWithoutARefresh();
    void setVolumeWithoutAWritableControlChangesNothing_data();
    void setVolumeWithoutAWritableControlChangesNothing();
    void muteReadAndWrite_data();
    void muteReadAndWrite();
    void lookupByUIDFallsBackToTheStableKey_data();
    void lookupByUIDFallsBackToTheStableKey();
    void plugAndUnplugReachThePublishedLists();
    void destroyedManagerLeavesNoListenerBehind();
};

void TestAudioDeviceManager::initTestCase() {
    // The sort follows the user's locale; pin one so the expected orders hold on any machine.
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
}

void TestAudioDeviceManager::enumerationKeepsAndLeavesOutDevices_data() {
    QTest::addColumn<QString>("uid");
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("hasUID");
    QTest::addColumn<bool>("hasName");
    QTest::addColumn<quint32>("outputChannels");
    QTest::addColumn<quint32>("inputChannels");
    QTest::addColumn<bool>("slayUnreadable");
    QTest::addColumn<bool>("expectOutput");
    QTest::addColumn<bool>("expectInput");
    QTest::addColumn<QString>("expectedUID");
    QTest::addColumn<QString>("expectedName");

    const QString plainUID = QStringLiteral("alsa_output.usb-Dock-00.analog-stereo");
    QTest::newRow("plain output") << plainUID << "Dock" << true << true << 2u << 0u << false << true
                                  << false << plainUID << "Dock";
    QTest::newRow("service default aggregate by uid")
        << "CADefaultDeviceAggregate-1234-0"
        << "Speakers" << true << true << 2u << 0u << false << false << false << ""
        << "";
    QTest::newRow("service default aggregate by name")
        << "agg-0"
        << "CADefaultDeviceAggregate-77" << true << true << 2u << 0u << false << false << false
        << ""
        << "";
    QTest::newRow("default aggregate name does not hide an input")
        << "agg-1"
        << "CADefaultDeviceAggregate-78" << true << true << 0u << 1u << false << false << true
        << "agg-1"
        << "CADefaultDeviceAggregate-78";
    QTest::newRow("group aggregate stays an output but never an input")
        << "com.kestrivane.ondril.group.3F2504E0-4F89-11D3-9A0C-0305E82C3301"
        << "Both Displays" << true << true << 2u << 2u << false << true << false
        << "com.kestrivane.ondril.group.3F2504E0-4F89-11D3-9A0C-0305E82C3301"
        << "Both Displays";
    QTest::newRow("unreadable stream configuration")
        << plainUID << "Dock" << true << true << 2u << 2u << true << false << false << ""
        << "";
    QTest::newRow("no channels at all")
        << plainUID << "Dock" << true << true << 0u << 0u << false << false << false << ""
        << "";
    QTest::newRow("missing uid is kept as empty")
        << ""
        << "Mystery" << false << true << 2u << 0u << false << true << false << ""
        << "Mystery";
    QTest::newRow("missing uid does not hide an input")
        << ""
        << "Mic" << false << true << 0u << 1u << false << false << true << ""
        << "Mic";
    QTest::newRow("missing name") << plainUID << "" << true << false << 2u << 0u << false << true
                                  << false << plainUID << "Unknown Device";
}

void TestAudioDeviceManager::enumerationKeepsAndLeavesOutDevices() {
    QFETCH(QString, uid);
    QFETCH(QString, name);
    QFETCH(bool, hasUID);
    QFETCH(bool, hasName);
    QFETCH(quint32, outputChannels);
    QFETCH(quint32, inputChannels);
    QFETCH(bool, slayUnreadable);
    QFETCH(bool, expectOutput);
    QFETCH(bool, expectInput);
    QFETCH(QString, expectedUID);
    QFETCH(QString, expectedName);

    SimulatedAudioHardware hardware;
    const AudioObjectID other =
        hardware.addDevice(outputSpec(QStringLiteral("other"), QStringLiteral("Other")));
    Spec spec = outputSpec(uid, name);
    spec.hasUID = hasUID;
    spec.hasName = hasName;
    spec.outputChannels =
        outputChannels ? std::vector<std::uint32_t>{outputChannels} : std::vector<std::uint32_t>{0};
    spec.inputChannels =
        inputChannels ? std::vector<std::uint32_t>{inputChannels} : std::vector<std::uint32_t>{};
    const AudioObjectID id = hardware.addDevice(spec);
    if (slayUnreadable)
        hardware.failReads(id, kAudioDevicePropertyStreamConfiguration);

    auto manager = publishedManager(hardware);

    QVERIFY(
        findRecord(manager->outputDevices(), other)); // the neighbour is never collateral damage
    const AudioDevice* output = findRecord(manager->outputDevices(), id);
    const AudioDevice* input = findRecord(manager->inputDevices(), id);
    QCOMPARE(output != nullptr, expectOutput);
    QCOMPARE(input != nullptr, expectInput);
    for (const AudioDevice* record : {output, input}) {
        if (!record)
            continue;
        QCOMPARE(record->uid, expectedUID);
        QCOMPARE(record->name, expectedName);
    }
    if (output)
        QVERIFY(!output->isInput);
    if (input) {
        QVERIFY(input->isInput);
        QVERIFY(!input->volume.has_value());
        QVERIFY(!input->isVolumeSettable);
    }
}

void TestAudioDeviceManager::listsAreSortedByNameLocaleAwareCaseInsensitiveAndStable_data() {
    QTest::addColumn<QStringList>("serviceOrder"); // "name|uid"
    QTest::addColumn<QStringList>("expectedUIDs");

    QTest::newRow("case does not rank")
        << QStringList{"beta|1", "Alpha|2", "alpha zulu|3", "Gamma|4"}
        << QStringList{"2", "3", "1", "4"};
    QTest::newRow("accented letters sort with their base letter")
        << QStringList{"Zed|1", "Eve|2", "Émile|3", "eagle|4"} << QStringList{"4", "3", "2", "1"};
    QTest::newRow("equal names keep the service's order")
        << QStringList{"Speakers|b", "Dock|x", "Speakers|a", "speakers|c"}
        << QStringList{"x", "b", "a", "c"};
}

void TestAudioDeviceManager::listsAreSortedByNameLocaleAwareCaseInsensitiveAndStable() {
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

void TestAudioDeviceManager::publicationIsQueuedAndAssignsInOrder() {
    auto hardware = SimulatedAudioHardware::withDemoDevices();
    AudioDeviceManager manager(*hardware);

    QStringList order;
    QList<AudioObjectID> defaultOutputSeenByOutputsObserver;
    connect(&manager, &AudioDeviceManager::defaultOutputIDChanged, this,
            [&] { order << "defaultOutputID"; });
    connect(&manager, &AudioDeviceManager::defaultInputIDChanged, this,
            [&] { order << "defaultInputID"; });
    connect(&manager, &AudioDeviceManager::outputDevicesChanged, this, [&] {
        order << "outputDevices";
        defaultOutputSeenByOutputsObserver << manager.defaultOutputID();
    });
    connect(&manager, &AudioDeviceManager::inputDevicesChanged, this,
            [&] { order << "inputDevices"; });

    // Construction refreshed, but nothing is assigned until the event loop turns.
    QVERIFY(manager.outputDevices().isEmpty());
    QCOMPARE(manager.defaultOutputID(), kAudioObjectUnknown);
    TestSupport::spinEventLoop();
    QCOMPARE(order,
             (QStringList{"defaultOutputID", "defaultInputID", "outputDevices", "inputDevices"}));
    QCOMPARE(defaultOutputSeenByOutputsObserver.first(), manager.defaultOutputID());
    QCOMPARE(manager.defaultOutputID(),
             *hardware->deviceWithUID("alsa_output.pci-0000_00_1f.3.analog-stereo"));
    QVERIFY(manager.defaultInputID() != kAudioObjectUnknown);

    // A caller does not read back its own refresh: the lists keep their old values until the hop.
    const auto before = manager.outputDevices();
    const AudioObjectID plugged =
        hardware->addDevice(outputSpec(QStringLiteral("usb-dac"), QStringLiteral("DAC")));
    manager.refresh();
    QCOMPARE(manager.outputDevices(), before);
    QVERIFY(!findRecord(manager.outputDevices(), plugged));
    TestSupport::spinEventLoop();
    QVERIFY(findRecord(manager.outputDevices(), plugged));
}

void TestAudioDeviceManager::everyRefreshEmitsAllFourSignalsEvenWhenNothingChanged() {
    auto hardware = SimulatedAudioHardware::withDemoDevices();
    auto manager = publishedManager(*hardware);
    const auto outputs = manager->outputDevices();
    const auto inputs = manager->inputDevices();

    QSignalSpy defaultOutput(manager.get(), &AudioDeviceManager::defaultOutputIDChanged);
    QSignalSpy defaultInput(manager.get(), &AudioDeviceManager::defaultInputIDChanged);
    QSignalSpy outputsSpy(manager.get(), &AudioDeviceManager::outputDevicesChanged);
    QSignalSpy inputsSpy(manager.get(), &AudioDeviceManager::inputDevicesChanged);
    manager->refresh();
    manager->refresh();
    TestSupport::spinEventLoop();

    QCOMPARE(defaultOutput.count(), 2);
    QCOMPARE(defaultInput.count(), 2);
    QCOMPARE(outputsSpy.count(), 2);
    QCOMPARE(inputsSpy.count(), 2);
    QCOMPARE(manager->outputDevices(), outputs);
    QCOMPARE(manager->inputDevices(), inputs);
}

void TestAudioDeviceManager::unreadableDefaultsAndDeviceListPublishNone() {
    auto hardware = SimulatedAudioHardware::withDemoDevices();
    hardware->failReads(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);
    hardware->failReads(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice);
    hardware->failReads(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultInputDevice);
    auto manager = publishedManager(*hardware);

    QVERIFY(manager->outputDevices().isEmpty());
    QVERIFY(manager->inputDevices().isEmpty());
    QCOMPARE(manager->defaultOutputID(), kAudioObjectUnknown);
    QCOMPARE(manager->defaultInputID(), kAudioObjectUnknown);

    hardware->clearFaults();
    manager->refresh();
    TestSupport::spinEventLoop();
    QCOMPARE(manager->outputDevices().size(), 5);
    QVERIFY(manager->defaultInputID() != kAudioObjectUnknown);
}

void TestAudioDeviceManager::channelOnlyVolumeControlsReadLeftAndAreAllWritten() {
    SimulatedAudioHardware hardware;
    Spec spec = outputSpec(QStringLiteral("hdmi"), QStringLiteral("TV"));
    spec.volume = {{1, 0.3f}, {2, 0.7f}};
    const AudioObjectID id = hardware.addDevice(spec);
    auto manager = publishedManager(hardware);

    QCOMPARE(manager->volume(id), std::optional<float>(0.3f));
    QVERIFY(manager->isVolumeSettable(id));
    QCOMPARE(manager->outputDevices().first().volume, std::optional<float>(0.3f));
    QVERIFY(manager->outputDevices().first().isVolumeSettable);

    QVERIFY(manager->setVolume(0.8f, id));
    QCOMPARE(storedVolume(hardware, id, 1), 0.8f);
    QCOMPARE(storedVolume(hardware, id, 2), 0.8f);
    QCOMPARE(hardware.setPropertyCallCount(kAudioDevicePropertyVolumeScalar), 2);

    // A device whose controls cannot be read has no volume, but is still known to be settable.
    hardware.failReads(id, kAudioDevicePropertyVolumeScalar);
    QCOMPARE(manager->volume(id), std::nullopt);
    QVERIFY(manager->isVolumeSettable(id));
}

void TestAudioDeviceManager::setVolumeClampsAndUpdatesTheListWithoutARefresh() {
    SimulatedAudioHardware hardware;
    Spec spec = outputSpec(QStringLiteral("speakers"), QStringLiteral("Speakers"));
    spec.volume = {{0, 0.2f}, {1, 0.2f}};
    const AudioObjectID id = hardware.addDevice(spec);
    auto manager = publishedManager(hardware);
    QSignalSpy refreshes(manager.get(), &AudioDeviceManager::defaultOutputIDChanged);
    QSignalSpy outputs(manager.get(), &AudioDeviceManager::outputDevicesChanged);

    QVERIFY(manager->setVolume(1.5f, id));
    QCOMPARE(storedVolume(hardware, id, 0), 1.0f);
    QCOMPARE(storedVolume(hardware, id, 1), 1.0f);
    QCOMPARE(manager->outputDevices().first().volume,
             std::optional<float>(0.2f)); // the update is queued too
    TestSupport::spinEventLoop();

    QCOMPARE(outputs.count(), 1);
    QCOMPARE(refreshes.count(), 0);
    QCOMPARE(manager->outputDevices().first().volume, std::optional<float>(1.0f));

    QVERIFY(manager->setVolume(-0.5f, id));
    TestSupport::spinEventLoop();
    QCOMPARE(manager->outputDevices().first().volume, std::optional<float>(0.0f));
}

void TestAudioDeviceManager::setVolumeWithoutAWritableControlChangesNothing_data() {
    QTest::addColumn<bool>("hasControl");
    QTest::addColumn<bool>("readOnly");
    QTest::addColumn<bool>("writeFails");

    QTest::newRow("no control") << false << false << false;
    QTest::newRow("read-only control") << true << true << false;
    QTest::newRow("write refused") << true << false << true;
}

void TestAudioDeviceManager::setVolumeWithoutAWritableControlChangesNothing() {
    QFETCH(bool, hasControl);
    QFETCH(bool, readOnly);
    QFETCH(bool, writeFails);

    SimulatedAudioHardware hardware;
    Spec spec = outputSpec(QStringLiteral("speakers"), QStringLiteral("Speakers"));
    spec.volume = hasControl ? std::map<AudioObjectPropertyElement, float>{{0, 0.4f}}
                             : std::map<AudioObjectPropertyElement, float>{};
    if (readOnly)
        spec.readOnlyVolumeElements = {0};
    const AudioObjectID id = hardware.addDevice(spec);
    if (writeFails)
        hardware.failWrites(id, kAudioDevicePropertyVolumeScalar);
    auto manager = publishedManager(hardware);
    const auto before = manager->outputDevices();
    QCOMPARE(before.first().isVolumeSettable, hasControl && !readOnly);
    QSignalSpy outputs(manager.get(), &AudioDeviceManager::outputDevicesChanged);

    QVERIFY(!manager->setVolume(0.9f, id));
    TestSupport::spinEventLoop();
    QCOMPARE(outputs.count(), 0);
    QCOMPARE(manager->outputDevices(), before);
    if (hasControl)
        QCOMPARE(storedVolume(hardware, id, 0), 0.4f);
}

void TestAudioDeviceManager::muteReadAndWrite_data() {
    QTest::addColumn<bool>("hasMute");
    QTest::addColumn<bool>("settable");
    QTest::addColumn<bool>("readFails");
    QTest::addColumn<bool>("writeFails");
    QTest::addColumn<bool>("expectReadable");
    QTest::addColumn<bool>("expectWritten");

    QTest::newRow("plain mute") << true << true << false << false << true << true;
    QTest::newRow("no mute control") << false << true << false << false << false << false;
    QTest::newRow("mute not settable") << true << false << false << false << true << false;
    QTest::newRow("read fails") << true << true << true << false << false << true;
    QTest::newRow("write fails") << true << true << false << true << true << false;
}

void TestAudioDeviceManager::muteReadAndWrite() {
    QFETCH(bool, hasMute);
    QFETCH(bool, settable);
    QFETCH(bool, readFails);
    QFETCH(bool, writeFails);
    QFETCH(bool, expectReadable);
    QFETCH(bool, expectWritten);

    SimulatedAudioHardware hardware;
    Spec spec = outputSpec(QStringLiteral("speakers"), QStringLiteral("Speakers"));
    spec.mute = hasMute ? std::optional<bool>(false) : std::nullopt;
    spec.muteSettable = settable;
    const AudioObjectID id = hardware.addDevice(spec);
    if (readFails)
        hardware.failReads(id, kAudioDevicePropertyMute);
    if (writeFails)
        hardware.failWrites(id, kAudioDevicePropertyMute);
    AudioDeviceManager manager(hardware);

    QCOMPARE(manager.isMuted(id), expectReadable ? std::optional<bool>(false) : std::nullopt);
    QCOMPARE(manager.setMute(true, id), expectWritten);
    QCOMPARE(hardware.setPropertyCallCount(kAudioDevicePropertyMute), expectWritten ? 1 : 0);
    hardware.clearFaults();
    if (hasMute)
        QCOMPARE(manager.isMuted(id), std::optional<bool>(expectWritten));
}

void TestAudioDeviceManager::lookupByUIDFallsBackToTheStableKey_data() {
    QTest::addColumn<QStringList>("presentUIDs");
    QTest::addColumn<QString>("storedUID");
    QTest::addColumn<int>("expectedIndex"); // into presentUIDs; -1: not found

    const QString dockNow = QStringLiteral("usb:0bda:4014:port7:bus3:1,2");
    const QString dockStored = QStringLiteral("usb:0bda:4014:port2:bus1:1,2");
    QTest::newRow("exact match") << QStringList{QStringLiteral("hdmi"), dockNow} << dockNow << 1;
    QTest::newRow("volatile parts changed")
        << QStringList{QStringLiteral("hdmi"), dockNow} << dockStored << 1;
    // Which drifted UIDs match is AudioDevice::matchingUID's table; one that does not:
    QTest::newRow("two candidates are no match")
        << QStringList{dockNow, QStringLiteral("usb:0bda:4014:port9:bus4:1,2")} << dockStored << -1;
}

void TestAudioDeviceManager::lookupByUIDFallsBackToTheStableKey() {
    QFETCH(QStringList, presentUIDs);
    QFETCH(QString, storedUID);
    QFETCH(int, expectedIndex);

    SimulatedAudioHardware hardware;
    std::vector<AudioObjectID> ids;
    for (const QString& uid : presentUIDs) {
        Spec spec = outputSpec(uid, uid);
        spec.inputChannels = {2};
        ids.push_back(hardware.addDevice(spec));
    }
    auto manager = publishedManager(hardware);
    const auto expected =
        expectedIndex < 0 ? std::nullopt : std::optional<AudioObjectID>(ids[expectedIndex]);
    QCOMPARE(manager->deviceIDForOutputUID(storedUID), expected);
    QCOMPARE(manager->deviceIDForInputUID(storedUID), expected);
}

void TestAudioDeviceManager::plugAndUnplugReachThePublishedLists() {
    auto hardware = SimulatedAudioHardware::withDemoDevices();
    auto manager = publishedManager(*hardware);
    const AudioObjectID builtIn = manager->defaultOutputID();
    const int outputsBefore = manager->outputDevices().size();

    Spec dac = outputSpec(QStringLiteral("alsa_output.usb-FiiO_K5-00.analog-stereo"),
                          QStringLiteral("FiiO K5"));
    dac.inputChannels = {2};
    const AudioObjectID plugged = hardware->addDevice(dac);
    QVERIFY(TestSupport::spinUntil(
        [&] { return findRecord(manager->outputDevices(), plugged) != nullptr; }));
    QVERIFY(findRecord(manager->inputDevices(), plugged));
    QCOMPARE(manager->outputDevices().size(), outputsBefore + 1);

    // Unplugging the default output moves the default; both changes reach the manager.
    QVERIFY(hardware->removeDevice(builtIn));
    QVERIFY(TestSupport::spinUntil(
        [&] { return findRecord(manager->outputDevices(), builtIn) == nullptr; }));
    TestSupport::spinEventLoop();
    QVERIFY(manager->defaultOutputID() != builtIn);
    QVERIFY(findRecord(manager->outputDevices(), manager->defaultOutputID()));

    // A change made behind the program's back reaches it too.
    hardware->setDefaultOutputDevice(plugged);
    QVERIFY(TestSupport::spinUntil([&] { return manager->defaultOutputID() == plugged; }));
    QCOMPARE(names(manager->outputDevices()).count(QStringLiteral("FiiO K5")), 1);
}

void TestAudioDeviceManager::destroyedManagerLeavesNoListenerBehind() {
    auto hardware = SimulatedAudioHardware::withDemoDevices();
    auto manager = std::make_unique<AudioDeviceManager>(*hardware);
    QCOMPARE(hardware->listenerCount(), 3);
    hardware->addDevice(
        outputSpec(QStringLiteral("late"), QStringLiteral("Late"))); // delivery queued
    manager.reset();
    QCOMPARE(hardware->listenerCount(), 0);
    TestSupport::spinEventLoop(); // the queued delivery must find nobody
}

QTEST_GUILESS_MAIN(TestAudioDeviceManager)
#include "tst_audiodevicemanager.moc"
