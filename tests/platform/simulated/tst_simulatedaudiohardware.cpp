#include "platform/simulated/SimulatedAudioHardware.h"

#include "TestSupport.h"

#include <QThread>
#include <QtTest>

namespace {

using Spec = SimulatedAudioHardware::DeviceSpec;

Spec outputSpec(const QString& uid, const QString& name, std::uint32_t channels = 2) {
    Spec spec;
    spec.uid = uid;
    spec.name = name;
    spec.outputChannels = {channels};
    return spec;
}

AudioObjectPropertyAddress
address(AudioObjectPropertySelector selector,
        AudioObjectPropertyScope scope = kAudioObjectPropertyScopeGlobal,
        AudioObjectPropertyElement element = kAudioObjectPropertyElementMain) {
    return {selector, scope, element};
}

std::vector<AudioObjectID> deviceList(const SimulatedAudioHardware& hardware) {
    AudioPropertyValue value;
    if (hardware.AudioObjectGetPropertyData(kAudioObjectSystemObject,
                                            address(kAudioHardwarePropertyDevices), value))
        return {};
    return std::get<std::vector<AudioObjectID>>(value);
}

std::uint32_t channelCount(const SimulatedAudioHardware& hardware, AudioObjectID id,
                           AudioObjectPropertyScope scope) {
    AudioPropertyValue value;
    if (hardware.AudioObjectGetPropertyData(
            id, address(kAudioDevicePropertyStreamConfiguration, scope), value))
        return 0;
    return std::get<AudioStreamConfiguration>(value).totalChannels();
}

std::uint32_t readUInt32(const SimulatedAudioHardware& hardware, AudioObjectID id,
                         AudioObjectPropertySelector selector) {
    AudioPropertyValue value;
    if (hardware.AudioObjectGetPropertyData(id, address(selector), value))
        return 0xffffffff;
    return std::get<std::uint32_t>(value);
}

QVariantMap aggregate(const QString& uid, const QStringList& memberUIDs, bool stacked) {
    QVariantList subdevices;
    for (const QString& member : memberUIDs)
        subdevices.append(
            QVariantMap{{kAudioSubDeviceUIDKey, member}, {kAudioSubDeviceDriftCompensationKey, 1}});
    return {{kAudioAggregateDeviceNameKey, QStringLiteral("Both")},
            {kAudioAggregateDeviceUIDKey, uid},
            {kAudioAggregateDeviceIsStackedKey, stacked ? 1 : 0},
            {kAudioAggregateDeviceIsPrivateKey, 0},
            {kAudioAggregateDeviceMainSubDeviceKey, memberUIDs.value(0)},
            {kAudioAggregateDeviceSubDeviceListKey, subdevices}};
}

// Records every delivery of one listener with the thread it ran on.
struct Recorder {
    int calls = 0;
    std::vector<AudioObjectPropertyAddress> lastAddresses;
    QThread* thread = nullptr;

    AudioObjectPropertyListenerBlock block() {
        return [this](const std::vector<AudioObjectPropertyAddress>& addresses) {
            ++calls;
            lastAddresses = addresses;
            thread = QThread::currentThread();
        };
    }
};

enum class Change {
    plug,
    unplug,
    createAggregate,
    setDefaultOutput,
    setDefaultInput,
    addProcess,
    processStartsOutput,
    writeVolume,
    writeMute
};

} // namespace

Q_DECLARE_METATYPE(Change)

class TestSimulatedAudioHardware : public QObject {
    Q_OBJECT

private slots:
    void listenerRunsOnTheMainThreadAfterTheCallReturns();
    void eachChangeFiresItsSelectorOnItsObject_data();
    void eachChangeFiresItsSelectorOnItsObject();
    void removedListenerHearsNothingEvenWhenADeliveryIsQueued();
    void unpluggingTheDefaultOutputMovesTheDefaultToTheFirstOutputLeft();
    void defaultCannotBeSetToSomethingThatIsNotADevice_data();
    void defaultCannotBeSetToSomethingThatIsNotADevice();
    void aggregateChannelsFollowStacking_data();
    void aggregateChannelsFollowStacking();
    void aggregateCreationIsRefused_data();
    void aggregateCreationIsRefused();
    void aggregateShrinksWhenAMemberGoesAndItsDestructionMovesTheDefault();
    void destroyingAPlainDeviceFails();
    void idsAreNeverReused();
    void readFaultFailsGetAndSizeUntilCleared();
    void writeFaultLeavesTheValueAlone();
    void readOnlyVolumeElementRefusesWrites();
    void tapHasItsUUIDAsTextAndIsListed();
    void refusedTapCreationLeavesNoTap();
    void ioCycleRunsOnlyStartedProcedures();
    void ioCycleHandsInputWithTheDeviceInputChannels();
    void demoDevicesHaveDefaultsAndARate();
};

void TestSimulatedAudioHardware::listenerRunsOnTheMainThreadAfterTheCallReturns() {
    SimulatedAudioHardware hardware;
    Recorder recorder;
    AudioObjectPropertyListenerToken token = 0;
    QCOMPARE(hardware.AudioObjectAddPropertyListenerBlock(kAudioObjectSystemObject,
                                                          address(kAudioHardwarePropertyDevices),
                                                          recorder.block(), token),
             kAudioHardwareNoError);

    hardware.addDevice(outputSpec(QStringLiteral("a"), QStringLiteral("A")));
    QCOMPARE(recorder.calls, 0);

    TestSupport::spinEventLoop();
    QCOMPARE(recorder.calls, 1);
    QCOMPARE(recorder.thread, QCoreApplication::instance()->thread());
    QCOMPARE(recorder.lastAddresses.size(), std::size_t(1));
    QCOMPARE(recorder.lastAddresses.front().mSelector, kAudioHardwarePropertyDevices);
}

void TestSimulatedAudioHardware::eachChangeFiresItsSelectorOnItsObject_data() {
    QTest::addColumn<Change>("change");
    QTest::addColumn<bool>("onSystemObject");
    QTest::addColumn<quint32>("selector");

    QTest::newRow("plug") << Change::plug << true << kAudioHardwarePropertyDevices;
    QTest::newRow("unplug") << Change::unplug << true << kAudioHardwarePropertyDevices;
    QTest::newRow("aggregate") << Change::createAggregate << true << kAudioHardwarePropertyDevices;
    QTest::newRow("default output")
        << Change::setDefaultOutput << true << kAudioHardwarePropertyDefaultOutputDevice;
    QTest::newRow("default input")
        << Change::setDefaultInput << true << kAudioHardwarePropertyDefaultInputDevice;
    QTest::newRow("process") << Change::addProcess << true
                             << kAudioHardwarePropertyProcessObjectList;
    QTest::newRow("process output")
        << Change::processStartsOutput << false << kAudioProcessPropertyIsRunningOutput;
    QTest::newRow("volume") << Change::writeVolume << false << kAudioDevicePropertyVolumeScalar;
    QTest::newRow("mute") << Change::writeMute << false << kAudioDevicePropertyMute;
}

void TestSimulatedAudioHardware::eachChangeFiresItsSelectorOnItsObject() {
    QFETCH(Change, change);
    QFETCH(bool, onSystemObject);
    QFETCH(quint32, selector);

    SimulatedAudioHardware hardware;
    Spec both = outputSpec(QStringLiteral("both"), QStringLiteral("Both"));
    both.inputChannels = {1};
    const AudioObjectID first =
        hardware.addDevice(outputSpec(QStringLiteral("a"), QStringLiteral("A")));
    const AudioObjectID second = hardware.addDevice(both);
    const AudioObjectID process =
        hardware.addProcess({42, QStringLiteral("org.example.player"), false});
    TestSupport::spinEventLoop();

    const AudioObjectID target = onSystemObject                          ? kAudioObjectSystemObject
                                 : change == Change::processStartsOutput ? process
                                                                         : first;
    Recorder recorder;
    Recorder bystander; // same selector on another object must stay silent
    AudioObjectPropertyListenerToken token = 0;
    QCOMPARE(hardware.AudioObjectAddPropertyListenerBlock(target, address(selector),
                                                          recorder.block(), token),
             kAudioHardwareNoError);
    QCOMPARE(hardware.AudioObjectAddPropertyListenerBlock(second, address(selector),
                                                          bystander.block(), token),
             kAudioHardwareNoError);

    AudioObjectID created = 0;
    switch (change) {
    case Change::plug:
        hardware.addDevice(outputSpec(QStringLiteral("c"), QStringLiteral("C")));
        break;
    case Change::unplug:
        QVERIFY(hardware.removeDevice(first));
        break;
    case Change::createAggregate:
        QCOMPARE(hardware.AudioHardwareCreateAggregateDevice(
                     aggregate(QStringLiteral("agg"), {QStringLiteral("a")}, true), created),
                 kAudioHardwareNoError);
        break;
    case Change::setDefaultOutput:
        QCOMPARE(
            hardware.AudioObjectSetPropertyData(kAudioObjectSystemObject, address(selector), first),
            kAudioHardwareNoError);
        break;
    case Change::setDefaultInput:
        QCOMPARE(hardware.AudioObjectSetPropertyData(kAudioObjectSystemObject, address(selector),
                                                     second),
                 kAudioHardwareNoError);
        break;
    case Change::addProcess:
        hardware.addProcess({7, QStringLiteral("org.example.other"), false});
        break;
    case Change::processStartsOutput:
        hardware.setProcessRunningOutput(process, true);
        break;
    case Change::writeVolume:
        QCOMPARE(hardware.AudioObjectSetPropertyData(
                     first, address(selector, kAudioObjectPropertyScopeOutput), 0.9f),
                 kAudioHardwareNoError);
        break;
    case Change::writeMute:
        QCOMPARE(hardware.AudioObjectSetPropertyData(
                     first, address(selector, kAudioObjectPropertyScopeOutput), std::uint32_t(1)),
                 kAudioHardwareNoError);
        break;
    }
    QCOMPARE(recorder.calls, 0);
    TestSupport::spinEventLoop();
    QCOMPARE(recorder.calls, 1);
    QCOMPARE(recorder.lastAddresses.front().mSelector, selector);
    QCOMPARE(bystander.calls, 0);
}

void TestSimulatedAudioHardware::removedListenerHearsNothingEvenWhenADeliveryIsQueued() {
    SimulatedAudioHardware hardware;
    Recorder removed;
    Recorder kept;
    AudioObjectPropertyListenerToken removedToken = 0;
    AudioObjectPropertyListenerToken keptToken = 0;
    hardware.AudioObjectAddPropertyListenerBlock(kAudioObjectSystemObject,
                                                 address(kAudioHardwarePropertyDevices),
                                                 removed.block(), removedToken);
    hardware.AudioObjectAddPropertyListenerBlock(
        kAudioObjectSystemObject, address(kAudioHardwarePropertyDevices), kept.block(), keptToken);
    QCOMPARE(hardware.listenerCount(), 2);

    hardware.addDevice(outputSpec(QStringLiteral("a"), QStringLiteral("A")));
    QCOMPARE(hardware.AudioObjectRemovePropertyListenerBlock(removedToken), kAudioHardwareNoError);
    TestSupport::spinEventLoop();

    QCOMPARE(removed.calls, 0);
    QCOMPARE(kept.calls, 1);
    QCOMPARE(hardware.listenerCount(), 1);
    QVERIFY(hardware.AudioObjectRemovePropertyListenerBlock(removedToken) != kAudioHardwareNoError);
}

void TestSimulatedAudioHardware::unpluggingTheDefaultOutputMovesTheDefaultToTheFirstOutputLeft() {
    SimulatedAudioHardware hardware;
    Spec microphone = outputSpec(QStringLiteral("mic"), QStringLiteral("Mic"));
    microphone.outputChannels = {};
    microphone.inputChannels = {1};
    hardware.addDevice(microphone);
    const AudioObjectID speakers =
        hardware.addDevice(outputSpec(QStringLiteral("a"), QStringLiteral("A")));
    const AudioObjectID headphones =
        hardware.addDevice(outputSpec(QStringLiteral("b"), QStringLiteral("B")));
    hardware.setDefaultOutputDevice(headphones);
    TestSupport::spinEventLoop();

    Recorder defaultOutput;
    AudioObjectPropertyListenerToken token = 0;
    hardware.AudioObjectAddPropertyListenerBlock(kAudioObjectSystemObject,
                                                 address(kAudioHardwarePropertyDefaultOutputDevice),
                                                 defaultOutput.block(), token);
    QVERIFY(hardware.removeDevice(headphones));

    QCOMPARE(
        readUInt32(hardware, kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice),
        speakers);
    TestSupport::spinEventLoop();
    QCOMPARE(defaultOutput.calls, 1);
}

void TestSimulatedAudioHardware::defaultCannotBeSetToSomethingThatIsNotADevice_data() {
    QTest::addColumn<quint32>("selector");
    QTest::addColumn<bool>("useProcess");
    QTest::addColumn<quint32>("target");

    QTest::newRow("output to none") << kAudioHardwarePropertyDefaultOutputDevice << false << 0u;
    QTest::newRow("output to unknown id")
        << kAudioHardwarePropertyDefaultOutputDevice << false << 9999u;
    QTest::newRow("output to a process") << kAudioHardwarePropertyDefaultOutputDevice << true << 0u;
    QTest::newRow("input to the system object")
        << kAudioHardwarePropertyDefaultInputDevice << false << 1u;
}

void TestSimulatedAudioHardware::defaultCannotBeSetToSomethingThatIsNotADevice() {
    QFETCH(quint32, selector);
    QFETCH(bool, useProcess);
    QFETCH(quint32, target);

    SimulatedAudioHardware hardware;
    const AudioObjectID device =
        hardware.addDevice(outputSpec(QStringLiteral("a"), QStringLiteral("A")));
    hardware.setDefaultOutputDevice(device);
    hardware.setDefaultInputDevice(device);
    if (useProcess)
        target = hardware.addProcess({1, QStringLiteral("org.example"), true});

    QCOMPARE(hardware.AudioObjectSetPropertyData(kAudioObjectSystemObject, address(selector),
                                                 std::uint32_t(target)),
             kAudioHardwareBadObjectError);
    QCOMPARE(readUInt32(hardware, kAudioObjectSystemObject, selector), device);
    QCOMPARE(hardware.setPropertyCallCount(selector), 0);
}

void TestSimulatedAudioHardware::aggregateChannelsFollowStacking_data() {
    QTest::addColumn<bool>("stacked");
    QTest::addColumn<quint32>("expectedOutputChannels");

    QTest::newRow("stacked plays the widest member's channels once") << true << 6u;
    QTest::newRow("side by side adds them up") << false << 8u;
}

void TestSimulatedAudioHardware::aggregateChannelsFollowStacking() {
    QFETCH(bool, stacked);
    QFETCH(quint32, expectedOutputChannels);

    SimulatedAudioHardware hardware;
    hardware.addDevice(outputSpec(QStringLiteral("left"), QStringLiteral("Left"), 2));
    hardware.addDevice(outputSpec(QStringLiteral("surround"), QStringLiteral("Surround"), 6));

    AudioObjectID id = 0;
    const QVariantMap description =
        aggregate(QStringLiteral("com.kestrivane.ondril.group.X"),
                  {QStringLiteral("left"), QStringLiteral("surround")}, stacked);
    QCOMPARE(hardware.AudioHardwareCreateAggregateDevice(description, id), kAudioHardwareNoError);

    QCOMPARE(channelCount(hardware, id, kAudioObjectPropertyScopeOutput), expectedOutputChannels);
    QCOMPARE(channelCount(hardware, id, kAudioObjectPropertyScopeInput), 0u);
    QCOMPARE(readUInt32(hardware, id, kAudioDevicePropertyTransportType),
             kAudioDeviceTransportTypeAggregate);
    QCOMPARE(hardware.deviceWithUID(QStringLiteral("com.kestrivane.ondril.group.X")),
             std::optional(id));
    QCOMPARE(deviceList(hardware).back(), id);
    QCOMPARE(hardware.aggregateDescription(id), description);

    AudioPropertyValue name;
    QCOMPARE(hardware.AudioObjectGetPropertyData(id, address(kAudioObjectPropertyName), name),
             kAudioHardwareNoError);
    QCOMPARE(std::get<QString>(name), QStringLiteral("Both"));
}

void TestSimulatedAudioHardware::aggregateCreationIsRefused_data() {
    QTest::addColumn<QString>("uid");
    QTest::addColumn<QStringList>("members");
    QTest::addColumn<bool>("injectFault");

    QTest::newRow("unknown member")
        << QStringLiteral("agg") << QStringList{QStringLiteral("a"), QStringLiteral("gone")}
        << false;
    QTest::newRow("empty uid") << QString() << QStringList{QStringLiteral("a")} << false;
    QTest::newRow("uid of a device")
        << QStringLiteral("a") << QStringList{QStringLiteral("a")} << false;
    QTest::newRow("injected fault")
        << QStringLiteral("agg") << QStringList{QStringLiteral("a")} << true;
}

void TestSimulatedAudioHardware::aggregateCreationIsRefused() {
    QFETCH(QString, uid);
    QFETCH(QStringList, members);
    QFETCH(bool, injectFault);

    SimulatedAudioHardware hardware;
    hardware.addDevice(outputSpec(QStringLiteral("a"), QStringLiteral("A")));
    if (injectFault)
        hardware.failNextAggregateCreation();
    const auto before = deviceList(hardware);

    AudioObjectID id = 0;
    QVERIFY(hardware.AudioHardwareCreateAggregateDevice(aggregate(uid, members, true), id) !=
            kAudioHardwareNoError);
    QCOMPARE(deviceList(hardware), before);
    QVERIFY(hardware.aggregateDevices().empty());
    QCOMPARE(hardware.createAggregateCallCount(), 1);

    if (injectFault) { // the fault is used up by one attempt
        QCOMPARE(hardware.AudioHardwareCreateAggregateDevice(aggregate(uid, members, true), id),
                 kAudioHardwareNoError);
        QCOMPARE(hardware.aggregateDevices(), std::vector<AudioObjectID>{id});
    }
}

void TestSimulatedAudioHardware::aggregateShrinksWhenAMemberGoesAndItsDestructionMovesTheDefault() {
    SimulatedAudioHardware hardware;
    const AudioObjectID left =
        hardware.addDevice(outputSpec(QStringLiteral("left"), QStringLiteral("Left"), 2));
    const AudioObjectID right =
        hardware.addDevice(outputSpec(QStringLiteral("right"), QStringLiteral("Right"), 4));
    AudioObjectID id = 0;
    QCOMPARE(hardware.AudioHardwareCreateAggregateDevice(
                 aggregate(QStringLiteral("agg"), {QStringLiteral("left"), QStringLiteral("right")},
                           false),
                 id),
             kAudioHardwareNoError);
    QCOMPARE(channelCount(hardware, id, kAudioObjectPropertyScopeOutput), 6u);
    QCOMPARE(hardware.AudioObjectSetPropertyData(
                 kAudioObjectSystemObject, address(kAudioHardwarePropertyDefaultOutputDevice), id),
             kAudioHardwareNoError);

    QVERIFY(hardware.removeDevice(right));
    QCOMPARE(channelCount(hardware, id, kAudioObjectPropertyScopeOutput), 2u);
    QCOMPARE(
        readUInt32(hardware, kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice),
        id);

    QCOMPARE(hardware.AudioHardwareDestroyAggregateDevice(id), kAudioHardwareNoError);
    QCOMPARE(
        readUInt32(hardware, kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice),
        left);
}

void TestSimulatedAudioHardware::destroyingAPlainDeviceFails() {
    SimulatedAudioHardware hardware;
    const AudioObjectID device =
        hardware.addDevice(outputSpec(QStringLiteral("a"), QStringLiteral("A")));
    QVERIFY(hardware.AudioHardwareDestroyAggregateDevice(device) != kAudioHardwareNoError);
    QCOMPARE(deviceList(hardware), std::vector<AudioObjectID>{device});

    AudioObjectID id = 0;
    QCOMPARE(hardware.AudioHardwareCreateAggregateDevice(
                 aggregate(QStringLiteral("agg"), {QStringLiteral("a")}, true), id),
             kAudioHardwareNoError);
    QCOMPARE(hardware.AudioHardwareDestroyAggregateDevice(id), kAudioHardwareNoError);
    QCOMPARE(deviceList(hardware), std::vector<AudioObjectID>{device});
    QVERIFY(hardware.AudioHardwareDestroyAggregateDevice(id) != kAudioHardwareNoError);
    QCOMPARE(hardware.destroyAggregateCallCount(), 3);
}

void TestSimulatedAudioHardware::idsAreNeverReused() {
    SimulatedAudioHardware hardware;
    const AudioObjectID first =
        hardware.addDevice(outputSpec(QStringLiteral("a"), QStringLiteral("A")));
    QCOMPARE(first, AudioObjectID(100));
    QVERIFY(hardware.removeDevice(first));
    QVERIFY(!hardware.removeDevice(first));

    const AudioObjectID again =
        hardware.addDevice(outputSpec(QStringLiteral("a"), QStringLiteral("A")));
    QCOMPARE(again, AudioObjectID(101));
    AudioObjectID aggregateID = 0;
    hardware.AudioHardwareCreateAggregateDevice(
        aggregate(QStringLiteral("agg"), {QStringLiteral("a")}, true), aggregateID);
    hardware.AudioHardwareDestroyAggregateDevice(aggregateID);
    const AudioObjectID third =
        hardware.addDevice(outputSpec(QStringLiteral("b"), QStringLiteral("B")));
    QCOMPARE(aggregateID, AudioObjectID(102));
    QCOMPARE(third, AudioObjectID(103));
    QCOMPARE(deviceList(hardware), (std::vector<AudioObjectID>{again, third}));
}

void TestSimulatedAudioHardware::readFaultFailsGetAndSizeUntilCleared() {
    SimulatedAudioHardware hardware;
    const AudioObjectID device =
        hardware.addDevice(outputSpec(QStringLiteral("a"), QStringLiteral("A")));
    const auto slay =
        address(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeOutput);
    hardware.failReads(device, kAudioDevicePropertyStreamConfiguration,
                       kAudioHardwareBadDeviceError);

    AudioPropertyValue value;
    std::uint32_t size = 0;
    QCOMPARE(hardware.AudioObjectGetPropertyData(device, slay, value),
             kAudioHardwareBadDeviceError);
    QCOMPARE(hardware.AudioObjectGetPropertyDataSize(device, slay, size),
             kAudioHardwareBadDeviceError);
    QCOMPARE(
        hardware.AudioObjectGetPropertyData(device, address(kAudioDevicePropertyDeviceUID), value),
        kAudioHardwareNoError);

    hardware.clearFaults();
    QCOMPARE(hardware.AudioObjectGetPropertyDataSize(device, slay, size), kAudioHardwareNoError);
    QCOMPARE(size, 8u + 16u);
}

void TestSimulatedAudioHardware::writeFaultLeavesTheValueAlone() {
    SimulatedAudioHardware hardware;
    const AudioObjectID device =
        hardware.addDevice(outputSpec(QStringLiteral("a"), QStringLiteral("A")));
    const auto volume = address(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput);
    hardware.failWrites(device, kAudioDevicePropertyVolumeScalar);

    QCOMPARE(hardware.AudioObjectSetPropertyData(device, volume, 0.9f),
             kAudioHardwareUnspecifiedError);
    AudioPropertyValue value;
    QCOMPARE(hardware.AudioObjectGetPropertyData(device, volume, value), kAudioHardwareNoError);
    QCOMPARE(std::get<float>(value), 0.5f);
    QCOMPARE(hardware.setPropertyCallCount(kAudioDevicePropertyVolumeScalar), 0);
}

void TestSimulatedAudioHardware::readOnlyVolumeElementRefusesWrites() {
    SimulatedAudioHardware hardware;
    Spec spec = outputSpec(QStringLiteral("a"), QStringLiteral("A"));
    spec.volume = {{1, 0.2f}, {2, 0.3f}};
    spec.readOnlyVolumeElements = {2};
    const AudioObjectID device = hardware.addDevice(spec);

    bool settable = true;
    QCOMPARE(hardware.AudioObjectIsPropertySettable(
                 device,
                 address(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, 2),
                 settable),
             kAudioHardwareNoError);
    QVERIFY(!settable);
    QVERIFY(!hardware.AudioObjectHasProperty(
        device, address(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, 0)));
    QVERIFY(hardware.AudioObjectSetPropertyData(
                device,
                address(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, 2),
                1.0f) != kAudioHardwareNoError);
    QCOMPARE(hardware.AudioObjectSetPropertyData(
                 device,
                 address(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, 1),
                 1.0f),
             kAudioHardwareNoError);
    QCOMPARE(hardware.setPropertyCallCount(kAudioDevicePropertyVolumeScalar), 1);
}

void TestSimulatedAudioHardware::tapHasItsUUIDAsTextAndIsListed() {
    SimulatedAudioHardware hardware;
    const AudioObjectID process =
        hardware.addProcess({42, QStringLiteral("org.example.player"), true});
    CATapDescription description;
    description.processes = {process};
    description.uuid = QUuid::fromString(QStringLiteral("{4f1c2d3e-aaaa-4bbb-8ccc-0123456789ab}"));

    AudioObjectID tap = 0;
    QCOMPARE(hardware.AudioHardwareCreateProcessTap(description, tap), kAudioHardwareNoError);
    AudioPropertyValue value;
    QCOMPARE(hardware.AudioObjectGetPropertyData(tap, address(kAudioTapPropertyUID), value),
             kAudioHardwareNoError);
    QCOMPARE(std::get<QString>(value), QStringLiteral("4F1C2D3E-AAAA-4BBB-8CCC-0123456789AB"));
    QCOMPARE(hardware.AudioObjectGetPropertyData(kAudioObjectSystemObject,
                                                 address(kAudioHardwarePropertyTapList), value),
             kAudioHardwareNoError);
    QCOMPARE(std::get<std::vector<AudioObjectID>>(value), std::vector<AudioObjectID>{tap});

    // An aggregate that names the tap gets the tap's channels as its input side.
    QVariantMap withTap = aggregate(QStringLiteral("app"), {}, false);
    withTap[kAudioAggregateDeviceTapListKey] = QVariantList{
        QVariantMap{{kAudioSubTapUIDKey, QStringLiteral("4F1C2D3E-AAAA-4BBB-8CCC-0123456789AB")}}};
    AudioObjectID aggregateID = 0;
    QCOMPARE(hardware.AudioHardwareCreateAggregateDevice(withTap, aggregateID),
             kAudioHardwareNoError);
    QCOMPARE(channelCount(hardware, aggregateID, kAudioObjectPropertyScopeInput), 2u);

    QCOMPARE(hardware.AudioHardwareDestroyProcessTap(tap), kAudioHardwareNoError);
    QVERIFY(hardware.processTaps().empty());
    QVERIFY(hardware.AudioHardwareDestroyProcessTap(tap) != kAudioHardwareNoError);
}

void TestSimulatedAudioHardware::refusedTapCreationLeavesNoTap() {
    SimulatedAudioHardware hardware;
    hardware.failNextTapCreation();
    CATapDescription description;
    description.isExclusive = true;
    AudioObjectID tap = 0;
    QCOMPARE(hardware.AudioHardwareCreateProcessTap(description, tap),
             kAudioHardwareIllegalOperationError);
    QVERIFY(hardware.processTaps().empty());
    QCOMPARE(hardware.AudioHardwareCreateProcessTap(description, tap), kAudioHardwareNoError);
    QVERIFY(hardware.tapDescription(tap).has_value());
    QVERIFY(!hardware.tapDescription(tap)->uuid.isNull());

    CATapDescription ofGoneProcess;
    ofGoneProcess.processes = {4242};
    AudioObjectID refused = 0;
    QCOMPARE(hardware.AudioHardwareCreateProcessTap(ofGoneProcess, refused),
             kAudioHardwareBadObjectError);
    QCOMPARE(hardware.processTaps(), std::vector<AudioObjectID>{tap});
}

void TestSimulatedAudioHardware::ioCycleRunsOnlyStartedProcedures() {
    SimulatedAudioHardware hardware;
    const AudioObjectID device =
        hardware.addDevice(outputSpec(QStringLiteral("a"), QStringLiteral("A")));
    int calls = 0;
    AudioDeviceIOProcID proc = 0;
    QCOMPARE(hardware.AudioDeviceCreateIOProcIDWithBlock(
                 proc, device,
                 [&calls](const AudioTimeStamp&, const AudioBufferList& in, AudioBufferList& out) {
                     ++calls;
                     const auto* source = static_cast<const float*>(in.mBuffers[0].mData);
                     auto* target = static_cast<float*>(out.mBuffers[0].mData);
                     const std::uint32_t samples = out.mBuffers[0].mDataByteSize / sizeof(float);
                     for (std::uint32_t i = 0; i < samples; ++i)
                         target[i] = source[i] * 2.0f;
                 }),
             kAudioHardwareNoError);

    const std::vector<float> input{0.1f, 0.2f, 0.3f, 0.4f};
    QCOMPARE(hardware.runIOCycle(device, input, 2).output, std::vector<float>(4, 0.0f));
    QCOMPARE(calls, 0);
    QVERIFY(!hardware.isDeviceRunning(device));

    QCOMPARE(hardware.AudioDeviceStart(device, proc), kAudioHardwareNoError);
    QVERIFY(hardware.isDeviceRunning(device));
    const auto result = hardware.runIOCycle(device, input, 2);
    QCOMPARE(result.status, kAudioHardwareNoError);
    QCOMPARE(result.output, (std::vector<float>{0.2f, 0.4f, 0.6f, 0.8f}));
    QCOMPARE(calls, 1);

    QCOMPARE(hardware.AudioDeviceStop(device, proc), kAudioHardwareNoError);
    hardware.runIOCycle(device, input, 2);
    QCOMPARE(calls, 1);
    QCOMPARE(hardware.AudioDeviceDestroyIOProcID(device, proc), kAudioHardwareNoError);
    QCOMPARE(hardware.ioProcCount(device), 0);
    QVERIFY(hardware.AudioDeviceStart(device, proc) != kAudioHardwareNoError);
}

void TestSimulatedAudioHardware::ioCycleHandsInputWithTheDeviceInputChannels() {
    SimulatedAudioHardware hardware;
    Spec spec = outputSpec(QStringLiteral("a"), QStringLiteral("A"), 2);
    spec.inputChannels = {1};
    const AudioObjectID device = hardware.addDevice(spec);
    std::uint32_t inputChannels = 0;
    double sampleTime = -1;
    AudioDeviceIOProcID proc = 0;
    hardware.AudioDeviceCreateIOProcIDWithBlock(
        proc, device, [&](const AudioTimeStamp& now, const AudioBufferList& in, AudioBufferList&) {
            inputChannels = in.mBuffers[0].mNumberChannels;
            sampleTime = now.mSampleTime;
        });
    hardware.AudioDeviceStart(device, proc);

    hardware.runIOCycle(device, std::vector<float>(64, 0.0f), 64);
    QCOMPARE(inputChannels, 1u);
    QCOMPARE(sampleTime, 0.0);
    hardware.runIOCycle(device, std::vector<float>(64, 0.0f), 64);
    QCOMPARE(sampleTime, 64.0);

    // The procedure goes with its device.
    QVERIFY(hardware.removeDevice(device));
    QCOMPARE(hardware.ioProcCount(device), 0);
    QCOMPARE(hardware.runIOCycle(device, {}, 4).status, kAudioHardwareBadDeviceError);
}

void TestSimulatedAudioHardware::demoDevicesHaveDefaultsAndARate() {
    auto hardware = SimulatedAudioHardware::withDemoDevices();
    const auto builtIn =
        hardware->deviceWithUID(QStringLiteral("alsa_output.pci-0000_00_1f.3.analog-stereo"));
    QVERIFY(builtIn);
    QCOMPARE(
        readUInt32(*hardware, kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice),
        *builtIn);

    const AudioObjectID microphone =
        readUInt32(*hardware, kAudioObjectSystemObject, kAudioHardwarePropertyDefaultInputDevice);
    QVERIFY(channelCount(*hardware, microphone, kAudioObjectPropertyScopeInput) > 0);
    QCOMPARE(channelCount(*hardware, microphone, kAudioObjectPropertyScopeOutput), 0u);

    int airPlay = 0;
    for (auto id : deviceList(*hardware))
        airPlay += readUInt32(*hardware, id, kAudioDevicePropertyTransportType) ==
                   kAudioDeviceTransportTypeAirPlay;
    QCOMPARE(airPlay, 1);

    AudioPropertyValue rate;
    QCOMPARE(hardware->AudioObjectGetPropertyData(
                 *builtIn, address(kAudioDevicePropertyNominalSampleRate), rate),
             kAudioHardwareNoError);
    QCOMPARE(std::get<double>(rate), 48000.0);
}

QTEST_GUILESS_MAIN(TestSimulatedAudioHardware)
#include "tst_simulatedaudiohardware.moc"
