#include "platform/AudioBackend.h"
#include "platform/pulse/PulseConnection.h"

#include "ServerRig.h"

#include <QtTest>

// The libpulse realisation against a real private server, PulseAudio or PipeWire as
// ONDRIL_TEST_SERVER says: what the program reads and writes must be what pactl sees, server
// events must reach listeners, and real audio must go where the routing says.
namespace {

const AudioObjectPropertyAddress kDevices{kAudioHardwarePropertyDevices,
                                          kAudioObjectPropertyScopeGlobal, 0};
const AudioObjectPropertyAddress kDefaultOutput{kAudioHardwarePropertyDefaultOutputDevice,
                                                kAudioObjectPropertyScopeGlobal, 0};

AudioObjectPropertyAddress volumeAddress(AudioObjectPropertyElement element) {
    return {kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, element};
}

template <typename T>
std::optional<T> read(const AudioHardware& hardware, AudioObjectID objectID,
                      const AudioObjectPropertyAddress& address) {
    AudioPropertyValue value;
    if (hardware.AudioObjectGetPropertyData(objectID, address, value) != kAudioHardwareNoError ||
        !std::holds_alternative<T>(value))
        return std::nullopt;
    return std::get<T>(value);
}

QString uidOf(const AudioHardware& hardware, AudioObjectID objectID) {
    return read<QString>(hardware, objectID,
                         {kAudioDevicePropertyDeviceUID, kAudioObjectPropertyScopeGlobal, 0})
        .value_or(QString());
}

std::map<QString, AudioObjectID> devicesByUID(const AudioHardware& hardware) {
    std::map<QString, AudioObjectID> devices;
    for (AudioObjectID id :
         read<std::vector<AudioObjectID>>(hardware, kAudioObjectSystemObject, kDevices)
             .value_or(std::vector<AudioObjectID>{}))
        devices[uidOf(hardware, id)] = id;
    return devices;
}

QString groupUID() {
    return GroupManager::aggregateUID(QUuid::createUuid());
}

// What a group hands over, under `uid`.
QVariantMap aggregateDescription(const QString& uid, const QString& name,
                                 const QStringList& members, const QString& master) {
    QVariantMap description =
        GroupManager::aggregateDescription(name, members, master, QUuid::createUuid());
    description.insert(kAudioAggregateDeviceUIDKey, uid);
    return description;
}

} // namespace

class PulseAudioHardwareTest : public QObject {
    Q_OBJECT

private slots:
    void init() {
        m_rig = std::make_unique<ServerRig>();
        const QString error = m_rig->start(QStringLiteral("studio_left"));
        QVERIFY2(error.isEmpty(), qPrintable(error));
        m_server = m_rig->server.get();
        m_hardware = m_rig->hardware.get();
    }

    void cleanup() { m_rig.reset(); }

    void changeBehindOurBackReachesTheListener_data() {
        QTest::addColumn<QString>("device"); // empty: the system object
        QTest::addColumn<QStringList>("pactl");
        QTest::newRow("default output") << "" << QStringList{"set-default-sink", "builtin"};
        QTest::newRow("device volume")
            << "builtin" << QStringList{"set-sink-volume", "builtin", "45%"};
    }
    void changeBehindOurBackReachesTheListener() {
        QFETCH(QString, device);
        QFETCH(QStringList, pactl);
        const AudioObjectID object =
            device.isEmpty() ? kAudioObjectSystemObject : devicesByUID(*m_hardware).at(device);
        const auto& address = device.isEmpty() ? kDefaultOutput : volumeAddress(0);
        std::vector<AudioObjectPropertyAddress> heard;
        AudioObjectPropertyListenerToken token = 0;
        QCOMPARE(m_hardware->AudioObjectAddPropertyListenerBlock(
                     object, address, [&](const auto& addresses) { heard = addresses; }, token),
                 kAudioHardwareNoError);
        QVERIFY(m_server->pactl(pactl));
        QVERIFY(eventually([&] { return !heard.empty(); }));
        QCOMPARE(heard.front().mSelector, address.mSelector);
        // PipeWire passes through a placeholder default first; the real name follows.
        if (device.isEmpty())
            QTRY_COMPARE_WITH_TIMEOUT(
                read<std::uint32_t>(*m_hardware, kAudioObjectSystemObject, kDefaultOutput),
                devicesByUID(*m_hardware).at("builtin"), ServerRig::generousWaitMs);
    }

    // A write reads back at once and reaches the server; the whole device reads its loudest
    // channel, and there are as many channel elements as channels.
    void volumeElementsWriteChannels_data() {
        QTest::addColumn<quint32>("element");
        QTest::addColumn<float>("value");
        QTest::addColumn<std::vector<int>>("percents");
        QTest::addColumn<float>("whole");
        QTest::newRow("whole device") << 0u << 0.25f << std::vector<int>{25, 25} << 0.25f;
        QTest::newRow("first channel") << 1u << 0.4f << std::vector<int>{40, 100} << 1.0f;
        QTest::newRow("second channel") << 2u << 0.6f << std::vector<int>{100, 60} << 1.0f;
    }
    void volumeElementsWriteChannels() {
        QFETCH(quint32, element);
        QFETCH(float, value);
        QFETCH(std::vector<int>, percents);
        QFETCH(float, whole);
        const AudioObjectID id = devicesByUID(*m_hardware).at("studio_right");
        bool settable = false;
        QCOMPARE(m_hardware->AudioObjectIsPropertySettable(id, volumeAddress(element), settable),
                 kAudioHardwareNoError);
        QVERIFY(settable);
        QCOMPARE(m_hardware->AudioObjectSetPropertyData(id, volumeAddress(element), value),
                 kAudioHardwareNoError);
        const auto readBack = read<float>(*m_hardware, id, volumeAddress(element));
        QVERIFY(readBack);
        QVERIFY2(std::abs(*readBack - value) < 0.001f, qPrintable(QString::number(*readBack)));
        QCOMPARE(m_server->sinkVolumePercent("studio_right"), percents);
        QVERIFY(std::abs(read<float>(*m_hardware, id, volumeAddress(0)).value_or(0) - whole) <
                0.001f);
        QVERIFY(!m_hardware->AudioObjectHasProperty(id, volumeAddress(3)));
    }

    // An output's and an input's volume and mute, each in its own scope: pactl sees the writes.
    void volumeAndMuteWritesReachTheServer_data() {
        QTest::addColumn<bool>("input");
        QTest::newRow("output") << false;
        QTest::newRow("input") << true;
    }
    void volumeAndMuteWritesReachTheServer() {
        QFETCH(bool, input);
        const QString device = input ? PrivateSoundServer::defaultInput().name : "airpods";
        const QString kind = input ? "source" : "sink";
        const AudioObjectID id = devicesByUID(*m_hardware).at(device);
        const auto scope = input ? kAudioObjectPropertyScopeInput : kAudioObjectPropertyScopeOutput;
        const AudioObjectPropertyAddress volume{kAudioDevicePropertyVolumeScalar, scope, 0};
        const AudioObjectPropertyAddress mute{kAudioDevicePropertyMute, scope, 0};
        if (input)
            QVERIFY(!m_hardware->AudioObjectHasProperty(id, volumeAddress(0)));
        QCOMPARE(m_hardware->AudioObjectSetPropertyData(id, volume, 0.35f), kAudioHardwareNoError);
        const auto level = m_server->pactl({"get-" + kind + "-volume", device});
        QVERIFY2(level && level->contains("35%"), qPrintable(level.value_or(QString())));
        for (const std::uint32_t muted : {1u, 0u}) {
            QCOMPARE(m_hardware->AudioObjectSetPropertyData(id, mute, muted),
                     kAudioHardwareNoError);
            QCOMPARE(read<std::uint32_t>(*m_hardware, id, mute), muted);
            const auto serverSays = m_server->pactl({"get-" + kind + "-mute", device});
            QVERIFY(serverSays && serverSays->contains(muted ? "yes" : "no"));
        }
    }

    void playingStreamFollowsTheNewDefault_data() {
        QTest::addColumn<bool>("pinnedBefore");
        QTest::newRow("new stream") << false;
        // The user moved the application to studio_left in a mixer before: the server remembers
        // that (module-stream-restore, WirePlumber's restore-stream) and pins it there.
        QTest::newRow("stream the server remembers on a sink") << true;
    }
    void playingStreamFollowsTheNewDefault() {
        QFETCH(bool, pinnedBefore);
        QVERIFY(m_server->pactl({"set-default-sink", "airpods"}));
        if (pinnedBefore)
            pinApplication("ondril-follower", "studio_left");
        // Another application the user sent to the built-in speakers stays there.
        pinApplication("ondril-pinned-elsewhere", "builtin");
        const auto devices = devicesByUID(*m_hardware);
        QCOMPARE(m_hardware->AudioObjectSetPropertyData(kAudioObjectSystemObject, kDefaultOutput,
                                                        devices.at("studio_left")),
                 kAudioHardwareNoError);
        QVERIFY(eventually([&] { return m_server->defaultSinkName() == "studio_left"; }));
        auto tone = m_server->playTone({}, "ondril-follower");
        QVERIFY(tone);
        QVERIFY(
            eventually([&] { return m_server->sinkOfStream("ondril-follower") == "studio_left"; }));
        QCOMPARE(m_hardware->AudioObjectSetPropertyData(kAudioObjectSystemObject, kDefaultOutput,
                                                        devices.at("studio_right")),
                 kAudioHardwareNoError);
        QVERIFY2(
            eventually([&] { return m_server->sinkOfStream("ondril-follower") == "studio_right"; }),
            qPrintable(m_server->sinkOfStream("ondril-follower")));
        m_rig->verifyPlaying("studio_right");

        auto elsewhere = m_server->playTone({}, "ondril-pinned-elsewhere");
        QVERIFY(elsewhere);
        QVERIFY2(eventually(
                     [&] { return !m_server->sinkOfStream("ondril-pinned-elsewhere").isEmpty(); }),
                 "the pinned application did not start");
        QCOMPARE(m_server->sinkOfStream("ondril-pinned-elsewhere"), QString("builtin"));
        for (QProcess* player : {tone.get(), elsewhere.get()}) {
            player->kill();
            player->waitForFinished();
        }
    }

    // An aggregate's life: it makes way for a leftover of an earlier run under its UID, is seen at
    // once with its members (the master first) and name, and once destroyed while the default,
    // hands the default to its master. What it plays is heard on every member in the group server
    // test, and destroying and building again at once is a member coming back there.
    void aggregateReplacesItsLeftoverAndHandsTheDefaultToItsMaster() {
        const QString uid = groupUID();
        const QString name = QStringLiteral("Tom's Desk Speakers");
        AudioObjectID leftover = 0;
        QCOMPARE(m_hardware->AudioHardwareCreateAggregateDevice(
                     aggregateDescription(uid, "Old", {"airpods"}, "airpods"), leftover),
                 kAudioHardwareNoError);
        AudioObjectID aggregate = 0;
        QCOMPARE(
            m_hardware->AudioHardwareCreateAggregateDevice(
                aggregateDescription(uid, name, {"studio_left", "studio_right"}, "studio_right"),
                aggregate),
            kAudioHardwareNoError);
        QCOMPARE(m_server->sinkNames().count(uid), 1);
        m_rig->verifySlaves(uid, {"studio_right", "studio_left"});
        // Seen at once, without waiting for an event.
        QCOMPARE(uidOf(*m_hardware, aggregate), uid);
        QCOMPARE(read<std::uint32_t>(
                     *m_hardware, aggregate,
                     {kAudioDevicePropertyTransportType, kAudioObjectPropertyScopeGlobal, 0}),
                 std::optional<std::uint32_t>(kAudioDeviceTransportTypeAggregate));
        // PipeWire cannot take an ASCII apostrophe in a quoted module argument: it gets the
        // typographic one. Blanks survive on both.
        QString expected = name;
        if (m_server->kind() == PrivateSoundServer::Kind::PipeWire)
            expected.replace('\'', QChar(0x2019));
        QCOMPARE(read<QString>(*m_hardware, aggregate,
                               {kAudioObjectPropertyName, kAudioObjectPropertyScopeGlobal, 0}),
                 std::optional<QString>(expected));

        QCOMPARE(m_hardware->AudioObjectSetPropertyData(kAudioObjectSystemObject, kDefaultOutput,
                                                        aggregate),
                 kAudioHardwareNoError);
        QCOMPARE(m_hardware->AudioHardwareDestroyAggregateDevice(aggregate), kAudioHardwareNoError);
        QVERIFY(devicesByUID(*m_hardware).count(uid) == 0);
        QVERIFY2(eventually([&] { return m_server->defaultSinkName() == "studio_right"; }),
                 qPrintable(m_server->defaultSinkName()));
        QVERIFY(eventually([&] { return !m_server->sinkNames().contains(uid); }));
    }

    void writesToAStalledServerEndWithinTheBound() {
        AudioDeviceManager& manager = m_rig->devices();
        const auto devices = devicesByUID(*m_hardware);
        m_server->pause();
        // A group volume on three members, then a device's own volume and the default output:
        // one timeout in all, then the server counts as stalled and every write fails at once.
        QElapsedTimer elapsed;
        elapsed.start();
        int failures = 0;
        for (const char* member : {"studio_left", "studio_right", "airpods", "builtin"})
            failures += manager.setVolume(0.2f, devices.at(member)) ? 0 : 1;
        failures +=
            m_hardware->AudioObjectSetPropertyData(kAudioObjectSystemObject, kDefaultOutput,
                                                   devices.at("airpods")) != kAudioHardwareNoError;
        const qint64 blockedMs = elapsed.elapsed();
        m_server->resume();
        QCOMPARE(failures, 5);
        QVERIFY2(blockedMs < PulseConnection::kOperationTimeoutMs + 500,
                 qPrintable(QString::number(blockedMs)));
        // The connection outlives the stall, and writes reach the server again once it answers.
        const AudioObjectID studio = devices.at("studio_left");
        QTRY_COMPARE_WITH_TIMEOUT(
            m_hardware->AudioObjectSetPropertyData(studio, volumeAddress(0), 0.3f),
            kAudioHardwareNoError, ServerRig::generousWaitMs);
        QCOMPARE(m_server->sinkVolumePercent("studio_left"), (std::vector<int>{30, 30}));
    }

    void aggregateLoadedAfterItsTimeoutIsUnloaded() {
        const QString uid = groupUID();
        auto events = m_server->subscribe();
        m_server->pause();
        AudioObjectID aggregate = 0;
        QCOMPARE(m_hardware->AudioHardwareCreateAggregateDevice(
                     aggregateDescription(uid, "Late", {"studio_left"}, "studio_left"), aggregate),
                 kAudioHardwareNotRunningError);
        m_server->resume();
        // The server carries the load out once it runs again; nobody wants that sink any more.
        QString seen;
        QVERIFY2(eventually([&] {
                     seen += QString::fromUtf8(events->readAllStandardOutput());
                     return seen.contains("Event 'new' on sink #") &&
                            seen.contains("Event 'remove' on sink #");
                 }),
                 qPrintable(seen));
        QVERIFY(!m_server->sinkNames().contains(uid));
    }

    void aggregateOperationsOnForeignSinksAreRefused_data() {
        QTest::addColumn<QString>("uid"); // empty: destroy the plain sink studio_left instead
        QTest::addColumn<QStringList>("members");
        QTest::newRow("create named like a plain sink") << "builtin" << QStringList{"studio_left"};
        QTest::newRow("create with a missing member")
            << groupUID() << QStringList{"studio_left", "nonexistent"};
        QTest::newRow("destroy a plain sink") << "" << QStringList();
    }
    void aggregateOperationsOnForeignSinksAreRefused() {
        QFETCH(QString, uid);
        QFETCH(QStringList, members);
        const QStringList before = m_server->sinkNames();
        AudioObjectID aggregate = 0;
        const OSStatus status =
            uid.isEmpty()
                ? m_hardware->AudioHardwareDestroyAggregateDevice(
                      devicesByUID(*m_hardware).at("studio_left"))
                : m_hardware->AudioHardwareCreateAggregateDevice(
                      aggregateDescription(uid, "Foreign", members, "studio_left"), aggregate);
        QVERIFY(status != kAudioHardwareNoError);
        QCOMPARE(aggregate, 0u);
        QCOMPARE(m_server->sinkNames(), before);
    }

    void automaticBackendWaitsForAServerThatMayStillStart_data() {
        QTest::addColumn<bool>("installed");
        QTest::newRow("server installed, starting late") << true;
        QTest::newRow("no server installed, no socket") << false;
    }
    void automaticBackendWaitsForAServerThatMayStillStart() {
        QFETCH(bool, installed);
        const QString expected = PrivateSoundServer::kindName(m_server->kind());
        QCOMPARE(m_hardware->backendName(), expected);
        m_rig->hardware.reset();
        m_server->stop();
        const QByteArray path = qgetenv("PATH");
        if (!installed)
            qputenv("PATH", "/nonexistent");
        auto automatic = AudioBackend::make(AudioBackend::Choice::automatic);
        auto pulse = AudioBackend::make(AudioBackend::Choice::pulse);
        qputenv("PATH", path);
        QVERIFY(automatic.hardware);
        QVERIFY(!pulse.hardware);
        QVERIFY(!pulse.error.isEmpty());
        if (!installed) {
            QCOMPARE(automatic.hardware->backendName(), QString("simulated"));
            QVERIFY(!automatic.notice.isEmpty());
            return;
        }
        QVERIFY(automatic.notice.isEmpty());
        AudioDeviceManager manager(*automatic.hardware);
        QVERIFY(manager.outputDevices().isEmpty());
        QVERIFY2(m_server->start(), qPrintable(m_server->error()));
        QVERIFY(eventually([&] { return manager.outputDevices().size() >= 4; }));
        QCOMPARE(automatic.hardware->backendName(), expected);
    }

private:
    // Plays `application` to the default and moves it to `sink`, as a user does in a mixer: the
    // server remembers that sink for the application.
    void pinApplication(const QString& application, const QString& sink) {
        auto tone = m_server->playTone({}, application);
        QVERIFY(tone);
        // PipeWire shows a stream before it is placed; move it only once it plays somewhere.
        QVERIFY(eventually([&] { return !m_server->sinkOfStream(application).isEmpty(); }));
        const auto stream = m_server->streamIndex(application);
        QVERIFY(stream);
        // WirePlumber 0.4 may still link the new stream by its own policy after a move made this
        // early, and the stream lands on the default: move it again, as a user would.
        bool moved = false;
        for (int attempt = 0; attempt < 5 && !moved; ++attempt) {
            QVERIFY(m_server->pactl({"move-sink-input", QString::number(*stream), sink}));
            moved = QTest::qWaitFor([&] { return m_server->sinkOfStream(application) == sink; },
                                    ServerRig::generousWaitMs / 5);
        }
        QVERIFY2(moved, qPrintable(m_server->sinkOfStream(application)));
        tone->kill();
        tone->waitForFinished();
        QVERIFY(eventually([&] { return m_server->sinkOfStream(application).isEmpty(); }));
    }

    std::unique_ptr<ServerRig> m_rig;
    PrivateSoundServer* m_server = nullptr;
    PulseAudioHardware* m_hardware = nullptr;
};

QTEST_GUILESS_MAIN(PulseAudioHardwareTest)
#include "tst_pulseaudiohardware_server.moc"
