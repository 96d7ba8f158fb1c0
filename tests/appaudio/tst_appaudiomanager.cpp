#include "../configs/ConfigRig.h"

#include "appaudio/LevelMeter.h"
#include "appaudio/RouteSession.h"
#include "appaudio/SwitchSound.h"
#include "platform/simulated/SimulatedSoundLibrary.h"

#include <QSignalSpy>
#include <QtTest>

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

const QString player = QStringLiteral("org.example.Player");

struct AppRig : ConfigRig {
    const RouteSession* session(const QString& bundleID = player) const {
        return apps->session(bundleID);
    }
    QStringList destinations(const QString& bundleID = player) const {
        const RouteSession* s = session(bundleID);
        return s ? s->destinationUIDs() : QStringList();
    }
    std::optional<AppAudioState> row(const QList<AppAudioState>& rows,
                                     const QString& bundleID) const {
        for (const AppAudioState& row : rows)
            if (row.bundleID == bundleID)
                return row;
        return std::nullopt;
    }
};

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

// A service with the given outputs and one playing process of the player's.
struct Service : SimulatedAudioHardware {
    AudioObjectID process = 0;

    explicit Service(const QStringList& outputs = {QStringLiteral("speakers")}) {
        for (const QString& uid : outputs) {
            DeviceSpec spec;
            spec.uid = uid;
            addDevice(spec);
        }
        process = addProcess({4242, player, true});
    }
};

} // namespace

Q_DECLARE_METATYPE(Buffers)

// The app audio manager on the simulated service; under it, the session's procedure, aggregate
// and failed start, the level meter's tap and the switch sound. The limiter's curve is heard
// through the same procedure in the boost server test; the meter moving with real audio, in the
// app audio server test.
class AppAudioManagerTest : public QObject {
    Q_OBJECT

private slots:
    // The record and the session after some steps: "record <volume>" or "no record", then
    // "session <gain>" (", boosted" when the limiter runs) or "no session". Half volume, a route
    // at unity and back to neutral are heard on the servers.
    void neutralBoundary_data() {
        QTest::addColumn<QStringList>(
            "steps"); // "volume x", "mute", "route", "favourite", "unroute"
        QTest::addColumn<QString>("expected");
        QTest::newRow("back to unity removes the record")
            << QStringList{"volume 0.5", "volume 1"} << "no record, no session";
        QTest::newRow("above 4 clamps to 4")
            << QStringList{"volume 4.5"} << "record 4, session 4, boosted";
        QTest::newRow("below 0 clamps to 0") << QStringList{"volume -1"} << "record 0, session 0";
        QTest::newRow("muted boost: no limiter")
            << QStringList{"volume 2", "mute"} << "record 2, session 0";
        QTest::newRow("unrouting a favourite keeps its record")
            << QStringList{"favourite", "route", "unroute"} << "record 1, no session";
    }

    void neutralBoundary() {
        QFETCH(QStringList, steps);
        QFETCH(QString, expected);
        AppRig rig;
        rig.addApp(4242, player, QStringLiteral("Player"));
        rig.apps->refresh();
        settle();
        for (const QString& step : std::as_const(steps)) {
            if (step.startsWith(QLatin1String("volume ")))
                rig.apps->setVolume(player, step.mid(7).toDouble());
            else if (step == QLatin1String("mute"))
                rig.apps->setMuted(player, true);
            else if (step == QLatin1String("route"))
                rig.apps->setRoutes(player, {GroupTestRig::headphonesUID});
            else if (step == QLatin1String("unroute"))
                rig.apps->setRoutes(player, {});
            else if (step == QLatin1String("favourite"))
                rig.apps->setFavourite(player, true);
        }
        settle();

        const bool stored = rig.apps->prefs().contains(player);
        const RouteSession* session = rig.session();
        QString actual = stored ? QStringLiteral("record %1").arg(rig.apps->prefs()[player].volume)
                                : QStringLiteral("no record");
        actual += session ? QStringLiteral(", session %1%2")
                                .arg(session->gain().value.load())
                                .arg(session->gain().boost ? ", boosted" : "")
                          : QStringLiteral(", no session");
        QCOMPARE(actual, expected);
        const auto decoded = AppAudioPrefs::decodeAll(
            rig.defaults->dataForKey(SettingsKeys::appPrefs).value_or(QByteArray("{}")));
        QCOMPARE(decoded->contains(player), stored);
        QCOMPARE(rig.row(rig.apps->allApps(), player)->prefs, rig.apps->prefs().value(player));
        QCOMPARE(rig.hardware->processTaps().size(), std::size_t(session ? 1 : 0));
    }

    // A routed device that is gone is dropped; with none left the app plays normally.
    void goneRoutesAreDropped() {
        AppRig rig;
        rig.addApp(4242, player);
        rig.apps->setRoutes(player, {GroupTestRig::leftUID, GroupTestRig::rightUID});
        rig.hardware->removeDevice(rig.left);
        settle();
        rig.apps->reconcile(player);
        QCOMPARE(rig.destinations(), QStringList{GroupTestRig::rightUID});

        rig.hardware->removeDevice(rig.right);
        settle();
        rig.apps->reconcile(player);
        QVERIFY(!rig.session());
        QVERIFY(rig.apps->prefs().contains(player));
        QVERIFY(rig.hardware->processTaps().empty());
    }

    void followersMoveWithTheDefaultOutput() {
        AppRig rig;
        rig.addApp(4242, player);
        const QString routed = QStringLiteral("org.example.Routed");
        rig.addApp(4300, routed);
        rig.apps->setVolume(player, 0.5);
        rig.apps->setRoutes(routed, {GroupTestRig::leftUID});
        QCOMPARE(rig.destinations(), QStringList{GroupTestRig::speakersUID});
        const RouteSession* routedSession = rig.session(routed);

        rig.hardware->setDefaultOutputDevice(rig.headphones);
        settle();
        QCOMPARE(rig.destinations(), QStringList{GroupTestRig::headphonesUID});
        QCOMPARE(rig.session(routed), routedSession);

        // With a group on, they play to its members.
        const OutputGroup displays =
            makeGroup(QStringLiteral("Displays"), {GroupTestRig::leftUID, GroupTestRig::rightUID});
        rig.manager->setGroups({displays});
        QVERIFY(rig.manager->activate(displays));
        settle();
        QCOMPARE(rig.destinations(), (QStringList{GroupTestRig::leftUID, GroupTestRig::rightUID}));
    }

    // Helpers count as their responsible application; processes without a bundle identifier, and
    // Ondril itself, are not listed. A favourite is listed without a playing process.
    void attribution() {
        AppRig rig;
        rig.addApp(100, QStringLiteral("org.example.Browser"), QStringLiteral("Browser"), false);
        rig.addApp(101, std::nullopt, {}, true, 100); // a renderer with no identity of its own
        rig.addApp(200, std::nullopt, QStringLiteral("Launcher"), false);
        rig.addApp(201, QStringLiteral("org.example.Tool"), QStringLiteral("tool"), false, 200);
        rig.addApp(300, std::nullopt, QStringLiteral("nameless daemon"));
        rig.addApp(400, QStringLiteral("com.kestrivane.ondril"), QStringLiteral("Ondril"));
        rig.addApp(500, QStringLiteral("org.example.Alpha"), QStringLiteral("alpha"), false);
        const QString absent = QStringLiteral("org.example.Absent");
        const QString silent = QStringLiteral("org.example.Silent");
        rig.applications.addProcess(5000, {silent, QStringLiteral("Silent Editor"), 0});
        rig.apps->setFavourite(absent, true);
        rig.apps->setFavourite(silent, true);
        rig.apps->refresh();
        settle();

        QStringList order;
        for (const AppAudioState& row : rig.apps->allApps())
            order.append(row.bundleID);
        // Playing first, then by name without regard to case.
        QCOMPARE(order, (QStringList{"org.example.Browser", "org.example.Alpha", absent, silent,
                                     "org.example.Tool"}));
        const auto browser = rig.row(rig.apps->allApps(), QStringLiteral("org.example.Browser"));
        QVERIFY(browser->isPlaying);
        QCOMPARE(browser->pid, 100);
        QCOMPARE(rig.apps->apps().size(), 3);
        const auto absentRow = rig.row(rig.apps->apps(), absent);
        QVERIFY(absentRow);
        QCOMPARE(absentRow->name, absent);
        QCOMPARE(absentRow->pid, 0);
        QVERIFY(!absentRow->isPlaying);
        QCOMPARE(rig.row(rig.apps->apps(), silent)->name, QStringLiteral("Silent Editor"));
        QVERIFY(rig.hardware->processTaps().empty());
    }

    void playStateBurstCostsOneRefresh() {
        AppRig rig;
        const AudioObjectID object = rig.addApp(4242, player, QStringLiteral("Player"), false);
        rig.apps->setPanelOpen(true);
        rig.apps->refresh();
        settle();
        QVERIFY(rig.apps->apps().isEmpty());

        QSignalSpy published(rig.apps.get(), &AppAudioManager::allAppsChanged);
        rig.hardware->setProcessRunningOutput(object, true);
        rig.hardware->setProcessRunningOutput(object, false);
        rig.hardware->setProcessRunningOutput(object, true);
        QTRY_COMPARE(published.size(), 1);
        QTest::qWait(2 * AppAudioManager::refreshDelayMs);
        QCOMPARE(published.size(), 1);
        QCOMPARE(rig.apps->apps().size(), 1);

        // With the panel closed nothing listens for play state.
        rig.apps->removeOutputListeners();
        rig.hardware->setProcessRunningOutput(object, false);
        QTest::qWait(2 * AppAudioManager::refreshDelayMs);
        QCOMPARE(published.size(), 1);
    }

    void recordsSurviveARestart() {
        AppRig rig;
        rig.addApp(4242, player);
        rig.apps->setVolume(player, 0.25);
        rig.apps->setRoutes(player, {GroupTestRig::rightUID});
        rig.configs.reset();
        rig.apps.reset();
        QVERIFY(rig.hardware->processTaps().empty());

        // A stored table with stray fields and wrong types keeps what it can.
        const QByteArray stored = rig.defaults->dataForKey(SettingsKeys::appPrefs).value();
        QByteArray tampered = stored;
        tampered.replace("\"muted\":false", "\"muted\":\"no\"");
        QVERIFY(tampered != stored);
        rig.defaults->setData(tampered, SettingsKeys::appPrefs);
        rig.startUpper();
        QCOMPARE(rig.destinations(), QStringList{GroupTestRig::rightUID});
        QCOMPARE(rig.session()->gain().value.load(), 0.25f);
    }

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
        RouteSession session(hardware, player, {hardware.process}, destinations);
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
        RouteSession session(hardware, player, {hardware.process}, {QStringLiteral("speakers")});
        const QString message =
            QStringLiteral("%1 failed (%2) for %3").arg(failed).arg(status).arg(player);
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
        AppRig rig;
        AppSettings& settings = *rig.settings;
        SimulatedSoundLibrary library;
        const QString theme =
            QStringLiteral("/usr/share/sounds/freedesktop/stereo/audio-volume-change.oga");
        playSwitchSound(QStringLiteral("headphones"), settings, library); // no sound at all
        library.addSound(theme);
        playSwitchSound(std::nullopt, settings, library);
        library.addSound(QStringLiteral("Pop"));
        playSwitchSound(QStringLiteral("headphones"), settings, library);
        rig.defaults->setBool(false, SettingsKeys::switchSound);
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

QTEST_GUILESS_MAIN(AppAudioManagerTest)
#include "tst_appaudiomanager.moc"
