#include "GroupTestRig.h"

#include <QtTest>

#include <cmath>

// Group volume is written as each member's own device volume: master × balance, or 0 while muted.
class TestGroupVolume : public QObject {
    Q_OBJECT

    static OutputGroup storedGroup(GroupTestRig& rig, const QUuid& id) {
        const auto groups =
            OutputGroupCodec::decode(*rig.defaults->dataForKey(SettingsKeys::groups));
        for (const OutputGroup& group : *groups)
            if (group.id == id)
                return group;
        return {};
    }

private slots:
    void nonFiniteValuesNeverReachTheStoredList() {
        GroupTestRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID});
        GroupManager& manager = rig.launchWith({displays});
        QVERIFY(manager.activate(displays));
        const double nan = std::nan("");
        manager.setMasterVolume(displays, nan);
        manager.setBalance(displays, rig.rightUID, nan);
        QVERIFY(!manager.stepGroupVolume(nan));
        QVERIFY(!rig.audio->setVolume(std::nanf(""), rig.left));
        QCOMPARE(rig.volumeOf(rig.left), 0.65f);

        // Infinities clamp, and the list is saved again as a whole.
        manager.setBalance(displays, rig.rightUID, -HUGE_VAL);
        manager.setMasterVolume(displays, HUGE_VAL);
        QCOMPARE(storedGroup(rig, displays.id).masterVolume, 1.0);
        QCOMPARE(storedGroup(rig, displays.id).balance.value(rig.rightUID), 0.0);
        QCOMPARE(rig.volumeOf(rig.right), 0.0f);
    }

    void inactiveGroupStoresWithoutTouchingDevices() {
        GroupTestRig rig;
        const OutputGroup a = makeGroup("A", {rig.leftUID});
        const OutputGroup b = makeGroup("B", {rig.rightUID});
        GroupManager& manager = rig.launchWith({a, b});
        QVERIFY(manager.activate(a));
        const int writes = rig.hardware->setPropertyCallCount(kAudioDevicePropertyVolumeScalar);
        manager.setMasterVolume(b, 0.1);
        manager.setBalance(b, rig.rightUID, 0.1);
        QCOMPARE(rig.hardware->setPropertyCallCount(kAudioDevicePropertyVolumeScalar), writes);
        QCOMPARE(storedGroup(rig, b.id).masterVolume, 0.1);
        QCOMPARE(rig.volumeOf(rig.right), 0.5f);
    }

    void unknownGroupChangesNothing() {
        GroupTestRig rig;
        GroupManager& manager = rig.launchWith({makeGroup("A", {rig.leftUID})});
        const QByteArray before = *rig.defaults->dataForKey(SettingsKeys::groups);
        manager.setMasterVolume(makeGroup("Stranger", {rig.leftUID}), 0.2);
        manager.setBalance(makeGroup("Stranger", {rig.leftUID}), rig.leftUID, 0.2);
        QCOMPARE(*rig.defaults->dataForKey(SettingsKeys::groups), before);
    }

    void staleCopyChangesOnlyTheMaster() {
        GroupTestRig rig;
        const OutputGroup stale = makeGroup("Displays", {rig.leftUID, rig.rightUID}, {}, 0.5);
        GroupManager& manager = rig.launchWith({stale});
        QVERIFY(manager.activate(stale));
        manager.setBalance(stale, rig.leftUID, 0.5);
        manager.setMasterVolume(stale, 0.8); // the copy still has no balance

        const OutputGroup stored = storedGroup(rig, stale.id);
        QCOMPARE(stored.masterVolume, 0.8);
        QCOMPARE(stored.balance.value(rig.leftUID), 0.5);
        QCOMPARE(rig.volumeOf(rig.left), 0.4f);
        QCOMPARE(rig.volumeOf(rig.right), 0.8f);
    }

    void masterSetWhileMutedIsStoredForTheUnmute() {
        GroupTestRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID}, {}, 0.6);
        GroupManager& manager = rig.launchWith({displays});
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
        QTest::newRow("group: past zero") << true << 0.03 << false << -0.0625 << 0.0;
        QTest::newRow("device: up unmutes") << false << 0.5 << true << 0.0625 << 0.5625;
        QTest::newRow("device: clamped at one") << false << 0.5 << true << 0.75 << 1.0;
        QTest::newRow("device: clamped at zero") << false << 0.5 << true << -0.75 << 0.0;
        QTest::newRow("device: zero keeps the mute") << false << 0.5 << true << 0.0 << 0.5;
    }

    void steps() {
        QFETCH(bool, withGroup);
        QFETCH(double, start);
        QFETCH(bool, muted);
        QFETCH(double, delta);
        QFETCH(double, expected);
        const bool mutedAfter = muted && delta == 0.0;
        GroupTestRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID}, {}, start);
        GroupManager& manager = rig.launchWith({displays});
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
            QCOMPARE(storedGroup(rig, displays.id).masterVolume, expected);
            QCOMPARE(rig.volumeOf(rig.left), member);
            QCOMPARE(rig.volumeOf(rig.right), member);
        } else {
            QCOMPARE(rig.volumeOf(rig.speakers), float(expected));
            QCOMPARE(rig.audio->isMuted(rig.speakers), std::optional<bool>(mutedAfter));
        }
    }

    // Without a group on, the tray's middle click mutes and unmutes the default output itself.
    void toggleMuteWithoutAGroupTogglesTheDefaultOutput() {
        GroupTestRig rig;
        GroupManager& manager = rig.launch();
        QVERIFY(manager.toggleMute());
        QCOMPARE(rig.audio->isMuted(rig.speakers), std::optional<bool>(true));
        QVERIFY(manager.toggleMute());
        QCOMPARE(rig.audio->isMuted(rig.speakers), std::optional<bool>(false));
    }
};

QTEST_GUILESS_MAIN(TestGroupVolume)
#include "tst_group_volume.moc"
