#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "appaudio/LevelMeter.h"
#include "appaudio/RouteSession.h"
#include "appaudio/SwitchSound.h"
#include "devices/AudioDeviceManager.h"
#include "platform/UserDefaults.h"
#include "platform/simulated/SimulatedAudioHardware.h"
#include "platform/simulated/SimulatedSoundLibrary.h"

#include <QtTest>

#include "TestSupport.h"

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>

// Every allocation of the process is counted while armed, so a procedure that allocates fails.
namespace {
std::atomic<bool> allocationsArmed{false};
std::atomic<int> allocationCount{0};
} // namespace

void* operator new(std::size_t size) {
    if (allocationsArmed.load())
        ++allocationCount;
    if (void* memory = std::malloc(size ? size : 1))
        return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

// One buffer of a hand-built list: its channel count and interleaved samples; no data pointer
// when `hasData` is false.
struct Buffer {
    std::uint32_t channels = 0;
    std::vector<float> samples;
    bool hasData = true;
};
using Buffers = std::vector<Buffer>;

struct BufferList {
    Buffers buffers;
    std::vector<AudioBuffer> entries;
    AudioBufferList list;

    explicit BufferList(Buffers from)
        : buffers(std::move(from)) {
        for (Buffer& buffer : buffers)
            entries.push_back({buffer.channels, std::uint32_t(buffer.samples.size() * 4),
                               buffer.hasData ? buffer.samples.data() : nullptr});
        list = {std::uint32_t(entries.size()), entries.data()};
    }
};

// An output buffer of `frames` frames, filled with a value the procedure must overwrite.
Buffer out(std::uint32_t channels, std::uint32_t frames) {
    return {channels, std::vector<float>(std::size_t(channels) * frames, 7.0f)};
}

const QString bundle = QStringLiteral("org.example.Player");

// A service with the given outputs and one playing process of the player's.
struct Service : SimulatedAudioHardware {
    AudioObjectID process = 0;

    explicit Service(const QStringList& outputs = {QStringLiteral("speakers")}) {
        for (const QString& uid : outputs) {
            DeviceSpec spec;
            spec.uid = uid;
            addDevice(spec);
        }
        process = addProcess({4242, bundle, true});
    }
};

} // namespace

Q_DECLARE_METATYPE(Buffers)

// The session's procedure, aggregate and failed start, the level meter's tap and the switch sound,
// on the simulated service. The limiter's curve is heard through the same procedure in the boost
// server test; the meter moving with real audio, in the app audio server test.
class RouteSessionTest : public QObject {
    Q_OBJECT

private slots:
    void procedure_data() {
        QTest::addColumn<Buffers>("input");
        QTest::addColumn<Buffers>("output");
        QTest::addColumn<float>("value");
        QTest::addColumn<float>("peakBefore");
        QTest::addColumn<Buffers>("expected");
        QTest::addColumn<float>("expectedPeak");

        const float odd = 0.123456789f;
        QTest::newRow("stereo to stereo, bit for bit at unity")
            << Buffers{{2, {0.1f, -0.2f, odd, -0.4f, 1e-7f, -1.0f}}} << Buffers{out(2, 3)} << 1.0f
            << 0.0f << Buffers{{2, {0.1f, -0.2f, odd, -0.4f, 1e-7f, -1.0f}}} << 1.0f;
        QTest::newRow("stereo to four channels: 3 and 4 silent")
            << Buffers{{2, {0.1f, 0.2f, 0.3f, 0.4f}}} << Buffers{out(4, 2)} << 1.0f << 0.0f
            << Buffers{{4, {0.1f, 0.2f, 0, 0, 0.3f, 0.4f, 0, 0}}} << 0.4f;
        QTest::newRow("stereo to two mono buffers: channels run across buffers")
            << Buffers{{2, {0.1f, 0.2f, 0.3f, 0.4f}}} << Buffers{out(1, 2), out(1, 2)} << 1.0f
            << 0.0f << Buffers{{1, {0.1f, 0.3f}}, {1, {0.2f, 0.4f}}} << 0.4f;
        QTest::newRow("planar input of two lengths: the shorter decides, the tail is silent")
            << Buffers{{1, {0.1f, 0.2f, 0.3f}}, {1, {0.4f, 0.5f}}} << Buffers{out(2, 3)} << 1.0f
            << 0.0f << Buffers{{2, {0.1f, 0.4f, 0.2f, 0.5f, 0, 0}}} << 0.5f;
        QTest::newRow("no usable input: silence, peak untouched")
            << Buffers{{2, {0.5f, 0.6f}, false}, {0, {0.5f, 0.6f}}} << Buffers{out(2, 2)} << 1.0f
            << 0.3f << Buffers{{2, {0, 0, 0, 0}}} << 0.3f;
        QTest::newRow("unusable output buffer skipped without using a channel")
            << Buffers{{2, {0.1f, 0.2f}}} << Buffers{{2, {7.0f, 7.0f}, false}, out(2, 1)} << 1.0f
            << 0.0f << Buffers{{2, {7.0f, 7.0f}}, {2, {0.1f, 0.2f}}} << 0.2f;
        QTest::newRow("half gain") << Buffers{{2, {0.5f, -0.6f}}} << Buffers{out(2, 1)} << 0.5f
                                   << 0.0f << Buffers{{2, {0.25f, -0.3f}}} << 0.3f;
        QTest::newRow("peak only raised") << Buffers{{2, {0.5f, 0.1f}}} << Buffers{out(2, 1)}
                                          << 1.0f << 0.9f << Buffers{{2, {0.5f, 0.1f}}} << 0.9f;
    }

    void procedure() {
        QFETCH(Buffers, input);
        QFETCH(Buffers, output);
        QFETCH(float, value);
        QFETCH(float, peakBefore);
        QFETCH(Buffers, expected);
        QFETCH(float, expectedPeak);

        GainBox gain;
        gain.value = value;
        gain.peak = peakBefore;
        BufferList in(input);
        BufferList written(output);
        RouteSession::process(gain, in.list, written.list);

        QCOMPARE(written.buffers.size(), expected.size());
        for (std::size_t b = 0; b < expected.size(); ++b) // unity and plain gain are exact
            QCOMPARE(written.buffers[b].samples, expected[b].samples);
        QVERIFY(std::fabs(gain.peak.load() - expectedPeak) < 1e-5f);
    }

    void procedureAllocatesNothing() {
        // The counter itself works.
        allocationCount = 0;
        allocationsArmed = true;
        int* volatile probe = new int(1); // volatile: the compiler may not elide this allocation
        allocationsArmed = false;
        delete probe;
        QCOMPARE(allocationCount.load(), 1);

        BufferList stereo(Buffers{{2, std::vector<float>(1024, 0.5f)}});
        BufferList planar(
            Buffers{{1, std::vector<float>(512, 0.5f)}, {1, std::vector<float>(512)}});
        BufferList wide(Buffers{out(4, 512)});
        BufferList mono(Buffers{out(1, 512), out(1, 512)});
        GainBox gain;
        LevelMeter::Box box;

        allocationCount = 0;
        allocationsArmed = true;
        for (bool boost : {false, true}) {
            gain.boost = boost;
            RouteSession::process(gain, stereo.list, wide.list);
            RouteSession::process(gain, planar.list, mono.list);
            LevelMeter::process(box, stereo.list);
        }
        allocationsArmed = false;
        QCOMPARE(allocationCount.load(), 0);
    }

    // The destinations are the aggregate's devices, the first its clock; a group's aggregate of
    // Ondril's own is left out.
    void aggregateLeavesOutOndrilsOwnDevices_data() {
        QTest::addColumn<QStringList>("destinations");
        QTest::addColumn<QStringList>("subdevices");
        const QString group = QStringLiteral("com.kestrivane.ondril.group.1234");
        QTest::newRow("two") << QStringList{"a", "b"} << QStringList{"a", "b"};
        QTest::newRow("a group's aggregate") << QStringList{group, "b"} << QStringList{"b"};
    }

    void aggregateLeavesOutOndrilsOwnDevices() {
        QFETCH(QStringList, destinations);
        QFETCH(QStringList, subdevices);
        Service hardware({QStringLiteral("a"), QStringLiteral("b")});
        RouteSession session(hardware, bundle, {hardware.process}, destinations);
        QVERIFY(session.start());

        const QVariantMap description = hardware.aggregateDescription(session.aggID());
        QCOMPARE(description.value(kAudioAggregateDeviceMainSubDeviceKey).toString(),
                 subdevices.first());
        QStringList uids;
        for (const QVariant& entry :
             description.value(kAudioAggregateDeviceSubDeviceListKey).toList())
            uids.append(entry.toMap().value(kAudioSubDeviceUIDKey).toString());
        QCOMPARE(uids, subdevices);
    }

    // The row's name is what the log says failed, with the status the service fails it with.
    void failedStartLogsAndLeavesNothing_data() {
        QTest::addColumn<int>("status");
        QTest::newRow("process tap") << int(kAudioHardwareIllegalOperationError);
        QTest::newRow("aggregate create") << int(kAudioHardwareUnspecifiedError);
    }

    void failedStartLogsAndLeavesNothing() {
        QFETCH(int, status);
        const QString failed = QTest::currentDataTag();
        Service hardware;
        if (failed == "process tap")
            hardware.failNextTapCreation();
        else
            hardware.failNextAggregateCreation();
        RouteSession session(hardware, bundle, {hardware.process}, {QStringLiteral("speakers")});
        const QString message =
            QStringLiteral("%1 failed (%2) for %3").arg(failed).arg(status).arg(bundle);
        QTest::ignoreMessage(QtCriticalMsg, qPrintable(message));
        QVERIFY(!session.start());
        QVERIFY(hardware.processTaps().empty());
        QVERIFY(hardware.aggregateDevices().empty());
    }

    // Without a real output the meter does not start.
    void meterTapsTheDefaultOutputWhileRunning() {
        SimulatedAudioHardware hardware;
        AudioDeviceManager audio(hardware);
        TestSupport::spinEventLoop();
        LevelMeter meter(audio);
        meter.start();
        QVERIFY(!meter.isRunning());
        QVERIFY(hardware.processTaps().empty());

        SimulatedAudioHardware::DeviceSpec speakers;
        speakers.uid = QStringLiteral("speakers");
        hardware.setDefaultOutputDevice(hardware.addDevice(speakers));
        TestSupport::spinEventLoop();
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

QTEST_GUILESS_MAIN(RouteSessionTest)
#include "tst_routesession.moc"
