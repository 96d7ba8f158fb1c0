#include "groups/OutputGroupCodec.h"

#include "ServerRig.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QTimer>
#include <QtTest>

// Output groups and auto-switch rules on a real private sound server (ONDRIL_TEST_SERVER says
// which): what pactl sees and the members' monitors carry must be what the group says. Both
// servers have a default policy of their own (a fallback when the default sink goes, the
// configured default taken back when it returns); a rule's result must stand beside it.
namespace {

const QString kLeft = QStringLiteral("studio_left");
const QString kRight = QStringLiteral("studio_right");
const QString kAirPods = QStringLiteral("airpods");
const QString kBuiltin = QStringLiteral("builtin"); // never a member; the output before the group
const QString kHeadsetMic = QStringLiteral("headset_mic");
constexpr int kSettleMs = 700; // long enough for a server's own policy to have acted

} // namespace

class GroupManagerServerTest : public QObject {
    Q_OBJECT

    std::unique_ptr<ServerRig> m_rig;

    // Launches, activates `group` and waits until its combined sink is the server's default.
    QString activate(const OutputGroup& group) {
        GroupManager& manager = m_rig->launch();
        manager.setGroups({group});
        manager.saveGroups();
        if (!manager.activate(group))
            return {};
        const QString aggregate = GroupManager::aggregateUID(group.id);
        if (!eventually([&] { return m_rig->server->defaultSinkName() == aggregate; }))
            return {};
        return aggregate;
    }

    bool waitForDefault(const QString& sink) {
        return eventually([&] { return m_rig->server->defaultSinkName() == sink; });
    }

    // Settles, then checks the server's default has stayed `sink`.
    void verifyDefaultStays(const QString& sink) {
        QVERIFY2(waitForDefault(sink), qPrintable(m_rig->server->defaultSinkName()));
        QTest::qWait(kSettleMs);
        QCOMPARE(m_rig->server->defaultSinkName(), sink);
    }

    // Successive distinct names of one default, as the program hears them.
    AudioObjectPropertyListenerToken follow(AudioObjectPropertySelector selector,
                                            QStringList& names) {
        AudioObjectPropertyListenerToken token = 0;
        AudioDeviceManager& audio = *m_rig->audio;
        m_rig->hardware->AudioObjectAddPropertyListenerBlock(
            kAudioObjectSystemObject, {selector, kAudioObjectPropertyScopeGlobal, 0},
            [&audio, &names, selector](const auto&) {
                const QString name =
                    audio
                        .readUID(selector == kAudioHardwarePropertyDefaultOutputDevice
                                     ? audio.readDefaultOutputID()
                                     : audio.readDefaultInputID())
                        .value_or(QString());
                if (!name.isEmpty() && (names.isEmpty() || names.last() != name))
                    names.append(name);
            },
            token);
        return token;
    }

    // Both switches on and launched, the AirPods not there yet: the rules wait for them.
    bool launchWaitingForTheAirPods() {
        if (!m_rig->unplug(kAirPods))
            return false;
        m_rig->defaults->setBool(true, SettingsKeys::autoSwitchGroups);
        m_rig->defaults->setBool(true, SettingsKeys::autoSwitchInputs);
        m_rig->launch();
        return eventually(
            [&] { return !m_rig->audio->deviceIDForOutputUID(kAirPods).has_value(); });
    }

private slots:
    void init() {
        m_rig = std::make_unique<ServerRig>();
        const QString error = m_rig->start();
        QVERIFY2(error.isEmpty(), qPrintable(error));
    }
    void cleanup() { m_rig.reset(); }

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
        OutputGroup group = makeGroup("Studio", {kLeft, kRight, kAirPods}, {}, 0.5);
        group.balance = {{kLeft, 0.4}, {kAirPods, 0.8}};
        const QString aggregate = activate(group);
        QVERIFY(!aggregate.isEmpty());
        GroupManager& manager = *m_rig->manager;
        if (change == "master 0.9")
            manager.setMasterVolume(group, 0.9);
        else if (change == "right 0.3")
            manager.setBalance(group, kRight, 0.3);
        else if (change.startsWith("mute"))
            manager.toggleGroupMute();
        if (change == "mute, step")
            manager.stepVolume(0.1);

        m_rig->verifyVolume(kLeft, left);
        m_rig->verifyVolume(kRight, right);
        m_rig->verifyVolume(kAirPods, airpods);
        m_rig->verifyVolume(kBuiltin, 1.0);
    }

    void vanishedMemberDropsOutAndComesBackByName() {
        OutputGroup group = makeGroup("Studio", {kLeft, kRight, kAirPods}, {}, 0.9);
        group.balance = {{kRight, 0.8}};
        const QString aggregate = activate(group);
        QVERIFY(!aggregate.isEmpty());
        GroupManager& manager = *m_rig->manager;
        m_rig->playToneToDefault(aggregate);

        auto events = m_rig->server->subscribe();
        QVERIFY(m_rig->unplug(kRight));
        QVERIFY2(eventually([&] {
                     return manager.activeMemberUIDs() == QStringList{kLeft, kAirPods} &&
                            m_rig->server->defaultSinkName() == aggregate &&
                            m_rig->server->sinkOfStream("ondril-tone") == aggregate;
                 }),
                 qPrintable(manager.activeMemberUIDs().join(u',')));
        QCOMPARE(manager.activeGroupID(), std::optional<QUuid>(group.id));
        m_rig->verifySlaves(aggregate, {kLeft, kAirPods});
        m_rig->verifyPlaying(kLeft);
        m_rig->verifyPlaying(kAirPods);
        // The server drops the member from the combined sink by itself; ours is rebuilt once, not
        // again when the published lists catch up.
        QCOMPARE(PrivateSoundServer::sinkEvents(*events), (std::pair<int, int>{1, 2}));

        events = m_rig->server->subscribe();
        // Back under the same name: a fresh null sink at full volume, taken in and given its
        // share again.
        QVERIFY(m_rig->server->loadNullSink(kRight, "Studio Display Right"));
        QVERIFY(eventually([&] {
            return manager.activeMemberUIDs() == QStringList{kLeft, kRight, kAirPods} &&
                   m_rig->server->defaultSinkName() == aggregate;
        }));
        m_rig->verifySlaves(aggregate, {kLeft, kRight, kAirPods});
        m_rig->verifyVolume(kRight, 0.72);
        m_rig->verifyPlaying(kRight);
        m_rig->verifySilent(kBuiltin);
        // One rebuild settles it: neither the server's own re-adding nor ours moves it again.
        const auto settled = m_rig->server->owningModule(aggregate);
        QVERIFY(settled);
        QTest::qWait(1000);
        QCOMPARE(m_rig->server->owningModule(aggregate), settled);
        QCOMPARE(m_rig->server->defaultSinkName(), aggregate);
        // The server takes the member back into the old combined sink by itself; the rebuild
        // replaces that sink once: new member and new combined sink, old combined sink gone.
        QCOMPARE(PrivateSoundServer::sinkEvents(*events), (std::pair<int, int>{2, 1}));
    }

    void lastMemberGoneEndsTheGroupAndGivesThePreviousOutputBack() {
        const OutputGroup group = makeGroup("Studio", {kLeft, kAirPods});
        const QString aggregate = activate(group);
        QVERIFY(!aggregate.isEmpty());
        GroupManager& manager = *m_rig->manager;
        QVERIFY(m_rig->unplug(kAirPods));
        QVERIFY(m_rig->unplug(kLeft));
        QVERIFY2(eventually([&] { return !manager.activeGroupID().has_value(); }),
                 qPrintable(m_rig->server->sinkNames().join(u',')));
        QVERIFY(eventually([&] { return m_rig->server->defaultSinkName() == kBuiltin; }));
        QVERIFY(!m_rig->server->sinkNames().contains(aggregate));
        // The group does not come back with its devices by itself.
        QVERIFY(m_rig->server->loadNullSink(kLeft, "Studio Display Left"));
        QVERIFY(eventually([&] { return m_rig->audio->deviceIDForOutputUID(kLeft).has_value(); }));
        QTest::qWait(500);
        QVERIFY(!manager.activeGroupID().has_value());
        QCOMPARE(m_rig->server->defaultSinkName(), kBuiltin);
    }

    void deactivateGivesThePreviousOutputBack_data() {
        QTest::addColumn<bool>("throughAnotherGroup");
        QTest::newRow("one group") << false;
        // From group to group: the output before the first one comes back, even when the
        // default was moved elsewhere by hand while the first one played.
        QTest::newRow("second group after the first") << true;
    }
    void deactivateGivesThePreviousOutputBack() {
        QFETCH(bool, throughAnotherGroup);
        const OutputGroup first = makeGroup("Studio", {kLeft, kRight});
        const OutputGroup second = makeGroup("Studio", {kAirPods, kRight});
        QString aggregate = activate(first);
        QVERIFY(!aggregate.isEmpty());
        GroupManager& manager = *m_rig->manager;
        QCOMPARE(manager.previousOutputUID(), std::optional<QString>(kBuiltin));
        const OutputGroup& active = throughAnotherGroup ? second : first;
        if (throughAnotherGroup) {
            QVERIFY(m_rig->server->pactl({"set-default-sink", kLeft}));
            QVERIFY2(eventually([&] { return m_rig->defaultOutputUID() == kLeft; }),
                     qPrintable(m_rig->defaultOutputUID() +
                                " / server: " + m_rig->server->defaultSinkName()));
            manager.setGroups({first, second});
            QVERIFY(manager.activate(second));
            QVERIFY(!m_rig->server->sinkNames().contains(aggregate));
            aggregate = GroupManager::aggregateUID(second.id);
        }
        // The group is the default and plays to every member and nowhere else.
        m_rig->playToneToDefault(aggregate);
        for (const QString& member : active.memberUIDs)
            m_rig->verifyPlaying(member);
        m_rig->verifySilent(kBuiltin);

        manager.deactivate();
        QVERIFY(eventually([&] { return m_rig->server->defaultSinkName() == kBuiltin; }));
        QVERIFY(!m_rig->server->sinkNames().contains(aggregate));
        QVERIFY(eventually([&] { return m_rig->server->sinkOfStream("ondril-tone") == kBuiltin; }));
        m_rig->verifyPlaying(kBuiltin);
        m_rig->verifySilent(kRight);
    }

    void restartedServerGetsTheGroupBackWithItsVolumes() {
        OutputGroup group = makeGroup("Studio", {kLeft, kRight}, {}, 0.9);
        group.balance = {{kRight, 0.8}};
        const QString aggregate = activate(group);
        QVERIFY(!aggregate.isEmpty());
        GroupManager& manager = *m_rig->manager;
        const auto left = m_rig->audio->deviceIDForOutputUID(kLeft);
        QVERIFY(left);

        m_rig->server->stop();
        // While the server is away a write fails, and does not hang.
        QTRY_VERIFY_WITH_TIMEOUT(!m_rig->audio->setVolume(0.5f, *left), ServerRig::generousWaitMs);
        QVERIFY2(m_rig->server->start(), qPrintable(m_rig->server->error()));
        // The fresh server knows nothing of the group: its sinks are new, at full volume.
        QVERIFY2(eventually([&] {
                     return m_rig->server->defaultSinkName() == aggregate &&
                            m_rig->audio->readDefaultOutputID() == manager.activeDeviceID() &&
                            manager.activeMemberUIDs() == QStringList{kLeft, kRight};
                 }),
                 qPrintable(m_rig->server->defaultSinkName()));
        QCOMPARE(m_rig->audio->deviceIDForOutputUID(kLeft), left); // under the same id
        m_rig->verifySlaves(aggregate, {kLeft, kRight});
        m_rig->verifyVolume(kLeft, 0.9);
        m_rig->verifyVolume(kRight, 0.72);
        m_rig->playToneToDefault(aggregate);
        m_rig->verifyPlaying(kLeft);
        m_rig->verifyPlaying(kRight);
    }

    void serverStalledDuringARebuildKeepsTheGroup() {
        const OutputGroup group = makeGroup("Studio", {kLeft, kRight, kAirPods});
        const QString aggregate = activate(group);
        QVERIFY(!aggregate.isEmpty());
        GroupManager& manager = *m_rig->manager;

        // The worst moment: the program's first reaction to the member's removal, the published
        // device list, one turn before the group's rebuild. The server stops for a few seconds.
        bool stalled = false;
        connect(m_rig->audio.get(), &AudioDeviceManager::outputDevicesChanged, this, [&] {
            if (stalled || m_rig->audio->deviceIDForOutputUID(kRight))
                return;
            stalled = true;
            m_rig->server->pause();
            QTimer::singleShot(4000, this, [&] { m_rig->server->resume(); });
        });
        QVERIFY(m_rig->unplug(kRight));
        QVERIFY(eventually([&] { return stalled; }));

        // A stall is no choice of the user's: the group stays on and stored, and comes back with
        // the members that are left once the server answers, without leftovers.
        QVERIFY2(eventually([&] {
                     return manager.activeMemberUIDs() == QStringList{kLeft, kAirPods} &&
                            m_rig->server->defaultSinkName() == aggregate;
                 }),
                 qPrintable(manager.activeMemberUIDs().join(u',') + " | " +
                            m_rig->server->sinkNames().join(u',')));
        QCOMPARE(manager.activeGroupID(), std::optional<QUuid>(group.id));
        QCOMPARE(m_rig->defaults->stringForKey(SettingsKeys::activeGroup),
                 std::optional<QString>(OutputGroupCodec::uuidText(group.id)));
        m_rig->verifySlaves(aggregate, {kLeft, kAirPods});
        QTest::qWait(500);
        QCOMPARE(m_rig->server->sinkNames().filter(GroupManager::groupUIDPrefix),
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
        const QString orphan = GroupManager::aggregateUID(QUuid::createUuid());
        QStringList arguments{"load-module", "module-combine-sink", "sink_name=" + orphan,
                              "slaves=studio_left,studio_right"};
        if (owner != "none")
            arguments.append(QString("sink_properties=ondril.owner.pid=%1").arg(ownerPid));
        QVERIFY(m_rig->server->pactl(arguments));
        // A combined sink of somebody else's is none of ours.
        QVERIFY(m_rig->server->pactl(
            {"load-module", "module-combine-sink", "sink_name=party_combined", "slaves=airpods"}));

        AudioDeviceManager& devices = m_rig->devices();
        QVERIFY(eventually([&] {
            return devices.deviceIDForOutputUID(orphan).has_value() &&
                   devices.deviceIDForOutputUID("party_combined").has_value();
        }));
        m_rig->launch();
        QVERIFY(eventually([&] { return m_rig->server->sinkNames().contains(orphan) != removed; }));
        QTest::qWait(300);
        QCOMPARE(m_rig->server->sinkNames().contains(orphan), !removed);
        QVERIFY(m_rig->server->sinkNames().contains("party_combined"));
        ownerProcess.kill();
        ownerProcess.waitForFinished();
    }

    void ruleTakesTheArrivingSinkAndThePriorityListTakesOverWhenItGoes() {
        QVERIFY(launchWaitingForTheAirPods());
        GroupManager& manager = *m_rig->manager;
        // The left display is hidden: passed over although connected.
        m_rig->settings->setHiddenDevices({kLeft});
        manager.setDevicePriority({kLeft, "gone", kRight});
        manager.saveDevicePriority();
        manager.addRule({kAirPods}, RuleAction::device(kAirPods));

        QVERIFY(m_rig->server->loadNullSink(kAirPods, "AirPods Pro"));
        QElapsedTimer loaded;
        loaded.start();
        QVERIFY(eventually([&] { return m_rig->defaultOutputUID() == kAirPods; }));
        qInfo() << "loaded sink to rule-made default:" << loaded.elapsed() << "ms";
        QVERIFY(waitForDefault(kAirPods));

        // Gone: the server picks a sink of its own; the priority list's entry stands over it.
        QVERIFY(m_rig->unplug(kAirPods));
        verifyDefaultStays(kRight);
        // Back: the rule applies again, and the server does not take its old default back.
        QVERIFY(m_rig->server->loadNullSink(kAirPods, "AirPods Pro"));
        verifyDefaultStays(kAirPods);
    }

    // An output the user picks while the rule's device is there stays picked, whatever the
    // server publishes meanwhile (a volume change publishes the lists too).
    void outputPickedByHandIsLeftAloneWhileTheRuleFits() {
        QVERIFY(launchWaitingForTheAirPods());
        m_rig->manager->addRule({kAirPods}, RuleAction::device(kAirPods));
        QVERIFY(m_rig->server->loadNullSink(kAirPods, "AirPods Pro"));
        QVERIFY(waitForDefault(kAirPods));

        QVERIFY(m_rig->server->pactl({"set-default-sink", kLeft}));
        QVERIFY(m_rig->server->pactl({"set-sink-volume", kRight, "40%"}));
        verifyDefaultStays(kLeft);
        QVERIFY2(eventually([&] { return m_rig->defaultOutputUID() == kLeft; }),
                 qPrintable(m_rig->defaultOutputUID()));
    }

    // A headset's sink and microphone arrive a few ms apart; each side has its rule. Every list
    // published on the way is evaluated, and each default changes once.
    void arrivingHeadsetChangesEachDefaultOnce() {
        QVERIFY(launchWaitingForTheAirPods());
        m_rig->manager->addRule({kAirPods}, RuleAction::device(kAirPods));
        m_rig->manager->addInputRule({kHeadsetMic}, RuleAction::device(kHeadsetMic));
        QStringList outputs;
        QStringList inputs;
        const auto outputToken = follow(kAudioHardwarePropertyDefaultOutputDevice, outputs);
        const auto inputToken = follow(kAudioHardwarePropertyDefaultInputDevice, inputs);

        QVERIFY(m_rig->server->loadNullSink(kAirPods, "AirPods Pro"));
        QVERIFY(m_rig->server->loadRemapSource(kHeadsetMic, "Headset Microphone",
                                               kAirPods + ".monitor"));
        QVERIFY(eventually([&] {
            return m_rig->server->defaultSinkName() == kAirPods &&
                   m_rig->server->defaultSourceName() == kHeadsetMic;
        }));
        QTest::qWait(kSettleMs);
        m_rig->hardware->AudioObjectRemovePropertyListenerBlock(outputToken);
        m_rig->hardware->AudioObjectRemovePropertyListenerBlock(inputToken);
        QCOMPARE(outputs, QStringList{kAirPods});
        QCOMPARE(inputs, QStringList{kHeadsetMic});
        QCOMPARE(m_rig->audio->defaultInputID(), *m_rig->audio->deviceIDForInputUID(kHeadsetMic));
    }
};

QTEST_GUILESS_MAIN(GroupManagerServerTest)
#include "tst_groupmanager_server.moc"
