#include "GroupTestRig.h"

#include <QtTest>

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

// Activation, the three group states and every way between them, on the simulated service. Most
// cases use A, both displays at 0.4, and B, the headphones.
class TestGroupActivation : public QObject {
    Q_OBJECT

    std::unique_ptr<GroupTestRig> m_rig;
    OutputGroup m_a;
    OutputGroup m_b;

    GroupManager& launch() { return m_rig->launchWith({m_a, m_b}); }

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

    void failedActivationLeavesTheGroupOnWithoutAggregate_data() {
        QTest::addColumn<bool>("retryFails");
        QTest::newRow("retry builds") << false;
        QTest::newRow("retry fails too") << true;
    }

    void failedActivationLeavesTheGroupOnWithoutAggregate() {
        QFETCH(bool, retryFails);
        GroupManager& manager = launch();
        QVERIFY(manager.activate(m_a));
        manager.toggleGroupMute();
        settle();
        const QString storedKey = *m_rig->defaults->stringForKey(SettingsKeys::activeGroup);

        m_rig->hardware->failNextAggregateCreation();
        QVERIFY(!manager.activate(m_b));

        QCOMPARE(manager.activeGroupID(), std::optional<QUuid>(m_a.id));
        QCOMPARE(manager.activeDeviceID(), std::nullopt);
        QVERIFY(manager.activeMemberUIDs().isEmpty());
        QCOMPARE(manager.isMuted(), true);
        QCOMPARE(*m_rig->defaults->stringForKey(SettingsKeys::activeGroup), storedKey);
        QVERIFY(m_rig->hardware->aggregateDevices().empty());

        if (retryFails)
            m_rig->hardware->failNextAggregateCreation();
        manager.reconcile();

        if (retryFails) {
            verifyOff(m_rig->speakers);
            return;
        }
        QCOMPARE(manager.activeGroupID(), std::optional<QUuid>(m_a.id));
        QCOMPARE(manager.activeMemberUIDs(), (QStringList{m_rig->leftUID, m_rig->rightUID}));
        QCOMPARE(m_rig->defaultOutput(), *manager.activeDeviceID());
        QCOMPARE(manager.isMuted(), true); // reconcile keeps the mute
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
        QCOMPARE(manager.groups().size(), 1);
        QCOMPARE(manager.groups().first().id, m_b.id);
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

    void wakeReconcilesAfterADelay() {
        GroupManager& manager = launch();
        QVERIFY(manager.activate(m_a));
        settle();
        // What changed while asleep is not announced by the lists, as after a resume.
        const QSignalBlocker quietLists(m_rig->audio.get());
        m_rig->hardware->failNextAggregateCreation();
        QVERIFY(!manager.activate(m_b)); // A on without aggregate: only a reconcile retries
        settle();
        QCOMPARE(manager.activeDeviceID(), std::nullopt);

        emit m_rig->sleepMonitor.didWake();
        settle();
        QCOMPARE(manager.activeDeviceID(), std::nullopt); // not at once

        QTRY_VERIFY_WITH_TIMEOUT(manager.activeDeviceID().has_value(), 5000);
        QCOMPARE(manager.activeGroupID(), std::optional<QUuid>(m_a.id));
        QCOMPARE(m_rig->defaultOutput(), *manager.activeDeviceID());
    }
};

QTEST_GUILESS_MAIN(TestGroupActivation)
#include "tst_group_activation.moc"
