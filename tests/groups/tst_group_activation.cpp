#include "GroupTestRig.h"

#include <QSignalSpy>
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

// "uid/drift compensation" of each subdevice of an aggregate, in order.
static QStringList subdevices(const QVariantMap& description) {
    QStringList entries;
    for (const QVariant& entry : description.value(kAudioAggregateDeviceSubDeviceListKey).toList())
        entries.append(entry.toMap().value(kAudioSubDeviceUIDKey).toString() + u'/' +
                       entry.toMap().value(kAudioSubDeviceDriftCompensationKey).toString());
    return entries;
}

// Activation, the three group states and every way between them, on the simulated service.
class TestGroupActivation : public QObject {
    Q_OBJECT

private slots:
    // The master is absent: the first present member leads, the others follow its clock.
    void activateTurnsGroupOnAsOneDefaultOutput() {
        GroupTestRig rig;
        const QString gone = QStringLiteral("usb:Gone:Device:1:1");
        const OutputGroup displays =
            makeGroup("Both Displays", {rig.headphonesUID, gone, rig.leftUID}, gone, 0.5);
        GroupManager& manager = rig.launchWith({displays});
        QVERIFY(manager.activate(displays));

        QCOMPARE(manager.activeMemberUIDs(), (QStringList{rig.headphonesUID, rig.leftUID}));
        QCOMPARE(rig.defaultOutput(), *manager.activeDeviceID());
        QCOMPARE(rig.volumeOf(rig.left), 0.5f);
        QCOMPARE(rig.volumeOf(rig.speakers), 0.5f); // the simulated default, untouched
        const QVariantMap description =
            rig.hardware->aggregateDescription(*manager.activeDeviceID());
        QCOMPARE(description.value("name").toString(), QStringLiteral("Both Displays"));
        QCOMPARE(description.value("master").toString(), rig.headphonesUID);
        QCOMPARE(subdevices(description),
                 (QStringList{rig.headphonesUID + "/0", rig.leftUID + "/1"}));
        QCOMPARE(manager.activeGroup()->masterUID, gone); // the stored master is not rewritten
    }

    void memberMatchedByStableKeyKeepsItsStoredUID() {
        auto recording = std::make_unique<RecordingHardware>();
        RecordingHardware& service = *recording;
        GroupTestRig rig(std::move(recording));
        const QString drifted =
            QStringLiteral("usb:Acme:LeftDisplay:7777:1,2"); // same stable key as left
        const OutputGroup displays = makeGroup("Displays", {drifted, rig.rightUID}, drifted);
        GroupManager& manager = rig.launchWith({displays});
        manager.activate(displays); // whether the service takes a stale UID is its own affair

        QCOMPARE(service.descriptions.size(), 1);
        const QVariantMap description = service.descriptions.first();
        QCOMPARE(subdevices(description), (QStringList{drifted + "/0", rig.rightUID + "/1"}));
        QCOMPARE(description.value("master").toString(), drifted);
    }

    void activateWithoutPresentMembersChangesNothing() {
        GroupTestRig rig;
        const OutputGroup absent = makeGroup("Away", {"usb:Gone:A:1:1", "usb:Gone:B:1:1"});
        GroupManager& manager = rig.launchWith({absent});
        QVERIFY(!manager.activate(absent));
        QCOMPARE(manager.activeGroupID(), std::nullopt);
        QCOMPARE(rig.hardware->createAggregateCallCount(), 0);
        QCOMPARE(rig.defaultOutput(), rig.speakers);
        QVERIFY(!rig.defaults->objectForKey(SettingsKeys::activeGroup));
    }

    void deactivateWithThePreviousOutputGone() {
        GroupTestRig rig;
        rig.hardware->setDefaultOutputDevice(rig.headphones);
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID});
        GroupManager& manager = rig.launchWith({displays});
        QVERIFY(manager.activate(displays));
        settle();
        rig.hardware->removeDevice(rig.headphones);
        settle();
        const AudioObjectID aggregate = *manager.activeDeviceID();

        manager.deactivate();

        QCOMPARE(manager.activeGroupID(), std::nullopt);
        QCOMPARE(manager.activeDeviceID(), std::nullopt);
        QVERIFY(manager.activeMemberUIDs().isEmpty());
        QCOMPARE(manager.previousOutputUID(), std::nullopt);
        QVERIFY(!rig.defaults->objectForKey(SettingsKeys::activeGroup));
        QVERIFY(rig.hardware->aggregateDescription(aggregate).isEmpty());
        QVERIFY(rig.defaultOutput() != rig.headphones);
    }

    void failedActivationLeavesTheGroupOnWithoutAggregate_data() {
        QTest::addColumn<bool>("retryFails");
        QTest::newRow("retry builds") << false;
        QTest::newRow("retry fails too") << true;
    }

    void failedActivationLeavesTheGroupOnWithoutAggregate() {
        QFETCH(bool, retryFails);
        GroupTestRig rig;
        const OutputGroup a = makeGroup("A", {rig.leftUID, rig.rightUID});
        const OutputGroup b = makeGroup("B", {rig.headphonesUID});
        GroupManager& manager = rig.launchWith({a, b});
        QVERIFY(manager.activate(a));
        manager.toggleGroupMute();
        settle();
        const QString storedKey = *rig.defaults->stringForKey(SettingsKeys::activeGroup);

        rig.hardware->failNextAggregateCreation();
        QVERIFY(!manager.activate(b));

        QCOMPARE(manager.activeGroupID(), std::optional<QUuid>(a.id));
        QCOMPARE(manager.activeDeviceID(), std::nullopt);
        QVERIFY(manager.activeMemberUIDs().isEmpty());
        QCOMPARE(manager.isMuted(), true);
        QCOMPARE(*rig.defaults->stringForKey(SettingsKeys::activeGroup), storedKey);
        QVERIFY(rig.hardware->aggregateDevices().empty());

        if (retryFails)
            rig.hardware->failNextAggregateCreation();
        manager.reconcile();

        if (retryFails) {
            QCOMPARE(manager.activeGroupID(), std::nullopt);
            QVERIFY(!rig.defaults->objectForKey(SettingsKeys::activeGroup));
            QCOMPARE(rig.defaultOutput(), rig.speakers);
        } else {
            QCOMPARE(manager.activeGroupID(), std::optional<QUuid>(a.id));
            QVERIFY(manager.activeDeviceID());
            QCOMPARE(manager.activeMemberUIDs(), (QStringList{rig.leftUID, rig.rightUID}));
            QCOMPARE(rig.defaultOutput(), *manager.activeDeviceID());
            QCOMPARE(manager.isMuted(), true); // reconcile keeps the mute
            QCOMPARE(rig.volumeOf(rig.left), 0.0f);
        }
    }

    void memberGoneBetweenCheckAndBuildFailsActivation() {
        // The published list still shows the member, the service no longer has it.
        GroupTestRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID});
        GroupManager& manager = rig.launchWith({displays});
        rig.hardware->removeDevice(rig.right); // not yet settled: the lists are stale

        QVERIFY(!manager.activate(displays));

        QCOMPARE(manager.activeGroupID(), std::nullopt);
        QCOMPARE(manager.activeDeviceID(), std::nullopt);
        QVERIFY(rig.hardware->aggregateDevices().empty());
        QVERIFY(!rig.defaults->objectForKey(SettingsKeys::activeGroup));
        QCOMPARE(rig.defaultOutput(), rig.speakers);
        settle();
        QCOMPARE(manager.activeGroupID(), std::nullopt); // an off group is not retried

        QVERIFY(manager.activate(displays)); // on the fresh list, from what is left
        QCOMPARE(manager.activeMemberUIDs(), QStringList{rig.leftUID});
        QCOMPARE(manager.previousOutputUID(), std::optional<QString>(rig.speakersUID));
    }

    void memberGoneBetweenCheckAndBuildInReconcileDeactivates() {
        GroupTestRig rig;
        const OutputGroup displays =
            makeGroup("Displays", {rig.leftUID, rig.rightUID, rig.headphonesUID});
        GroupManager& manager = rig.launchWith({displays});
        rig.hardware->removeDevice(rig.headphones);
        settle();
        QVERIFY(manager.activate(displays));
        settle();
        // Headphones come back and right goes, the list shows only the first change yet.
        rig.addOutput(rig.headphonesUID, "Headphones");
        rig.audio->refresh();
        QCoreApplication::sendPostedEvents(rig.audio.get());
        rig.hardware->removeDevice(rig.right);
        manager.reconcile();
        QCOMPARE(manager.activeGroupID(), std::nullopt);
        QCOMPARE(rig.defaultOutput(), rig.speakers);
    }

    void switchToDeviceLeavesTheGroup() {
        GroupTestRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID});
        GroupManager& manager = rig.launchWith({displays});
        QVERIFY(manager.activate(displays));
        manager.toggleGroupMute();
        settle();

        manager.switchToDevice(rig.headphones);
        settle();

        QCOMPARE(rig.defaultOutput(), rig.headphones);
        QCOMPARE(rig.audio->defaultOutputID(), rig.headphones);
        QCOMPARE(manager.activeGroupID(), std::nullopt);
        QCOMPARE(manager.previousOutputUID(), std::nullopt);
        QCOMPARE(manager.isMuted(), false);
        QVERIFY(rig.hardware->aggregateDevices().empty());
        QVERIFY(!rig.defaults->objectForKey(SettingsKeys::activeGroup));
        manager.deactivate(); // nothing left to give back
        QCOMPARE(rig.defaultOutput(), rig.headphones);
    }

    void deletingTheActiveGroupRestoresOutputBeforeTheRecordGoes() {
        GroupTestRig rig;
        const OutputGroup a = makeGroup("A", {rig.leftUID, rig.rightUID});
        const OutputGroup b = makeGroup("B", {rig.headphonesUID});
        GroupManager& manager = rig.launchWith({a, b});
        QVERIFY(manager.activate(a));
        settle();
        std::optional<QUuid> told;
        int storedAtHook = -1;
        manager.onGroupDeleted = [&](const QUuid& id) {
            told = id;
            storedAtHook = int(
                OutputGroupCodec::decode(*rig.defaults->dataForKey(SettingsKeys::groups))->size());
        };

        manager.deleteGroup(a);

        QCOMPARE(told, std::optional<QUuid>(a.id));
        QCOMPARE(storedAtHook, 1);
        QCOMPARE(manager.groups().size(), 1);
        QCOMPARE(manager.groups().first().id, b.id);
        QCOMPARE(rig.defaultOutput(), rig.speakers);
        QCOMPARE(manager.activeGroupID(), std::nullopt);
    }

    void leftoverGroupAggregateAsDefaultIsNotCaptured() {
        GroupTestRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID});
        GroupManager& manager = rig.launchWith({displays});
        AudioObjectID leftover = 0;
        const QVariantMap description = GroupManager::aggregateDescription(
            "Other run", {rig.headphonesUID}, rig.headphonesUID, QUuid::createUuid());
        QCOMPARE(rig.hardware->AudioHardwareCreateAggregateDevice(description, leftover),
                 kAudioHardwareNoError);
        rig.hardware->setDefaultOutputDevice(leftover);
        settle();

        QVERIFY(manager.activate(displays));
        QCOMPARE(manager.previousOutputUID(), std::nullopt);
    }

    void activatingTheActiveGroupWithSameMembersOnlyAppliesVolumes() {
        GroupTestRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID}, {}, 0.4);
        GroupManager& manager = rig.launchWith({displays});
        QVERIFY(manager.activate(displays));
        settle();
        manager.toggleGroupMute();
        manager.toggleGroupMute();
        manager.toggleGroupMute(); // muted
        const int creates = rig.hardware->createAggregateCallCount();
        const AudioObjectID aggregate = *manager.activeDeviceID();
        rig.hardware->setDefaultOutputDevice(rig.headphones); // the default is not touched either
        rig.hardware->setDeviceVolume(rig.left, 0, 0.9f);
        settle();

        OutputGroup reordered = displays; // member order does not count
        reordered.memberUIDs = {rig.rightUID, rig.leftUID};
        QVERIFY(manager.activate(reordered));

        QCOMPARE(rig.hardware->createAggregateCallCount(), creates);
        QCOMPARE(*manager.activeDeviceID(), aggregate);
        QCOMPARE(rig.defaultOutput(), rig.headphones);
        QCOMPARE(manager.isMuted(), true);
        QCOMPARE(rig.volumeOf(rig.left), 0.0f);
    }

    void activatingTheActiveGroupAfterAMemberCameBackRebuildsAndUnmutes() {
        GroupTestRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID}, {}, 0.4);
        GroupManager& manager = rig.launchWith({displays});
        rig.hardware->removeDevice(rig.right);
        settle();
        QVERIFY(manager.activate(displays));
        manager.toggleGroupMute();
        // The member comes back but the list has not reached reconcile yet.
        const AudioObjectID right = rig.addOutput(rig.rightUID, "Right Display");
        rig.audio->refresh();
        QCoreApplication::sendPostedEvents(rig.audio.get());
        const int creates = rig.hardware->createAggregateCallCount();

        QVERIFY(manager.activate(displays));

        QCOMPARE(rig.hardware->createAggregateCallCount(), creates + 1);
        QCOMPARE(manager.isMuted(), false);
        QCOMPARE(manager.activeMemberUIDs(), (QStringList{rig.leftUID, rig.rightUID}));
        QCOMPARE(rig.volumeOf(right), 0.4f);
    }

    void ownChangesEndAtTheMemberComparison() {
        GroupTestRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID});
        GroupManager& manager = rig.launchWith({displays});
        QVERIFY(manager.activate(displays));
        manager.setMasterVolume(displays, 0.2);
        settle();
        QCOMPARE(rig.hardware->createAggregateCallCount(), 1);

        // An unrelated device plugged in reaches reconcile through the queued lists, and ends
        // there.
        QSignalSpy lists(rig.audio.get(), &AudioDeviceManager::outputDevicesChanged);
        rig.addOutput("usb:Acme:Dock:1:1,2", "Dock");
        settle();
        QVERIFY(lists.count() >= 1);
        QCOMPARE(rig.hardware->createAggregateCallCount(), 1);
        QCOMPARE(rig.hardware->destroyAggregateCallCount(), 0);
    }

    void wakeReconcilesAfterADelay() {
        GroupTestRig rig;
        const OutputGroup a = makeGroup("A", {rig.leftUID, rig.rightUID});
        const OutputGroup b = makeGroup("B", {rig.headphonesUID});
        GroupManager& manager = rig.launchWith({a, b});
        QVERIFY(manager.activate(a));
        settle();
        // What changed while asleep is not announced by the lists, as after a resume.
        const QSignalBlocker quietLists(rig.audio.get());
        rig.hardware->failNextAggregateCreation();
        QVERIFY(!manager.activate(b)); // A on without aggregate: only a reconcile retries
        settle();
        QCOMPARE(manager.activeDeviceID(), std::nullopt);

        emit rig.sleepMonitor.didWake();
        settle();
        QCOMPARE(manager.activeDeviceID(), std::nullopt); // not at once

        QTRY_VERIFY_WITH_TIMEOUT(manager.activeDeviceID().has_value(), 5000);
        QCOMPARE(manager.activeGroupID(), std::optional<QUuid>(a.id));
        QCOMPARE(rig.defaultOutput(), *manager.activeDeviceID());
    }
};

QTEST_GUILESS_MAIN(TestGroupActivation)
#include "tst_group_activation.moc"
