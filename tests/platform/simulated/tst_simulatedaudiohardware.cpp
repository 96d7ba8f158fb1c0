#include "platform/simulated/SimulatedAudioHardware.h"

#include "TestSupport.h"

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

// Records every delivery of one listener.
struct Recorder {
    int calls = 0;
    std::vector<AudioObjectPropertyAddress> lastAddresses;

    AudioObjectPropertyListenerBlock block() {
        return [this](const std::vector<AudioObjectPropertyAddress>& addresses) {
            ++calls;
            lastAddresses = addresses;
        };
    }
};

// The changes whose listeners the device manager relies on.
enum class Change { plug, unplug, createAggregate, setDefaultOutput, setDefaultInput };

} // namespace

Q_DECLARE_METATYPE(Change)

class TestSimulatedAudioHardware : public QObject {
    Q_OBJECT

private slots:
    void eachChangeFiresItsSelectorOnItsObject_data();
    void eachChangeFiresItsSelectorOnItsObject();
    void removedListenerHearsNothingEvenWhenADeliveryIsQueued();
    void aggregateCreationIsRefused_data();
    void aggregateCreationIsRefused();
    void aggregateShrinksWhenAMemberGoesAndItsDestructionMovesTheDefault();
};

void TestSimulatedAudioHardware::eachChangeFiresItsSelectorOnItsObject_data() {
    QTest::addColumn<Change>("change");
    QTest::addColumn<quint32>("selector");

    QTest::newRow("plug") << Change::plug << kAudioHardwarePropertyDevices;
    QTest::newRow("unplug") << Change::unplug << kAudioHardwarePropertyDevices;
    QTest::newRow("aggregate") << Change::createAggregate << kAudioHardwarePropertyDevices;
    QTest::newRow("default output")
        << Change::setDefaultOutput << kAudioHardwarePropertyDefaultOutputDevice;
    QTest::newRow("default input")
        << Change::setDefaultInput << kAudioHardwarePropertyDefaultInputDevice;
}

void TestSimulatedAudioHardware::eachChangeFiresItsSelectorOnItsObject() {
    QFETCH(Change, change);
    QFETCH(quint32, selector);

    SimulatedAudioHardware hardware;
    Spec both = outputSpec(QStringLiteral("both"), QStringLiteral("Both"));
    both.inputChannels = {1};
    const AudioObjectID first =
        hardware.addDevice(outputSpec(QStringLiteral("a"), QStringLiteral("A")));
    const AudioObjectID second = hardware.addDevice(both);
    TestSupport::spinEventLoop();

    Recorder recorder;
    Recorder bystander; // same selector on another object must stay silent
    AudioObjectPropertyListenerToken token = 0;
    QCOMPARE(hardware.AudioObjectAddPropertyListenerBlock(
                 kAudioObjectSystemObject, address(selector), recorder.block(), token),
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

QTEST_GUILESS_MAIN(TestSimulatedAudioHardware)
#include "tst_simulatedaudiohardware.moc"
