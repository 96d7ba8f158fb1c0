#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "groups/OutputGroupCodec.h"
#include "platform/SystemSleepMonitor.h"
#include "platform/UserDefaults.h"
#include "platform/pulse/PulseAudioHardware.h"

#include "PrivateSoundServer.h"

#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <cmath>

// Output groups on a real private sound server (PulseAudio or PipeWire, as ONDRIL_TEST_SERVER
// says), through GroupManager, AudioDeviceManager and the libpulse realisation: what pactl sees
// and what the members' monitors carry must be what the group says.
namespace {

constexpr int kGenerousWaitMs = 15000;
// Monitors carry what the sink plays after its volume (cubic): groups that are listened to play
// at 0.65 or more, which leaves a half-scale tone well above this.
constexpr double kPlayingLevel = 0.05;
constexpr double kSilentLevel = 0.01;

const QString kLeft = QStringLiteral("studio_left");
const QString kRight = QStringLiteral("studio_right");
const QString kAirPods = QStringLiteral("airpods");
const QString kBuiltin = QStringLiteral("builtin"); // never a member; the output before the group
const QString kToneApplication = QStringLiteral("ondril-group-tone");

// Percent that pactl prints for a scalar, within one step either way of PulseAudio's rounding.
bool percentMatches(const std::vector<int>& percents, double scalar) {
    if (percents.empty())
        return false;
    const int expected = int(std::lround(scalar * 100));
    return std::all_of(percents.begin(), percents.end(),
                       [&](int percent) { return std::abs(percent - expected) <= 1; });
}

QString percentText(const std::vector<int>& percents) {
    QStringList parts;
    for (int percent : percents)
        parts.append(QString::number(percent));
    return parts.join(u'/');
}

} // namespace

class GroupManagerServerTest : public QObject {
    Q_OBJECT

private slots:
    void init() {
        QString error;
        m_server = PrivateSoundServer::startFromEnvironment(error);
        if (!m_server)
            QFAIL(qPrintable(error));
        QVERIFY(m_server->pactl({"set-default-sink", kBuiltin}));
        m_hardware = PulseAudioHardware::connect(5000);
        QVERIFY2(m_hardware, "no connection to the private server");
        // Fresh settings each time: a stored active group would be restored at the next launch.
        m_directory = std::make_unique<QTemporaryDir>();
        QVERIFY(m_directory->isValid());
        m_defaults = std::make_unique<UserDefaults>(m_directory->filePath("defaults.json"));
        m_settings = std::make_unique<AppSettings>(*m_defaults, m_center);
        m_audio = std::make_unique<AudioDeviceManager>(*m_hardware);
        QVERIFY(QTest::qWaitFor(
            [&] {
                return m_audio->outputDevices().size() >= 4 &&
                       m_audio->deviceIDForOutputUID(kBuiltin) &&
                       m_audio->readDefaultOutputID() == *m_audio->deviceIDForOutputUID(kBuiltin);
            },
            kGenerousWaitMs));
    }

    void cleanup() {
        if (m_tone) {
            m_tone->kill();
            m_tone->waitForFinished();
        }
        m_tone.reset();
        m_manager.reset();
        m_audio.reset();
        m_hardware.reset();
        m_server.reset();
        m_settings.reset();
        m_defaults.reset();
        m_directory.reset();
    }

    void activeGroupIsTheDefaultAndPlaysToEveryMemberOnly() {
        GroupManager& manager = launch();
        const OutputGroup group = makeGroup({kLeft, kRight, kAirPods});
        manager.setGroups({group});
        QVERIFY(manager.activate(group));
        const QString aggregate = GroupManager::aggregateUID(group.id);
        QVERIFY(QTest::qWaitFor([&] { return m_server->defaultSinkName() == aggregate; },
                                kGenerousWaitMs));
        QCOMPARE(manager.previousOutputUID(), std::optional<QString>(kBuiltin));

        playToneToDefault(aggregate);
        for (const QString& member : {kLeft, kRight, kAirPods})
            verifyPlaying(member);
        verifySilent(kBuiltin);
    }

    void memberVolumesAreMasterTimesBalance_data() {
        QTest::addColumn<QString>("change");
        QTest::addColumn<double>("left");
        QTest::addColumn<double>("right");
        QTest::addColumn<double>("airpods");
        // Stored: master 0.5, left 0.4, airpods 0.8, right without an entry.
        QTest::newRow("on activation") << "none" << 0.2 << 0.5 << 0.4;
        QTest::newRow("master moved while on") << "master 0.9" << 0.36 << 0.9 << 0.72;
        QTest::newRow("balance moved while on") << "right 0.3" << 0.2 << 0.15 << 0.4;
        QTest::newRow("muted") << "mute" << 0.0 << 0.0 << 0.0;
        QTest::newRow("step out of mute") << "mute, step" << 0.24 << 0.6 << 0.48;
    }
    void memberVolumesAreMasterTimesBalance() {
        QFETCH(QString, change);
        QFETCH(double, left);
        QFETCH(double, right);
        QFETCH(double, airpods);
        GroupManager& manager = launch();
        OutputGroup group = makeGroup({kLeft, kRight, kAirPods}, 0.5);
        group.balance = {{kLeft, 0.4}, {kAirPods, 0.8}};
        manager.setGroups({group});
        manager.saveGroups();
        QVERIFY(manager.activate(group));

        if (change == "master 0.9")
            manager.setMasterVolume(group, 0.9);
        else if (change == "right 0.3")
            manager.setBalance(group, kRight, 0.3);
        else if (change == "mute")
            manager.toggleGroupMute();
        else if (change == "mute, step") {
            manager.toggleGroupMute();
            manager.stepVolume(0.1);
        }

        verifyVolume(kLeft, left);
        verifyVolume(kRight, right);
        verifyVolume(kAirPods, airpods);
        QCOMPARE(m_server->sinkVolumePercent(kBuiltin), (std::vector<int>{100, 100}));
    }

    void vanishedMemberDropsOutAndComesBackByName() {
        GroupManager& manager = launch();
        OutputGroup group = makeGroup({kLeft, kRight, kAirPods}, 0.9);
        group.balance = {{kRight, 0.8}};
        manager.setGroups({group});
        QVERIFY(manager.activate(group));
        const QString aggregate = GroupManager::aggregateUID(group.id);
        playToneToDefault(aggregate);

        const auto module = m_server->owningModule(kRight);
        QVERIFY(module);
        auto events = m_server->subscribe();
        QVERIFY(m_server->pactl({"unload-module", QString::number(module->first)}));
        QVERIFY2(QTest::qWaitFor(
                     [&] {
                         return manager.activeMemberUIDs() == QStringList{kLeft, kAirPods} &&
                                m_server->defaultSinkName() == aggregate &&
                                m_server->sinkOfStream(kToneApplication) == aggregate;
                     },
                     kGenerousWaitMs),
                 qPrintable(manager.activeMemberUIDs().join(u',')));
        QCOMPARE(manager.activeGroupID(), std::optional<QUuid>(group.id));
        verifySlaves(aggregate, {kLeft, kAirPods});
        verifyPlaying(kLeft);
        verifyPlaying(kAirPods);
        // The server drops the member from the combined sink by itself; ours is rebuilt once, not
        // again when the published lists catch up.
        QCOMPARE(PrivateSoundServer::sinkEvents(*events), (std::pair<int, int>{1, 2}));

        events = m_server->subscribe();
        // Back under the same name: a fresh null sink at full volume, taken in and given its
        // share again.
        QVERIFY(m_server->loadNullSink(kRight, "Studio Display Right"));
        QVERIFY(QTest::qWaitFor(
            [&] {
                return manager.activeMemberUIDs() == QStringList{kLeft, kRight, kAirPods} &&
                       m_server->defaultSinkName() == aggregate;
            },
            kGenerousWaitMs));
        verifySlaves(aggregate, {kLeft, kRight, kAirPods});
        verifyVolume(kRight, 0.72);
        verifyPlaying(kRight);
        verifyPlaying(kLeft);
        verifySilent(kBuiltin);
        // One rebuild settles it: neither the server's own re-adding nor ours moves it again.
        const auto settled = m_server->owningModule(aggregate);
        QVERIFY(settled);
        QTest::qWait(1000);
        QCOMPARE(m_server->owningModule(aggregate), settled);
        QCOMPARE(m_server->defaultSinkName(), aggregate);
        // The server takes the member back into the old combined sink by itself; the rebuild
        // replaces that sink once: new member and new combined sink, old combined sink gone.
        QCOMPARE(PrivateSoundServer::sinkEvents(*events), (std::pair<int, int>{2, 1}));
    }

    void lastMemberGoneEndsTheGroupAndGivesThePreviousOutputBack() {
        GroupManager& manager = launch();
        const OutputGroup group = makeGroup({kLeft, kAirPods});
        manager.setGroups({group});
        QVERIFY(manager.activate(group));
        const QString aggregate = GroupManager::aggregateUID(group.id);
        QVERIFY(QTest::qWaitFor([&] { return m_server->defaultSinkName() == aggregate; },
                                kGenerousWaitMs));

        for (const QString& member : {kAirPods, kLeft}) {
            const auto module = m_server->owningModule(member);
            QVERIFY(module);
            QVERIFY(m_server->pactl({"unload-module", QString::number(module->first)}));
        }
        QVERIFY2(
            QTest::qWaitFor([&] { return !manager.activeGroupID().has_value(); }, kGenerousWaitMs),
            qPrintable(manager.activeMemberUIDs().join(u',') + " | " +
                       m_server->sinkNames().join(u',') + " | " + outputUIDs()));
        QVERIFY(QTest::qWaitFor([&] { return m_server->defaultSinkName() == kBuiltin; },
                                kGenerousWaitMs));
        QVERIFY(!m_server->sinkNames().contains(aggregate));
        QVERIFY(!manager.activeDeviceID().has_value());
        // The group does not come back with its devices by itself.
        QVERIFY(m_server->loadNullSink(kLeft, "Studio Display Left"));
        QVERIFY(QTest::qWaitFor([&] { return m_audio->deviceIDForOutputUID(kLeft).has_value(); },
                                kGenerousWaitMs));
        QTest::qWait(500);
        QVERIFY(!manager.activeGroupID().has_value());
        QCOMPARE(m_server->defaultSinkName(), kBuiltin);
    }

    void deactivateGivesThePreviousOutputBack_data() {
        QTest::addColumn<bool>("throughAnotherGroup");
        QTest::newRow("one group") << false;
        // From group to group: the output before the first one comes back.
        QTest::newRow("second group after the first") << true;
    }
    void deactivateGivesThePreviousOutputBack() {
        QFETCH(bool, throughAnotherGroup);
        GroupManager& manager = launch();
        const OutputGroup first = makeGroup({kLeft, kRight});
        const OutputGroup second = makeGroup({kAirPods, kRight});
        manager.setGroups({first, second});
        QVERIFY(manager.activate(first));
        if (throughAnotherGroup) {
            QVERIFY(manager.activate(second));
            QVERIFY(!m_server->sinkNames().contains(GroupManager::aggregateUID(first.id)));
        }
        const QString aggregate =
            GroupManager::aggregateUID(throughAnotherGroup ? second.id : first.id);
        QVERIFY(QTest::qWaitFor([&] { return m_server->defaultSinkName() == aggregate; },
                                kGenerousWaitMs));
        playToneToDefault(aggregate);

        manager.deactivate();
        QVERIFY(QTest::qWaitFor([&] { return m_server->defaultSinkName() == kBuiltin; },
                                kGenerousWaitMs));
        QVERIFY(!m_server->sinkNames().contains(aggregate));
        QVERIFY(QTest::qWaitFor(
            [&] { return m_server->sinkOfStream(kToneApplication) == kBuiltin; }, kGenerousWaitMs));
        verifyPlaying(kBuiltin);
        verifySilent(kRight);
    }

    void restartedServerGetsTheGroupBackWithItsVolumes() {
        GroupManager& manager = launch();
        OutputGroup group = makeGroup({kLeft, kRight}, 0.9);
        group.balance = {{kRight, 0.8}};
        manager.setGroups({group});
        QVERIFY(manager.activate(group));
        const QString aggregate = GroupManager::aggregateUID(group.id);
        QVERIFY(QTest::qWaitFor([&] { return m_server->defaultSinkName() == aggregate; },
                                kGenerousWaitMs));

        m_server->stop();
        QVERIFY2(m_server->start(), qPrintable(m_server->error()));
        // The fresh server knows nothing of the group: its sinks are new, at full volume.
        QVERIFY2(QTest::qWaitFor(
                     [&] {
                         return m_server->defaultSinkName() == aggregate &&
                                m_audio->readDefaultOutputID() == manager.activeDeviceID() &&
                                manager.activeMemberUIDs() == QStringList{kLeft, kRight};
                     },
                     kGenerousWaitMs),
                 qPrintable(m_server->defaultSinkName()));
        QCOMPARE(manager.activeGroupID(), std::optional<QUuid>(group.id));
        verifySlaves(aggregate, {kLeft, kRight});
        verifyVolume(kLeft, 0.9);
        verifyVolume(kRight, 0.72);
        playToneToDefault(aggregate);
        verifyPlaying(kLeft);
        verifyPlaying(kRight);
    }

    void serverStalledDuringARebuildKeepsTheGroup() {
        GroupManager& manager = launch();
        const OutputGroup group = makeGroup({kLeft, kRight, kAirPods});
        manager.setGroups({group});
        manager.saveGroups();
        QVERIFY(manager.activate(group));
        const QString aggregate = GroupManager::aggregateUID(group.id);
        QVERIFY(QTest::qWaitFor([&] { return m_server->defaultSinkName() == aggregate; },
                                kGenerousWaitMs));

        // The worst moment: the program's first reaction to the member's removal, the published
        // device list, one turn before the group's rebuild. The server stops for a few seconds.
        bool stalled = false;
        connect(m_audio.get(), &AudioDeviceManager::outputDevicesChanged, this, [&] {
            if (stalled || m_audio->deviceIDForOutputUID(kRight))
                return;
            stalled = true;
            m_server->pause();
            QTimer::singleShot(4000, this, [&] { m_server->resume(); });
        });
        const auto module = m_server->owningModule(kRight);
        QVERIFY(module);
        QVERIFY(m_server->pactl({"unload-module", QString::number(module->first)}));
        QVERIFY(QTest::qWaitFor([&] { return stalled; }, kGenerousWaitMs));

        // A stall is no choice of the user's: the group stays on and stored, and comes back with
        // the members that are left once the server answers, without leftovers.
        QVERIFY2(QTest::qWaitFor(
                     [&] {
                         return manager.activeMemberUIDs() == QStringList{kLeft, kAirPods} &&
                                m_server->defaultSinkName() == aggregate;
                     },
                     kGenerousWaitMs),
                 qPrintable(manager.activeMemberUIDs().join(u',') + " | " +
                            m_server->sinkNames().join(u',')));
        QCOMPARE(manager.activeGroupID(), std::optional<QUuid>(group.id));
        QCOMPARE(m_defaults->stringForKey(SettingsKeys::activeGroup),
                 std::optional<QString>(OutputGroupCodec::uuidText(group.id)));
        verifySlaves(aggregate, {kLeft, kAirPods});
        QTest::qWait(500);
        QCOMPARE(m_server->sinkNames().filter(GroupManager::groupUIDPrefix),
                 QStringList{aggregate});
    }

    void leftoverGroupSinkIsRemovedAtCreationUnlessItsOwnerRuns_data() {
        QTest::addColumn<QString>("owner");
        QTest::addColumn<bool>("removed");
        QTest::newRow("no owner recorded") << "none" << true;
        QTest::newRow("owner gone") << "gone" << true;
        // Two copies started at once: the second leaves the first one's live sink alone.
        QTest::newRow("owner still running") << "running" << false;
    }
    void leftoverGroupSinkIsRemovedAtCreationUnlessItsOwnerRuns() {
        QFETCH(QString, owner);
        QFETCH(bool, removed);
        QProcess ownerProcess;
        ownerProcess.start("sleep", {"60"});
        QVERIFY(ownerProcess.waitForStarted());
        const qint64 ownerPid = ownerProcess.processId();
        if (owner == "gone") {
            ownerProcess.kill();
            ownerProcess.waitForFinished();
        }
        const QString orphan =
            GroupManager::aggregateUID(QUuid::fromString("0E0C1F1A-58B4-4C35-9A57-1D5A3E0F7C11"));
        QStringList arguments{"load-module", "module-combine-sink", "sink_name=" + orphan,
                              "slaves=studio_left,studio_right"};
        if (owner != "none")
            arguments.append(QString("sink_properties=ondril.owner.pid=%1").arg(ownerPid));
        QVERIFY(m_server->pactl(arguments));
        // A combined sink of somebody else's is none of ours.
        QVERIFY(m_server->pactl(
            {"load-module", "module-combine-sink", "sink_name=party_combined", "slaves=airpods"}));
        QVERIFY(QTest::qWaitFor(
            [&] {
                return m_audio->deviceIDForOutputUID(orphan) &&
                       m_audio->deviceIDForOutputUID("party_combined");
            },
            kGenerousWaitMs));

        launch();
        QVERIFY(QTest::qWaitFor([&] { return m_server->sinkNames().contains(orphan) != removed; },
                                kGenerousWaitMs));
        QTest::qWait(300);
        QCOMPARE(m_server->sinkNames().contains(orphan), !removed);
        QVERIFY(m_server->sinkNames().contains("party_combined"));
        ownerProcess.kill();
        ownerProcess.waitForFinished();
    }

private:
    GroupManager& launch() {
        m_manager = std::make_unique<GroupManager>(*m_audio, *m_settings, m_sleepMonitor);
        QTest::qWait(50); // the queued restore and the first publication
        return *m_manager;
    }

    QString outputUIDs() const {
        QStringList uids;
        for (const AudioDevice& device : m_audio->outputDevices())
            uids.append(device.uid);
        return uids.join(u',');
    }

    static OutputGroup makeGroup(const QStringList& members, double masterVolume = 0.65) {
        OutputGroup group;
        group.id = QUuid::createUuid();
        group.name = QStringLiteral("Studio Group");
        group.memberUIDs = members;
        group.masterUID = members.first();
        group.masterVolume = masterVolume;
        return group;
    }

    void playToneToDefault(const QString& expectedSink) {
        m_tone = m_server->playTone({}, kToneApplication);
        QVERIFY(m_tone);
        QVERIFY2(QTest::qWaitFor(
                     [&] { return m_server->sinkOfStream(kToneApplication) == expectedSink; },
                     kGenerousWaitMs),
                 qPrintable(m_server->sinkOfStream(kToneApplication)));
    }

    void verifyPlaying(const QString& sink) {
        const auto level = m_server->recordLevel(sink);
        QVERIFY2(level, qPrintable(sink));
        QVERIFY2(*level > kPlayingLevel, qPrintable(sink + ": " + QString::number(*level)));
    }

    void verifySilent(const QString& sink) {
        const auto level = m_server->recordLevel(sink);
        QVERIFY2(level, qPrintable(sink));
        QVERIFY2(*level < kSilentLevel, qPrintable(sink + ": " + QString::number(*level)));
    }

    void verifyVolume(const QString& sink, double scalar) {
        QVERIFY2(QTest::qWaitFor(
                     [&] { return percentMatches(m_server->sinkVolumePercent(sink), scalar); },
                     kGenerousWaitMs),
                 qPrintable(QStringLiteral("%1: %2%, expected %3")
                                .arg(sink, percentText(m_server->sinkVolumePercent(sink)))
                                .arg(scalar * 100)));
    }

    void verifySlaves(const QString& aggregate, const QStringList& members) {
        const auto module = m_server->owningModule(aggregate);
        QVERIFY(module);
        QVERIFY2(module->second.contains("slaves=" + members.join(u',')),
                 qPrintable(module->second));
    }

    std::unique_ptr<QTemporaryDir> m_directory;
    NotificationCenter m_center;
    SystemSleepMonitor m_sleepMonitor;
    std::unique_ptr<PrivateSoundServer> m_server;
    std::unique_ptr<PulseAudioHardware> m_hardware;
    std::unique_ptr<UserDefaults> m_defaults;
    std::unique_ptr<AppSettings> m_settings;
    std::unique_ptr<AudioDeviceManager> m_audio;
    std::unique_ptr<GroupManager> m_manager;
    std::unique_ptr<QProcess> m_tone;
};

QTEST_GUILESS_MAIN(GroupManagerServerTest)
#include "tst_groupmanager_server.moc"
