#include "GroupTestRig.h"

#include <QtTest>

#include <cmath>

using Names = QMap<QString, QString>;

// Keeps every aggregate description it is handed.
class RecordingHardware : public SimulatedAudioHardware {
public:
    QList<QVariantMap> descriptions;

    OSStatus AudioHardwareCreateAggregateDevice(const QVariantMap& description,
                                                AudioObjectID& outDeviceID) override {
        descriptions.append(description);
        return SimulatedAudioHardware::AudioHardwareCreateAggregateDevice(description, outDeviceID);
    }
};

// GroupManager on the simulated service: activation, the three group states and every way
// between them, group volume written as each member's own device volume (master × balance, or 0
// while muted), and what happens when the manager is made: loading, the fold of old names and the
// restore of the group that was on when the program last ran. Most cases use A, both displays at
// 0.4, and B, the headphones.
class TestGroupManager : public QObject {
    Q_OBJECT

    std::unique_ptr<GroupTestRig> m_rig;
    OutputGroup m_a;
    OutputGroup m_b;

    GroupManager& launch() { return m_rig->launchWith({m_a, m_b}); }

    OutputGroup storedGroup(const QUuid& id) const {
        const auto groups =
            OutputGroupCodec::decode(*m_rig->defaults->dataForKey(SettingsKeys::groups));
        for (const OutputGroup& group : *groups)
            if (group.id == id)
                return group;
        return {};
    }

    // No group on, nothing of one left or stored, and `output` the default.
    void verifyOff(AudioObjectID output) {
        QCOMPARE(m_rig->manager->activeGroupID(), std::nullopt);
        QCOMPARE(m_rig->manager->activeDeviceID(), std::nullopt);
        QVERIFY(m_rig->hardware->aggregateDevices().empty());
        QVERIFY(!m_rig->defaults->objectForKey(SettingsKeys::activeGroup));
        QCOMPARE(m_rig->defaultOutput(), output);
    }

private slots:
    void init() {
        m_rig = std::make_unique<GroupTestRig>();
        m_a = makeGroup("A", {GroupTestRig::leftUID, GroupTestRig::rightUID}, {}, 0.4);
        m_b = makeGroup("B", {GroupTestRig::headphonesUID});
    }
    void cleanup() { m_rig.reset(); }

    // What the service is handed: each present member, the clock master first. An absent master
    // leaves the lead to the first present member and stays stored; a member whose UID drifted
    // since is handed over as stored.
    void aggregateLeadsWithTheMaster_data() {
        QTest::addColumn<QStringList>("members"); // the stored master first
        QTest::addColumn<QStringList>("subdevices");
        const QString gone = QStringLiteral("usb:Gone:Device:1:1");
        const QString drifted = QStringLiteral("usb:Acme:LeftDisplay:7777:1,2"); // key of left
        const QString& phones = GroupTestRig::headphonesUID;
        const QString& left = GroupTestRig::leftUID;
        QTest::newRow("absent master")
            << QStringList{gone, phones, left} << QStringList{phones, left};
        QTest::newRow("master under a drifted UID") << QStringList{drifted, GroupTestRig::rightUID}
                                                    << QStringList{drifted, GroupTestRig::rightUID};
    }
    void aggregateLeadsWithTheMaster() {
        QFETCH(QStringList, members);
        QFETCH(QStringList, subdevices);
        auto recording = std::make_unique<RecordingHardware>();
        RecordingHardware& service = *recording;
        m_rig = std::make_unique<GroupTestRig>(std::move(recording));
        const OutputGroup group = makeGroup("Displays", members);
        GroupManager& manager = m_rig->launchWith({group});
        manager.activate(group); // whether the service takes a stale UID is its own affair

        QCOMPARE(service.descriptions.size(), 1);
        QStringList handed;
        for (const QVariant& entry :
             service.descriptions.first().value(kAudioAggregateDeviceSubDeviceListKey).toList())
            handed.append(entry.toMap().value(kAudioSubDeviceUIDKey).toString());
        QCOMPARE(handed, subdevices);
        QCOMPARE(service.descriptions.first().value("master").toString(), subdevices.first());
        QCOMPARE(manager.groups().first().masterUID, members.first());
    }

    // An activation that cannot build changes nothing, and an off group is not retried.
    void activationThatCannotBuildChangesNothing_data() {
        QTest::addColumn<bool>("stale");
        QTest::newRow("no member present") << false;
        // The published list still shows a member the service no longer has.
        QTest::newRow("member gone between check and build") << true;
    }
    void activationThatCannotBuildChangesNothing() {
        QFETCH(bool, stale);
        const OutputGroup group =
            stale ? m_a : makeGroup("Away", {"usb:Gone:A:1:1", "usb:Gone:B:1:1"});
        GroupManager& manager = m_rig->launchWith({group});
        if (stale)
            m_rig->hardware->removeDevice(m_rig->right); // not yet settled: the lists are stale
        QVERIFY(!manager.activate(group));
        settle();
        verifyOff(m_rig->speakers);
        if (!stale)
            return;
        QVERIFY(manager.activate(group)); // on the fresh list, from what is left
        QCOMPARE(manager.activeMemberUIDs(), QStringList{GroupTestRig::leftUID});
        QCOMPARE(manager.previousOutputUID(), std::optional<QString>(GroupTestRig::speakersUID));
    }

    void deactivateWithThePreviousOutputGone() {
        m_rig->hardware->setDefaultOutputDevice(m_rig->headphones);
        GroupManager& manager = launch();
        QVERIFY(manager.activate(m_a));
        settle();
        m_rig->hardware->removeDevice(m_rig->headphones);
        settle();

        manager.deactivate();

        QVERIFY(manager.activeMemberUIDs().isEmpty());
        QCOMPARE(manager.previousOutputUID(), std::nullopt);
        QVERIFY(m_rig->defaultOutput() != m_rig->headphones);
        verifyOff(m_rig->defaultOutput());
    }

    // A failed build leaves A on without an aggregate, muted and stored as before; a reconcile
    // builds it again, keeping the mute, or ends it when it fails too. What changed while asleep
    // is not announced by the lists: a wake reconciles, after a delay.
    void failedActivationLeavesTheGroupOnWithoutAggregate_data() {
        QTest::addColumn<QString>("retry");
        QTest::newRow("retry builds") << "builds";
        QTest::newRow("retry fails too") << "fails";
        QTest::newRow("wake retries after a delay") << "wake";
    }

    void failedActivationLeavesTheGroupOnWithoutAggregate() {
        QFETCH(QString, retry);
        GroupManager& manager = launch();
        QVERIFY(manager.activate(m_a));
        manager.toggleGroupMute();
        settle();
        const QString storedKey = *m_rig->defaults->stringForKey(SettingsKeys::activeGroup);
        const QSignalBlocker quietLists(retry == "wake" ? m_rig->audio.get() : nullptr);

        m_rig->hardware->failNextAggregateCreation();
        QVERIFY(!manager.activate(m_b));

        QCOMPARE(manager.activeGroupID(), std::optional<QUuid>(m_a.id));
        QCOMPARE(manager.activeDeviceID(), std::nullopt);
        QVERIFY(manager.activeMemberUIDs().isEmpty());
        QCOMPARE(manager.isMuted(), true);
        QCOMPARE(*m_rig->defaults->stringForKey(SettingsKeys::activeGroup), storedKey);
        QVERIFY(m_rig->hardware->aggregateDevices().empty());

        if (retry == "fails")
            m_rig->hardware->failNextAggregateCreation();
        if (retry == "wake") {
            emit m_rig->sleepMonitor.didWake();
            settle();
            QCOMPARE(manager.activeDeviceID(), std::nullopt); // not at once
            QTRY_VERIFY_WITH_TIMEOUT(manager.activeDeviceID().has_value(), 5000);
        } else {
            manager.reconcile();
        }

        if (retry == "fails") {
            verifyOff(m_rig->speakers);
            return;
        }
        QCOMPARE(manager.activeGroupID(), std::optional<QUuid>(m_a.id));
        QCOMPARE(manager.activeMemberUIDs(), (QStringList{m_rig->leftUID, m_rig->rightUID}));
        QCOMPARE(m_rig->defaultOutput(), *manager.activeDeviceID());
        QCOMPARE(manager.isMuted(), true); // the mute is kept
        QCOMPARE(m_rig->volumeOf(m_rig->left), 0.0f);
    }

    void memberGoneBetweenCheckAndBuildInReconcileDeactivates() {
        const OutputGroup three = makeGroup(
            "Three", {GroupTestRig::leftUID, GroupTestRig::rightUID, GroupTestRig::headphonesUID});
        GroupManager& manager = m_rig->launchWith({three});
        m_rig->hardware->removeDevice(m_rig->headphones);
        settle();
        QVERIFY(manager.activate(three));
        settle();
        // Headphones come back and right goes, the list shows only the first change yet.
        m_rig->addOutput(GroupTestRig::headphonesUID, "Headphones");
        m_rig->audio->refresh();
        QCoreApplication::sendPostedEvents(m_rig->audio.get());
        m_rig->hardware->removeDevice(m_rig->right);
        manager.reconcile();
        QCOMPARE(manager.activeGroupID(), std::nullopt);
        QCOMPARE(m_rig->defaultOutput(), m_rig->speakers);
    }

    void switchToDeviceLeavesTheGroup() {
        GroupManager& manager = launch();
        QVERIFY(manager.activate(m_a));
        manager.toggleGroupMute();
        settle();

        manager.switchToDevice(m_rig->headphones);
        settle();

        verifyOff(m_rig->headphones);
        QCOMPARE(m_rig->audio->defaultOutputID(), m_rig->headphones);
        QCOMPARE(manager.previousOutputUID(), std::nullopt);
        QCOMPARE(manager.isMuted(), false);
        manager.deactivate(); // nothing left to give back
        QCOMPARE(m_rig->defaultOutput(), m_rig->headphones);
    }

    void deletingTheActiveGroupRestoresOutputBeforeTheRecordGoes() {
        GroupManager& manager = launch();
        QVERIFY(manager.activate(m_a));
        settle();
        std::optional<QUuid> told;
        int storedAtHook = -1;
        manager.onGroupDeleted = [&](const QUuid& id) {
            told = id;
            storedAtHook =
                int(OutputGroupCodec::decode(*m_rig->defaults->dataForKey(SettingsKeys::groups))
                        ->size());
        };

        manager.deleteGroup(m_a);

        QCOMPARE(told, std::optional<QUuid>(m_a.id));
        QCOMPARE(storedAtHook, 1);
        QCOMPARE(m_rig->defaultOutput(), m_rig->speakers);
        QCOMPARE(manager.activeGroupID(), std::nullopt);
    }

    void leftoverGroupAggregateAsDefaultIsNotCaptured() {
        GroupManager& manager = launch();
        AudioObjectID leftover = 0;
        QCOMPARE(m_rig->hardware->AudioHardwareCreateAggregateDevice(
                     GroupManager::aggregateDescription("Other run", {GroupTestRig::headphonesUID},
                                                        GroupTestRig::headphonesUID,
                                                        QUuid::createUuid()),
                     leftover),
                 kAudioHardwareNoError);
        m_rig->hardware->setDefaultOutputDevice(leftover);
        settle();

        QVERIFY(manager.activate(m_a));
        QCOMPARE(manager.previousOutputUID(), std::nullopt);
    }

    // Activating the group that is on: with the same members, in any order, only its volumes are
    // applied again, the mute kept and the default left where it is; with a member back that the
    // lists have not shown yet, it is built again, unmuted.
    void activatingTheActiveGroupAgain_data() {
        QTest::addColumn<bool>("memberBack");
        QTest::newRow("same members") << false;
        QTest::newRow("a member came back") << true;
    }
    void activatingTheActiveGroupAgain() {
        QFETCH(bool, memberBack);
        GroupManager& manager = launch();
        if (memberBack) {
            m_rig->hardware->removeDevice(m_rig->right);
            settle();
        }
        QVERIFY(manager.activate(m_a));
        settle();
        manager.toggleGroupMute();
        const int creates = m_rig->hardware->createAggregateCallCount();
        const AudioObjectID aggregate = *manager.activeDeviceID();
        OutputGroup again = m_a;
        AudioObjectID changed = m_rig->left;
        if (memberBack) {
            changed = m_rig->addOutput(GroupTestRig::rightUID, "Right Display");
            m_rig->audio->refresh();
            QCoreApplication::sendPostedEvents(m_rig->audio.get());
        } else {
            again.memberUIDs = {GroupTestRig::rightUID, GroupTestRig::leftUID};
            m_rig->hardware->setDefaultOutputDevice(m_rig->headphones);
            m_rig->hardware->setDeviceVolume(m_rig->left, 0, 0.9f);
            settle();
        }

        QVERIFY(manager.activate(again));

        QCOMPARE(m_rig->hardware->createAggregateCallCount(), creates + int(memberBack));
        QCOMPARE(manager.isMuted(), !memberBack);
        QCOMPARE(m_rig->volumeOf(changed), memberBack ? 0.4f : 0.0f);
        if (memberBack) {
            QCOMPARE(manager.activeMemberUIDs(), (QStringList{m_a.memberUIDs}));
        } else {
            QCOMPARE(*manager.activeDeviceID(), aggregate);
            QCOMPARE(m_rig->defaultOutput(), m_rig->headphones);
        }
    }

    void nonFiniteValuesNeverReachTheStoredList() {
        GroupTestRig& rig = *m_rig;
        const OutputGroup& displays = m_a;
        GroupManager& manager = launch();
        QVERIFY(manager.activate(displays));
        const double nan = std::nan("");
        manager.setMasterVolume(displays, nan);
        manager.setBalance(displays, rig.rightUID, nan);
        QVERIFY(!manager.stepGroupVolume(nan));
        QVERIFY(!rig.audio->setVolume(std::nanf(""), rig.left));
        QCOMPARE(rig.volumeOf(rig.left), 0.4f);

        // Infinities clamp, and the list is saved again as a whole.
        manager.setBalance(displays, rig.rightUID, -HUGE_VAL);
        manager.setMasterVolume(displays, HUGE_VAL);
        QCOMPARE(storedGroup(displays.id).masterVolume, 1.0);
        QCOMPARE(storedGroup(displays.id).balance.value(rig.rightUID), 0.0);
        QCOMPARE(rig.volumeOf(rig.right), 0.0f);
    }

    // A group that is off is stored without a device write; one the manager does not know is not
    // stored at all.
    void groupNotOnIsStoredWithoutTouchingDevices() {
        GroupManager& manager = launch();
        QVERIFY(manager.activate(m_a));
        const int writes = m_rig->hardware->setPropertyCallCount(kAudioDevicePropertyVolumeScalar);
        manager.setMasterVolume(m_b, 0.1);
        manager.setBalance(m_b, GroupTestRig::headphonesUID, 0.1);
        const QByteArray stored = *m_rig->defaults->dataForKey(SettingsKeys::groups);
        const OutputGroup stranger = makeGroup("Stranger", {GroupTestRig::leftUID});
        manager.setMasterVolume(stranger, 0.2);
        manager.setBalance(stranger, GroupTestRig::leftUID, 0.2);

        QCOMPARE(m_rig->hardware->setPropertyCallCount(kAudioDevicePropertyVolumeScalar), writes);
        QCOMPARE(*m_rig->defaults->dataForKey(SettingsKeys::groups), stored);
        QCOMPARE(storedGroup(m_b.id).masterVolume, 0.1);
        QCOMPARE(m_rig->volumeOf(m_rig->headphones), 0.5f);
    }

    void staleCopyChangesOnlyTheMaster() {
        GroupTestRig& rig = *m_rig;
        const OutputGroup& stale = m_a;
        GroupManager& manager = launch();
        QVERIFY(manager.activate(stale));
        manager.setBalance(stale, rig.leftUID, 0.5);
        manager.setMasterVolume(stale, 0.8); // the copy still has no balance

        const OutputGroup stored = storedGroup(stale.id);
        QCOMPARE(stored.masterVolume, 0.8);
        QCOMPARE(stored.balance.value(rig.leftUID), 0.5);
        QCOMPARE(rig.volumeOf(rig.left), 0.4f);
        QCOMPARE(rig.volumeOf(rig.right), 0.8f);
    }

    void masterSetWhileMutedIsStoredForTheUnmute() {
        GroupTestRig& rig = *m_rig;
        const OutputGroup& displays = m_a;
        GroupManager& manager = launch();
        QVERIFY(manager.activate(displays));
        manager.toggleGroupMute();
        manager.setMasterVolume(displays, 0.9);
        QCOMPARE(manager.isMuted(), true);
        QCOMPARE(rig.volumeOf(rig.left), 0.0f);
        QCOMPARE(rig.audio->isMuted(rig.left), std::optional<bool>(false)); // controls untouched
        manager.toggleGroupMute();
        QCOMPARE(rig.volumeOf(rig.left), 0.9f);
    }

    // A step with a group on moves the master; without one it moves the default output's own
    // volume. A step of 0 keeps the mute, any other ends it. stepVolume stepping a group out of its
    // mute is heard on the servers. (What the steps return is for an overlay that does not exist
    // yet: the tray only asks whether a step was taken.)
    void steps_data() {
        QTest::addColumn<bool>("withGroup");
        QTest::addColumn<double>("start");
        QTest::addColumn<bool>("muted");
        QTest::addColumn<double>("delta");
        QTest::addColumn<double>("expected");
        QTest::newRow("group: zero step stays muted") << true << 0.5 << true << 0.0 << 0.5;
        QTest::newRow("group: past one") << true << 0.98 << false << 0.0625 << 1.0;
        QTest::newRow("device: up unmutes") << false << 0.5 << true << 0.0625 << 0.5625;
        QTest::newRow("device: clamped at one") << false << 0.5 << true << 0.75 << 1.0;
        QTest::newRow("device: zero keeps the mute") << false << 0.5 << true << 0.0 << 0.5;
    }

    void steps() {
        QFETCH(bool, withGroup);
        QFETCH(double, start);
        QFETCH(bool, muted);
        QFETCH(double, delta);
        QFETCH(double, expected);
        const bool mutedAfter = muted && delta == 0.0;
        GroupTestRig& rig = *m_rig;
        m_a.masterVolume = start;
        const OutputGroup& displays = m_a;
        GroupManager& manager = launch();
        if (withGroup) {
            QVERIFY(manager.activate(displays));
            if (muted)
                manager.toggleGroupMute();
        } else {
            rig.audio->setMute(muted, rig.speakers);
        }

        const auto result = withGroup ? manager.stepGroupVolume(delta) : manager.stepVolume(delta);

        QVERIFY(result);
        if (withGroup) {
            const float member = mutedAfter ? 0.0f : float(expected);
            QCOMPARE(manager.isMuted(), mutedAfter);
            QCOMPARE(storedGroup(displays.id).masterVolume, expected);
            QCOMPARE(rig.volumeOf(rig.left), member);
            QCOMPARE(rig.volumeOf(rig.right), member);
        } else {
            QCOMPARE(rig.volumeOf(rig.speakers), float(expected));
            QCOMPARE(rig.audio->isMuted(rig.speakers), std::optional<bool>(mutedAfter));
        }
    }

    // Without a group on, the tray's middle click mutes and unmutes the default output itself.
    void toggleMuteWithoutAGroupTogglesTheDefaultOutput() {
        GroupTestRig& rig = *m_rig;
        GroupManager& manager = rig.launch();
        QVERIFY(manager.toggleMute());
        QCOMPARE(rig.audio->isMuted(rig.speakers), std::optional<bool>(true));
        QVERIFY(manager.toggleMute());
        QCOMPARE(rig.audio->isMuted(rig.speakers), std::optional<bool>(false));
    }

    // At launch. (That the restore steps aside for a group a rule put on first is the auto-switch
    // test's.) A stored list that does not decode loads empty, and stays as it is until the next
    // save.
    void corruptListLoadsEmptyAndStaysUntilTheNextSave_data() {
        QTest::addColumn<QString>("key");
        QTest::newRow("groups") << SettingsKeys::groups;
        QTest::newRow("input rules") << SettingsKeys::inputRules;
    }
    void corruptListLoadsEmptyAndStaysUntilTheNextSave() {
        QFETCH(QString, key);
        GroupTestRig& rig = *m_rig;
        const QByteArray corrupt = R"([{"name":"ok"},{"name":7}])";
        rig.defaults->setData(corrupt, key);
        GroupManager& manager = rig.launch();
        QVERIFY(manager.groups().isEmpty() && manager.inputRules().isEmpty());
        QCOMPARE(rig.defaults->dataForKey(key), std::optional<QByteArray>(corrupt));
        if (key != SettingsKeys::groups)
            return;
        manager.setGroups({makeGroup("New", {rig.leftUID})});
        manager.saveGroups();
        QCOMPARE(OutputGroupCodec::decode(*rig.defaults->dataForKey(key))->size(), 1);
    }

    void oldDeviceNamesFoldIntoCustomNames_data() {
        QTest::addColumn<Names>("customBefore");
        QTest::addColumn<Names>("groupNames");
        QTest::addColumn<Names>("customAfter");
        QTest::addColumn<int>("posts");
        const QString uid = "usb:Acme:LeftDisplay:1001:1,2";
        const QString drifted = "usb:Acme:LeftDisplay:5555:1,2";
        QTest::newRow("new name stored trimmed")
            << Names{} << Names{{uid, "  Left \n"}} << Names{{uid, "Left"}} << 1;
        QTest::newRow("existing custom name left")
            << Names{{uid, "Mine"}} << Names{{uid, "Old"}} << Names{{uid, "Mine"}} << 0;
        QTest::newRow("drifted key moves to the stored uid")
            << Names{{drifted, "Mine"}} << Names{{uid, "Old"}} << Names{{uid, "Mine"}} << 1;
        QTest::newRow("blank name removes nothing stored")
            << Names{{"other", "Other"}} << Names{{uid, "   "}} << Names{{"other", "Other"}} << 1;
        QTest::newRow("two entries")
            << Names{} << Names{{uid, "L"}, {"b", "B"}} << Names{{uid, "L"}, {"b", "B"}} << 2;
    }

    void oldDeviceNamesFoldIntoCustomNames() {
        QFETCH(Names, customBefore);
        QFETCH(Names, groupNames);
        QFETCH(Names, customAfter);
        QFETCH(int, posts);
        GroupTestRig& rig = *m_rig;
        rig.defaults->setStringDictionary(customBefore, SettingsKeys::deviceNames);
        OutputGroup group = makeGroup("Old", {rig.leftUID});
        group.deviceNames = groupNames;
        rig.storeGroups({group});
        int posted = 0;
        rig.center.addObserver(Notifications::deviceNamesChanged, nullptr, [&] { ++posted; });

        GroupManager& manager = rig.launch();

        QCOMPARE(rig.defaults->stringDictionaryForKey(SettingsKeys::deviceNames).value_or(Names()),
                 customAfter);
        QCOMPARE(posted, posts);
        // The old names stay in the record and are written again.
        QCOMPARE(manager.groups().first().deviceNames, groupNames);
    }

    void restoreAtLaunch_data() {
        QTest::addColumn<QString>("storedKey"); // "group" stands for the stored group's id
        QTest::addColumn<bool>("membersPresent");
        QTest::addColumn<bool>("expectOn");
        QTest::newRow("present members") << "group" << true << true;
        QTest::newRow("lower-case key") << "group-lower" << true << true;
        QTest::newRow("no member present") << "group" << false << false;
        QTest::newRow("invalid id") << "not a uuid" << true << false;
        QTest::newRow("unknown id")
            << QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper() << true << false;
        QTest::newRow("no key") << QString() << true << false;
    }

    void restoreAtLaunch() {
        QFETCH(QString, storedKey);
        QFETCH(bool, membersPresent);
        QFETCH(bool, expectOn);
        GroupTestRig& rig = *m_rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID});
        rig.storeGroups({displays});
        if (!membersPresent) {
            rig.hardware->removeDevice(rig.left);
            rig.hardware->removeDevice(rig.right);
        }
        QString key = storedKey;
        if (storedKey == "group")
            key = OutputGroupCodec::uuidText(displays.id);
        else if (storedKey == "group-lower")
            key = OutputGroupCodec::uuidText(displays.id).toLower();
        if (!key.isNull())
            rig.defaults->setString(key, SettingsKeys::activeGroup);
        // A leftover of the last run, as quitting leaves it.
        AudioObjectID leftover = 0;
        rig.hardware->AudioHardwareCreateAggregateDevice(
            GroupManager::aggregateDescription("Displays", {rig.speakersUID}, rig.speakersUID,
                                               displays.id),
            leftover);

        GroupManager& manager = rig.launch();

        QCOMPARE(manager.activeGroupID().has_value(), expectOn);
        if (expectOn) {
            QCOMPARE(*manager.activeGroupID(), displays.id);
            QCOMPARE(rig.defaultOutput(), *manager.activeDeviceID());
            QVERIFY(*manager.activeDeviceID() != leftover);
            QCOMPARE(int(rig.hardware->aggregateDevices().size()), 1);
            QCOMPARE(rig.volumeOf(rig.left), 0.65f);
            QCOMPARE(rig.hardware->createAggregateCallCount(), 2); // the leftover, then ours once
        } else {
            QVERIFY(rig.hardware->aggregateDevices().empty());
        }
        // The key stays whatever the outcome; only deactivation removes it.
        if (!key.isNull())
            QVERIFY(rig.defaults->objectForKey(SettingsKeys::activeGroup));
    }
};

QTEST_GUILESS_MAIN(TestGroupManager)
#include "tst_groupmanager.moc"
