#include "platform/simulated/SimulatedAudioHardware.h"

#include "TestSupport.h"

#include <QtTest>

// What the group tests take from the simulated service as given: a removed listener stays quiet
// even with a delivery already queued, and an aggregate follows its members like a combined sink.
class TestSimulatedAudioHardware : public QObject {
    Q_OBJECT

    static AudioObjectID addOutput(SimulatedAudioHardware& hardware, const QString& uid,
                                   std::uint32_t channels) {
        SimulatedAudioHardware::DeviceSpec spec;
        spec.uid = uid;
        spec.outputChannels = {channels};
        return hardware.addDevice(spec);
    }

    template <typename T>
    static T read(const SimulatedAudioHardware& hardware, AudioObjectID id,
                  AudioObjectPropertySelector selector,
                  AudioObjectPropertyScope scope = kAudioObjectPropertyScopeGlobal) {
        AudioPropertyValue value;
        if (hardware.AudioObjectGetPropertyData(id, {selector, scope, 0}, value))
            return T();
        return std::get<T>(value);
    }

private slots:
    void removedListenerHearsNothingEvenWhenADeliveryIsQueued() {
        SimulatedAudioHardware hardware;
        int removedCalls = 0;
        int keptCalls = 0;
        AudioObjectPropertyListenerToken removed = 0;
        AudioObjectPropertyListenerToken kept = 0;
        const AudioObjectPropertyAddress devices{kAudioHardwarePropertyDevices,
                                                 kAudioObjectPropertyScopeGlobal, 0};
        hardware.AudioObjectAddPropertyListenerBlock(
            kAudioObjectSystemObject, devices, [&](const auto&) { ++removedCalls; }, removed);
        hardware.AudioObjectAddPropertyListenerBlock(
            kAudioObjectSystemObject, devices, [&](const auto&) { ++keptCalls; }, kept);

        addOutput(hardware, QStringLiteral("a"), 2);
        QCOMPARE(hardware.AudioObjectRemovePropertyListenerBlock(removed), kAudioHardwareNoError);
        TestSupport::spinEventLoop();

        QCOMPARE(removedCalls, 0);
        QCOMPARE(keptCalls, 1);
        QCOMPARE(hardware.listenerCount(), 1);
        QVERIFY(hardware.AudioObjectRemovePropertyListenerBlock(removed) != kAudioHardwareNoError);
    }

    void aggregateShrinksWhenAMemberGoesAndItsDestructionMovesTheDefault() {
        SimulatedAudioHardware hardware;
        const AudioObjectID left = addOutput(hardware, QStringLiteral("left"), 2);
        const AudioObjectID right = addOutput(hardware, QStringLiteral("right"), 4);
        QVariantList subdevices;
        for (const char* member : {"left", "right"})
            subdevices.append(QVariantMap{{kAudioSubDeviceUIDKey, member}});
        AudioObjectID id = 0;
        QCOMPARE(hardware.AudioHardwareCreateAggregateDevice(
                     {{kAudioAggregateDeviceUIDKey, QStringLiteral("agg")},
                      {kAudioAggregateDeviceMainSubDeviceKey, QStringLiteral("left")},
                      {kAudioAggregateDeviceSubDeviceListKey, subdevices}},
                     id),
                 kAudioHardwareNoError);
        const auto channels = [&] {
            return read<AudioStreamConfiguration>(hardware, id,
                                                  kAudioDevicePropertyStreamConfiguration,
                                                  kAudioObjectPropertyScopeOutput)
                .totalChannels();
        };
        QCOMPARE(channels(), 6u);
        hardware.setDefaultOutputDevice(id);

        QVERIFY(hardware.removeDevice(right));
        QCOMPARE(channels(), 2u);
        const auto defaultOutput = [&] {
            return read<std::uint32_t>(hardware, kAudioObjectSystemObject,
                                       kAudioHardwarePropertyDefaultOutputDevice);
        };
        QCOMPARE(defaultOutput(), id);
        QCOMPARE(hardware.AudioHardwareDestroyAggregateDevice(id), kAudioHardwareNoError);
        QCOMPARE(defaultOutput(), left);
    }
};

QTEST_GUILESS_MAIN(TestSimulatedAudioHardware)
#include "tst_simulatedaudiohardware.moc"
