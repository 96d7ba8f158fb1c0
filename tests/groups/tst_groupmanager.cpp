#include "GroupTestRig.h"

#include "groups/AudioRuleCodec.h"
#include "groups/AutoSwitchToken.h"

#include <QtTest>

#include <cmath>

using Names = QMap<QString, QString>;

namespace {

const QString kMicUID = QStringLiteral("usb:Acme:Microphone:2001:1");
const QString kHeadsetMicUID = QStringLiteral("bluetooth:Acme:HeadsetMic:2002:1");
// The right display's UID after a reconnection: same stable key, other volatile part.
const QString kDriftedRightUID = QStringLiteral("usb:Acme:RightDisplay:9999:1,2");

AudioRule rule(const QStringList& required, const RuleAction& action) {
    return AudioRule{QUuid::createUuid(), required, action, true};
}

QString tokenOf(const AudioRule& rule) {
    return OutputGroupCodec::uuidText(rule.id);
}

// The rig with both switches on and an input or two beside the outputs.
struct AutoSwitchRig : GroupTestRig {
    AudioObjectID mic = 0;

    AutoSwitchRig() {
        defaults->setBool(true, SettingsKeys::autoSwitchGroups);
        defaults->setBool(true, SettingsKeys::autoSwitchInputs);
        mic = addInput(kMicUID, QStringLiteral("Microphone"));
        hardware->setDefaultInputDevice(mic);
    }

    void unplug(AudioObjectID id) {
        hardware->removeDevice(id);
        settle();
    }

    int defaultOutputWrites() const {
        return hardware->setPropertyCallCount(kAudioHardwarePropertyDefaultOutputDevice);
    }
    int defaultInputWrites() const {
        return hardware->setPropertyCallCount(kAudioHardwarePropertyDefaultInputDevice);
    }
};

} // namespace

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

// GroupManager on the simulated service: activation, the three group states and the ways between
// them, group volume as each member's device volume (master × balance, or 0 while muted), the
// launch (loading, the fold of old names, the restore) and the stored list's codec, mostly with
// A, both displays at 0.4, and B, the headphones. Then auto-switch rules and priority lists, on a
// rig of their own: what a run applies or leaves alone, and how the stored lists read.
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
        m_rig->hardware->setDefaultOutputDevice(
            m_rig->addOutput(GroupManager::aggregateUID(QUuid::createUuid()), "Other run"));
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

    // With A on, in turn: the setters change the stored record, not the caller's copy, so a stale
    // copy changes only the master; non-finite values are refused, infinities clamp; a master set
    // while muted is stored for the unmute. A group that is off is stored without a device write;
    // one the manager does not know is not stored at all.
    void settersWriteTheStoredRecord() {
        GroupManager& manager = launch();
        QVERIFY(manager.activate(m_a));
        manager.setBalance(m_a, m_rig->leftUID, 0.5);
        manager.setMasterVolume(m_a, 0.8); // the copy still has no balance
        QCOMPARE(storedGroup(m_a.id).masterVolume, 0.8);
        QCOMPARE(storedGroup(m_a.id).balance.value(m_rig->leftUID), 0.5);
        QCOMPARE(m_rig->volumeOf(m_rig->left), 0.4f);
        QCOMPARE(m_rig->volumeOf(m_rig->right), 0.8f);

        const double nan = std::nan("");
        manager.setMasterVolume(m_a, nan);
        manager.setBalance(m_a, m_rig->leftUID, nan);
        QVERIFY(!manager.stepGroupVolume(nan));
        QVERIFY(!m_rig->audio->setVolume(std::nanf(""), m_rig->left));
        QCOMPARE(m_rig->volumeOf(m_rig->left), 0.4f);
        manager.setBalance(m_a, m_rig->rightUID, -HUGE_VAL);
        manager.setMasterVolume(m_a, HUGE_VAL);
        QCOMPARE(storedGroup(m_a.id).masterVolume, 1.0);
        QCOMPARE(storedGroup(m_a.id).balance.value(m_rig->rightUID), 0.0);
        QCOMPARE(m_rig->volumeOf(m_rig->right), 0.0f);

        manager.toggleGroupMute();
        manager.setMasterVolume(m_a, 0.9);
        QCOMPARE(manager.isMuted(), true);
        QCOMPARE(m_rig->volumeOf(m_rig->left), 0.0f);
        QCOMPARE(m_rig->audio->isMuted(m_rig->left), std::optional<bool>(false)); // controls kept
        manager.toggleGroupMute();
        QCOMPARE(m_rig->volumeOf(m_rig->left), 0.45f);

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

    // A step with a group on moves the master; without one, the default output's own volume. A
    // step of 0 keeps the mute, any other ends it (a group's is heard on the servers).
    void steps_data() {
        QTest::addColumn<bool>("withGroup");
        QTest::addColumn<double>("start");
        QTest::addColumn<bool>("muted");
        QTest::addColumn<double>("delta");
        QTest::addColumn<double>("expected");
        QTest::newRow("group: zero step stays muted") << true << 0.5 << true << 0.0 << 0.5;
        QTest::newRow("group: past one") << true << 0.98 << false << 0.0625 << 1.0;
        QTest::newRow("device: up unmutes") << false << 0.5 << true << 0.0625 << 0.5625;
        QTest::newRow("device: zero keeps the mute") << false << 0.5 << true << 0.0 << 0.5;
    }

    void steps() {
        QFETCH(bool, withGroup);
        QFETCH(double, start);
        QFETCH(bool, muted);
        QFETCH(double, delta);
        QFETCH(double, expected);
        const bool mutedAfter = muted && delta == 0.0;
        m_a.masterVolume = start;
        GroupManager& manager = launch();
        if (withGroup) {
            QVERIFY(manager.activate(m_a));
            if (muted)
                manager.toggleGroupMute();
        } else {
            m_rig->audio->setMute(muted, m_rig->speakers);
        }

        const auto result = withGroup ? manager.stepGroupVolume(delta) : manager.stepVolume(delta);

        QVERIFY(result);
        if (withGroup) {
            const float member = mutedAfter ? 0.0f : float(expected);
            QCOMPARE(manager.isMuted(), mutedAfter);
            QCOMPARE(storedGroup(m_a.id).masterVolume, expected);
            QCOMPARE(m_rig->volumeOf(m_rig->left), member);
            QCOMPARE(m_rig->volumeOf(m_rig->right), member);
        } else {
            QCOMPARE(m_rig->volumeOf(m_rig->speakers), float(expected));
            QCOMPARE(m_rig->audio->isMuted(m_rig->speakers), std::optional<bool>(mutedAfter));
        }
    }

    // A stored list that does not decode loads empty at launch, and stays as it is until the next
    // save.
    void corruptListLoadsEmptyAndStaysUntilTheNextSave_data() {
        QTest::addColumn<QString>("key");
        QTest::newRow("groups") << SettingsKeys::groups;
        QTest::newRow("input rules") << SettingsKeys::inputRules;
    }
    void corruptListLoadsEmptyAndStaysUntilTheNextSave() {
        QFETCH(QString, key);
        const QByteArray corrupt = R"([{"name":"ok"},{"name":7}])";
        m_rig->defaults->setData(corrupt, key);
        GroupManager& manager = m_rig->launch();
        QVERIFY(manager.groups().isEmpty() && manager.inputRules().isEmpty());
        QCOMPARE(m_rig->defaults->dataForKey(key), std::optional<QByteArray>(corrupt));
        if (key != SettingsKeys::groups)
            return;
        manager.setGroups({makeGroup("New", {m_rig->leftUID})});
        manager.saveGroups();
        QCOMPARE(OutputGroupCodec::decode(*m_rig->defaults->dataForKey(key))->size(), 1);
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
        m_rig->defaults->setStringDictionary(customBefore, SettingsKeys::deviceNames);
        OutputGroup group = makeGroup("Old", {m_rig->leftUID});
        group.deviceNames = groupNames;
        m_rig->storeGroups({group});
        int posted = 0;
        m_rig->center.addObserver(Notifications::deviceNamesChanged, nullptr, [&] { ++posted; });

        GroupManager& manager = m_rig->launch();

        QCOMPARE(
            m_rig->defaults->stringDictionaryForKey(SettingsKeys::deviceNames).value_or(Names()),
            customAfter);
        QCOMPARE(posted, posts);
        // The old names stay in the record and are written again.
        QCOMPARE(manager.groups().first().deviceNames, groupNames);
    }

    // Stored keys name A, under a fixed id.
    void restoreAtLaunch_data() {
        QTest::addColumn<QString>("storedKey"); // null: none stored
        QTest::addColumn<bool>("membersPresent");
        QTest::addColumn<bool>("expectOn");
        const QString a = QStringLiteral("6F9619FF-8B86-D011-B42D-00C04FC964FF");
        QTest::newRow("present members") << a << true << true;
        QTest::newRow("lower-case key") << a.toLower() << true << true;
        QTest::newRow("no member present") << a << false << false;
        QTest::newRow("invalid id") << "not a uuid" << true << false;
        QTest::newRow("unknown id")
            << OutputGroupCodec::uuidText(QUuid::createUuid()) << true << false;
        QTest::newRow("no key") << QString() << true << false;
    }

    void restoreAtLaunch() {
        QFETCH(QString, storedKey);
        QFETCH(bool, membersPresent);
        QFETCH(bool, expectOn);
        m_a.id = QUuid::fromString(QStringLiteral("6F9619FF-8B86-D011-B42D-00C04FC964FF"));
        m_rig->storeGroups({m_a});
        if (!membersPresent) {
            m_rig->hardware->removeDevice(m_rig->left);
            m_rig->hardware->removeDevice(m_rig->right);
        }
        if (!storedKey.isNull())
            m_rig->defaults->setString(storedKey, SettingsKeys::activeGroup);
        // A leftover of the last run, as quitting leaves it.
        AudioObjectID leftover = 0;
        m_rig->hardware->AudioHardwareCreateAggregateDevice(
            GroupManager::aggregateDescription("A", {m_rig->speakersUID}, m_rig->speakersUID,
                                               m_a.id),
            leftover);

        GroupManager& manager = m_rig->launch();

        QCOMPARE(manager.activeGroupID().has_value(), expectOn);
        if (expectOn) {
            QCOMPARE(*manager.activeGroupID(), m_a.id);
            QCOMPARE(m_rig->defaultOutput(), *manager.activeDeviceID());
            QVERIFY(*manager.activeDeviceID() != leftover);
            QCOMPARE(int(m_rig->hardware->aggregateDevices().size()), 1);
            QCOMPARE(m_rig->volumeOf(m_rig->left), 0.4f);
            QCOMPARE(m_rig->hardware->createAggregateCallCount(),
                     2); // the leftover, then ours once
        } else {
            QVERIFY(m_rig->hardware->aggregateDevices().empty());
        }
        // The key stays whatever the outcome; only deactivation removes it.
        if (!storedKey.isNull())
            QVERIFY(m_rig->defaults->objectForKey(SettingsKeys::activeGroup));
    }
    // The stored list loads data of every older version: each missing id is fresh, a missing
    // master is the first member. It fails as a whole on a corrupt entry, so the next save
    // replaces it instead of silently dropping one group.
    void missingKeysTakeTheirDefaults() {
        const auto groups = OutputGroupCodec::decode(R"([{},{"memberUIDs":["a","b"]}])");
        QVERIFY(groups);
        QCOMPARE(groups->size(), 2);
        for (const OutputGroup& group : *groups) {
            QVERIFY(!group.id.isNull());
            QCOMPARE(group.name, QStringLiteral("Group"));
            QCOMPARE(group.masterVolume, 0.65);
            QVERIFY(group.balance.isEmpty() && group.deviceNames.isEmpty());
        }
        QVERIFY(groups->at(0).id != groups->at(1).id);
        QCOMPARE(groups->at(0).memberUIDs, QStringList());
        QCOMPARE(groups->at(0).masterUID, QString());
        QCOMPARE(groups->at(1).memberUIDs, (QStringList{"a", "b"}));
        QCOMPARE(groups->at(1).masterUID, QStringLiteral("a"));
    }

    void oneWrongTypeFailsTheWholeArray_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("object") << QByteArray(R"({"name":"x"})");
        QTest::newRow("garbage") << QByteArray("[{");
        // One wrong entry beside a fine one.
        const auto after = [](const char* entry) {
            return R"([{"name":"Fine","memberUIDs":["a"]},)" + QByteArray(entry) + "]";
        };
        QTest::newRow("id number") << after(R"({"id":5})");
        QTest::newRow("id with braces")
            << after(R"({"id":"{6F9619FF-8B86-D011-B42D-00C04FC964FF}"})");
        QTest::newRow("name number") << after(R"({"name":1})");
        QTest::newRow("members text") << after(R"({"memberUIDs":"a"})");
        QTest::newRow("member number") << after(R"({"memberUIDs":["a",2]})");
        QTest::newRow("master array") << after(R"({"masterUID":["a"]})");
        QTest::newRow("volume text") << after(R"({"masterVolume":"0.5"})");
        QTest::newRow("balance array") << after(R"({"balance":[1]})");
        QTest::newRow("balance text value") << after(R"({"balance":{"a":"x"}})");
        QTest::newRow("names number value") << after(R"({"deviceNames":{"a":1}})");
        QTest::newRow("entry not object") << after(R"("group")");
    }

    void oneWrongTypeFailsTheWholeArray() {
        QFETCH(QByteArray, json);
        QVERIFY(!OutputGroupCodec::decode(json));
    }

    void roundTripKeepsEveryField() {
        OutputGroup group;
        group.id = QUuid::createUuid();
        group.name = QStringLiteral("Displays");
        group.memberUIDs = {QStringLiteral("b"), QStringLiteral("a")};
        group.masterUID = QStringLiteral("a");
        group.masterVolume = 0.3;
        group.balance = {{QStringLiteral("a"), 0.25}};
        group.deviceNames = {{QStringLiteral("b"), QStringLiteral("Left")}};
        OutputGroup other = group;
        other.id = QUuid::createUuid();
        other.memberUIDs.clear();
        const auto data = OutputGroupCodec::encode({group, other});
        QVERIFY(data);
        const auto decoded = OutputGroupCodec::decode(*data);
        QVERIFY(decoded);
        QCOMPARE(*decoded, (QList<OutputGroup>{group, other}));
        // A number JSON cannot hold writes nothing.
        group.masterVolume = std::numeric_limits<double>::quiet_NaN();
        QVERIFY(!OutputGroupCodec::encode({group}));
    }

    // The token table, row by row. R needs the headphones and switches to them; S needs the left
    // display and switches to it; the priority list holds the right display.
    void tokenDecidesWhatARunApplies_data() {
        // Token before ("", "R" or "fallback"), outcome ("R", "S", "none" or "off"), the device
        // that became the default ("" for none) and the token afterwards.
        QTest::addColumn<QString>("row");
        for (const char* row :
             {"|R|headphones|R", "|none||fallback", "R|R||R", "R|S|left|S", "R|none|right|fallback",
              "fallback|R|headphones|R", "fallback|none||fallback", "R|off||"})
            QTest::newRow(row) << QString(row);
    }
    void tokenDecidesWhatARunApplies() {
        QFETCH(QString, row);
        const QStringList fields = row.split(u'|');
        const QString &before = fields[0], &outcome = fields[1], &applied = fields[2],
                      &after = fields[3];
        AutoSwitchRig rig;
        rig.defaults->setBool(false, SettingsKeys::autoSwitchGroups); // quiet while setting up
        GroupManager& manager = rig.launch();
        const AudioRule r = rule({rig.headphonesUID}, RuleAction::device(rig.headphonesUID));
        const AudioRule s = rule({rig.leftUID}, RuleAction::device(rig.leftUID));
        manager.setRules({r, s});
        manager.setDevicePriority({rig.rightUID});
        if (outcome == "S" || outcome == "none")
            rig.unplug(rig.headphones);
        if (outcome == "none")
            rig.unplug(rig.left);
        rig.hardware->setDefaultOutputDevice(rig.speakers);
        settle();
        rig.defaults->setBool(outcome != "off", SettingsKeys::autoSwitchGroups);
        const QMap<QString, QString> tokens{{"R", tokenOf(r)}, {"S", tokenOf(s)}};
        auto token = [&](const QString& name) -> std::optional<QString> {
            if (name.isEmpty())
                return std::nullopt;
            return tokens.value(name, name);
        };
        manager.setLastAppliedToken(token(before));
        const int writesBefore = rig.defaultOutputWrites();

        manager.evaluateRules();
        settle();

        const QMap<QString, AudioObjectID> devices{
            {"headphones", rig.headphones}, {"left", rig.left}, {"right", rig.right}};
        QCOMPARE(rig.defaultOutputWrites() - writesBefore, applied.isEmpty() ? 0 : 1);
        QCOMPARE(rig.defaultOutput(), applied.isEmpty() ? rig.speakers : devices.value(applied));
        QCOMPARE(manager.lastAppliedToken(), token(after));
    }

    // The first rule that fits wins; one that does not fit lets the next one, which switches to
    // the right display, apply.
    void firstFittingRuleWins_data() {
        QTest::addColumn<QString>("first");
        QTest::newRow("the first fits too") << "fits";
        QTest::newRow("its group was deleted") << "group deleted";
        QTest::newRow("its device is only an input") << "input only";
        QTest::newRow("disabled") << "disabled";
        QTest::newRow("no required devices") << "none required";
    }
    void firstFittingRuleWins() {
        QFETCH(QString, first);
        AutoSwitchRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID});
        GroupManager& manager = rig.launchWith({displays});
        AudioRule earlier = rule({rig.headphonesUID}, RuleAction::group(displays.id));
        if (first == "fits")
            earlier = rule({rig.headphonesUID}, RuleAction::device(rig.headphonesUID));
        else if (first == "group deleted")
            manager.deleteGroup(displays);
        else if (first == "input only")
            earlier = rule({kMicUID}, RuleAction::device(rig.headphonesUID));
        else if (first == "disabled")
            earlier.enabled = false;
        else if (first == "none required")
            earlier.requiredDeviceUIDs.clear();
        const AudioRule later = rule({rig.headphonesUID}, RuleAction::device(rig.rightUID));
        manager.setRules({earlier, later});
        manager.evaluateRules();
        settle();
        const bool fits = first == "fits";
        QCOMPARE(rig.defaultOutput(), fits ? rig.headphones : rig.right);
        QCOMPARE(manager.lastAppliedToken(), std::optional(tokenOf(fits ? earlier : later)));
        QVERIFY(!manager.activeGroupID());
    }

    // The first evaluation that sees filled lists applies the rule, whatever the restore did.
    void fittingRuleWinsOverTheStoredActiveGroupAtLaunch() {
        AutoSwitchRig rig;
        const OutputGroup stored = makeGroup("Stored", {rig.leftUID, rig.rightUID});
        const OutputGroup ruled = makeGroup("Ruled", {rig.headphonesUID, rig.speakersUID});
        rig.storeGroups({stored, ruled});
        rig.defaults->setString(OutputGroupCodec::uuidText(stored.id), SettingsKeys::activeGroup);
        const AudioRule onHeadphones = rule({rig.headphonesUID}, RuleAction::group(ruled.id));
        rig.defaults->setData(AudioRuleCodec::encode({onHeadphones}), SettingsKeys::rules);

        GroupManager& manager = rig.launch();

        QCOMPARE(manager.activeGroupID(), std::optional<QUuid>(ruled.id));
        QCOMPARE(int(rig.hardware->aggregateDevices().size()), 1);
        QCOMPARE(rig.defaultOutput(), *manager.activeDeviceID());
        QCOMPARE(manager.lastAppliedToken(), std::optional(tokenOf(onHeadphones)));
    }

    // A rule puts the displays group on while the headphones are there; then they go. The server
    // would pick the speakers itself.
    void unpluggingEndsTheRuleThroughThePriorityList_data() {
        QTest::addColumn<QStringList>("priority");
        QTest::addColumn<QStringList>("hidden");
        QTest::addColumn<QString>("expected"); // the default afterwards
        const QString right = GroupTestRig::rightUID;
        // The group's own aggregate is connected while the fallback runs, and is never picked.
        const QString ours = QStringLiteral("<the group's aggregate>");
        QTest::newRow("hidden under a drifted UID: passed over and repaired")
            << QStringList{right, GroupTestRig::speakersUID} << QStringList{kDriftedRightUID}
            << "speakers";
        QTest::newRow("no usable entry gives the previous output back")
            << QStringList{ours, "gone", right} << QStringList{right} << "left";
    }
    void unpluggingEndsTheRuleThroughThePriorityList() {
        QFETCH(QStringList, priority);
        QFETCH(QStringList, hidden);
        QFETCH(QString, expected);
        AutoSwitchRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID});
        priority.replaceInStrings("<the group's aggregate>",
                                  GroupManager::aggregateUID(displays.id));
        rig.defaults->setStringArray(priority, SettingsKeys::devicePriority);
        rig.defaults->setStringArray(hidden, SettingsKeys::hiddenDevices);
        rig.hardware->setDefaultOutputDevice(rig.left); // the output before the rule
        GroupManager& manager = rig.launchWith({displays});
        manager.addRule({rig.headphonesUID}, RuleAction::group(displays.id));
        QCOMPARE(manager.activeGroupID(), std::optional<QUuid>(displays.id));

        rig.unplug(rig.headphones);

        const QMap<QString, AudioObjectID> devices{
            {"left", rig.left}, {"right", rig.right}, {"speakers", rig.speakers}};
        QCOMPARE(rig.defaultOutput(), devices.value(expected));
        QVERIFY(!manager.activeGroupID());
        QVERIFY(rig.hardware->aggregateDevices().empty());
        QCOMPARE(manager.lastAppliedToken(), std::optional(AutoSwitchToken::fallback));
        QCOMPARE(rig.defaults->stringArrayForKey(SettingsKeys::hiddenDevices),
                 std::optional(QStringList{rig.rightUID}));
    }

    // An input rule for the headset's microphone; it goes again.
    void inputSideSwitchesAndNeverFallsBackToNothing_data() {
        QTest::addColumn<QStringList>("priority");
        QTest::addColumn<bool>("priorityEntryApplies");
        QTest::newRow("usable entry") << QStringList{"gone", kMicUID} << true;
        QTest::newRow("empty list") << QStringList{} << false;
        QTest::newRow("hidden entry only") << QStringList{"hidden:mic"} << false;
    }
    void inputSideSwitchesAndNeverFallsBackToNothing() {
        QFETCH(QStringList, priority);
        QFETCH(bool, priorityEntryApplies);
        AutoSwitchRig rig;
        rig.defaults->setStringArray({"hidden:mic"}, SettingsKeys::hiddenInputDevices);
        rig.addInput("hidden:mic", "Hidden Microphone");
        GroupManager& manager = rig.launch();
        manager.setInputPriority(priority);
        manager.saveInputPriority();
        const AudioObjectID headset = rig.addInput(kHeadsetMicUID, "Headset");
        settle();
        // A group action never fits on the input side, and an output never fits as an input.
        manager.addInputRule({kHeadsetMicUID}, RuleAction::group(QUuid::createUuid()));
        manager.addInputRule({rig.headphonesUID}, RuleAction::device(kHeadsetMicUID));
        QCOMPARE(rig.audio->readDefaultInputID(), rig.mic);
        manager.addInputRule({kHeadsetMicUID}, RuleAction::device(kHeadsetMicUID));
        settle();
        QCOMPARE(rig.audio->readDefaultInputID(), headset);
        QCOMPARE(rig.audio->defaultInputID(), headset); // refreshed after the write

        // Another input picked by hand meanwhile; when the headset goes, Ondril writes only a
        // usable priority entry.
        rig.hardware->setDefaultInputDevice(*rig.hardware->deviceWithUID("hidden:mic"));
        settle();
        const int writes = rig.defaultInputWrites();
        rig.unplug(headset);
        QCOMPARE(rig.defaultInputWrites() - writes, priorityEntryApplies ? 1 : 0);
        QCOMPARE(rig.audio->readDefaultInputID(),
                 priorityEntryApplies ? rig.mic : *rig.hardware->deviceWithUID("hidden:mic"));
    }

    // The stored form: strict, all keys required, any error fails the whole list.
    void storedRulesDecodeStrictly_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<int>("count"); // -1: the list fails
        const QByteArray id = R"("id":"6F9619FF-8B86-D011-B42D-00C04FC964FF")";
        const QByteArray req = R"("requiredDeviceUIDs":["a","b"])";
        const QByteArray group = R"("group":{"_0":"0E0C1F1A-58B4-4C35-9A57-1D5A3E0F7C11"})";
        const QByteArray device = R"("action":{"device":{"_0":"x"}})";
        QTest::newRow("device and group, keys in any order")
            << "[{" + id + R"(,"enabled":true,)" + device + "," + req + "},{" +
                   R"("enabled":false,)" + req + "," + id + R"(,"action":{)" + group + "}}]"
            << 2;
        QTest::newRow("action with two keys") << "[{" + id + "," + req + R"(,"action":{)" + group +
                                                     R"(,"device":{"_0":"x"}},"enabled":true}])"
                                              << -1;
        QTest::newRow("one good rule, one without enabled")
            << "[{" + id + "," + req + "," + device + R"(,"enabled":true},{)" + id + "," + req +
                   "," + device + "}]"
            << -1;
        QTest::newRow("payload without _0")
            << "[{" + id + "," + req + R"(,"action":{"device":"x"},"enabled":true}])" << -1;
        QTest::newRow("id not a UUID")
            << R"([{"id":"nope",)" + req + "," + device + R"(,"enabled":true}])" << -1;
    }
    void storedRulesDecodeStrictly() {
        QFETCH(QByteArray, json);
        QFETCH(int, count);
        const auto rules = AudioRuleCodec::decodeList(json);
        QCOMPARE(rules ? int(rules->size()) : -1, count);
        if (rules) // written back, it reads the same
            QCOMPARE(AudioRuleCodec::decodeList(AudioRuleCodec::encode(*rules)), rules);
    }

    void priorityListsLoadWithTheOldFallbackMigrated_data() {
        QTest::addColumn<QVariant>("stored"); // under "ondril.devicePriority"; invalid: absent
        QTest::addColumn<QStringList>("expected");
        QTest::addColumn<QStringList>("storedAfter");
        const QString old = QStringLiteral("old:fallback");
        QTest::newRow("old key migrates") << QVariant() << QStringList{old} << QStringList{old};
        QTest::newRow("a number among texts counts as missing")
            << QVariant(QVariantList{"a", 3.0}) << QStringList{old} << QStringList{old};
        QTest::newRow("stored list wins")
            << QVariant(QVariantList{"a"}) << QStringList{"a"} << QStringList{"a"};
        QTest::newRow("empty stored list stops the migration")
            << QVariant(QVariantList{}) << QStringList{} << QStringList{};
    }
    void priorityListsLoadWithTheOldFallbackMigrated() {
        QFETCH(QVariant, stored);
        QFETCH(QStringList, expected);
        QFETCH(QStringList, storedAfter);
        AutoSwitchRig rig;
        rig.defaults->setString("old:fallback", SettingsKeys::fallbackDevice);
        if (stored.isValid())
            rig.defaults->setObject(stored, SettingsKeys::devicePriority);
        GroupManager& manager = rig.launch();
        QCOMPARE(manager.devicePriority(), expected);
        QCOMPARE(rig.defaults->stringArrayForKey(SettingsKeys::devicePriority),
                 std::optional(storedAfter));
        QCOMPARE(rig.defaults->stringForKey(SettingsKeys::fallbackDevice),
                 std::optional<QString>("old:fallback")); // left in place
    }
};

QTEST_GUILESS_MAIN(TestGroupManager)
#include "tst_groupmanager.moc"
