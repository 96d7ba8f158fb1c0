#include "GroupTestRig.h"

#include <QtTest>

#include <cmath>

using Balance = QMap<QString, double>;

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
    void memberVolumeIsMasterTimesBalance_data() {
        QTest::addColumn<double>("master");
        QTest::addColumn<Balance>("balance");
        QTest::addColumn<float>("left");
        QTest::addColumn<float>("right");
        QTest::newRow("0.5 x 0.4") << 0.5 << Balance{{GroupTestRig::leftUID, 0.4}} << 0.2f << 0.5f;
        QTest::newRow("empty balance") << 0.8 << Balance{} << 0.8f << 0.8f;
        QTest::newRow("entry for a stranger")
            << 0.6 << Balance{{"usb:x:y:z:1", 0.1}} << 0.6f << 0.6f;
        QTest::newRow("both entries")
            << 1.0 << Balance{{GroupTestRig::leftUID, 0.25}, {GroupTestRig::rightUID, 0.75}}
            << 0.25f << 0.75f;
    }

    void memberVolumeIsMasterTimesBalance() {
        QFETCH(double, master);
        QFETCH(Balance, balance);
        QFETCH(float, left);
        QFETCH(float, right);
        GroupTestRig rig;
        OutputGroup displays =
            makeGroup("Displays", {rig.leftUID, rig.rightUID, "usb:Gone:X:1:1"}, {}, master);
        displays.balance = balance;
        GroupManager& manager = rig.launchWith({displays});
        QVERIFY(manager.activate(displays)); // an absent member is skipped without failure
        QCOMPARE(rig.volumeOf(rig.left), left);
        QCOMPARE(rig.volumeOf(rig.right), right);
    }

    void setValuesAreClampedAndSaved_data() {
        QTest::addColumn<double>("value");
        QTest::addColumn<double>("stored");
        QTest::newRow("below zero") << -0.2 << 0.0;
        QTest::newRow("zero") << 0.0 << 0.0;
        QTest::newRow("inside") << 0.3 << 0.3;
        QTest::newRow("one") << 1.0 << 1.0;
        QTest::newRow("above one") << 1.5 << 1.0;
    }

    void setValuesAreClampedAndSaved() {
        QFETCH(double, value);
        QFETCH(double, stored);
        GroupTestRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID});
        GroupManager& manager = rig.launchWith({displays});
        QVERIFY(manager.activate(displays));

        manager.setMasterVolume(displays, value);
        QCOMPARE(manager.groups().first().masterVolume, stored);
        QCOMPARE(storedGroup(rig, displays.id).masterVolume, stored);
        QCOMPARE(rig.volumeOf(rig.left), float(stored));

        manager.setMasterVolume(displays, 1.0);
        manager.setBalance(displays, rig.rightUID, value);
        QCOMPARE(storedGroup(rig, displays.id).balance.value(rig.rightUID), stored);
        QCOMPARE(rig.volumeOf(rig.right), float(stored));
        QCOMPARE(rig.volumeOf(rig.left), 1.0f);
    }

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

    void muteWritesZeroAndKeepsTheMaster() {
        GroupTestRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID}, {}, 0.6);
        GroupManager& manager = rig.launchWith({displays});
        QVERIFY(manager.activate(displays));

        manager.toggleGroupMute();
        QCOMPARE(manager.isMuted(), true);
        QCOMPARE(rig.volumeOf(rig.left), 0.0f);
        QCOMPARE(rig.volumeOf(rig.right), 0.0f);
        QCOMPARE(manager.activeGroup()->masterVolume, 0.6);
        QCOMPARE(rig.audio->isMuted(rig.left),
                 std::optional<bool>(false)); // mute controls untouched

        manager.setMasterVolume(displays, 0.9); // stores, does not unmute
        QCOMPARE(manager.isMuted(), true);
        QCOMPARE(rig.volumeOf(rig.left), 0.0f);

        manager.toggleGroupMute();
        QCOMPARE(manager.isMuted(), false);
        QCOMPARE(rig.volumeOf(rig.left), 0.9f);
    }

    void stepsWhileMuted_data() {
        QTest::addColumn<double>("delta");
        QTest::addColumn<bool>("mutedAfter");
        QTest::addColumn<double>("masterAfter");
        QTest::addColumn<float>("memberAfter");
        QTest::newRow("up unmutes") << 0.05 << false << 0.55 << 0.55f;
        QTest::newRow("down unmutes") << -0.05 << false << 0.45 << 0.45f;
        QTest::newRow("zero step stays muted") << 0.0 << true << 0.5 << 0.0f;
    }

    void stepsWhileMuted() {
        QFETCH(double, delta);
        QFETCH(bool, mutedAfter);
        QFETCH(double, masterAfter);
        QFETCH(float, memberAfter);
        GroupTestRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID}, {}, 0.5);
        GroupManager& manager = rig.launchWith({displays});
        QVERIFY(manager.activate(displays));
        manager.toggleGroupMute();

        const auto result = manager.stepGroupVolume(delta);

        QVERIFY(result);
        QCOMPARE(result->muted, mutedAfter);
        QVERIFY(qFuzzyCompare(result->volume, masterAfter));
        QCOMPARE(manager.isMuted(), mutedAfter);
        QVERIFY(qFuzzyCompare(storedGroup(rig, displays.id).masterVolume, masterAfter));
        QCOMPARE(rig.volumeOf(rig.left), memberAfter);
        QCOMPARE(rig.volumeOf(rig.right), memberAfter);
        // stepVolume takes the same road while a group is on.
        const auto again = manager.stepVolume(0.0);
        QVERIFY(again);
        QCOMPARE(again->muted, mutedAfter);
    }

    void groupStepsAreClamped_data() {
        QTest::addColumn<double>("start");
        QTest::addColumn<double>("delta");
        QTest::addColumn<double>("expected");
        QTest::newRow("past one") << 0.98 << 0.0625 << 1.0;
        QTest::newRow("past zero") << 0.03 << -0.0625 << 0.0;
    }

    void groupStepsAreClamped() {
        QFETCH(double, start);
        QFETCH(double, delta);
        QFETCH(double, expected);
        GroupTestRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID}, {}, start);
        GroupManager& manager = rig.launchWith({displays});
        QVERIFY(manager.activate(displays));
        const auto result = manager.stepGroupVolume(delta);
        QVERIFY(result);
        QCOMPARE(result->volume, expected);
        QCOMPARE(rig.volumeOf(rig.left), float(expected));
    }

    void toggleMuteWithAGroupReportsTheMaster() {
        GroupTestRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID}, {}, 0.3);
        GroupManager& manager = rig.launchWith({displays});
        QVERIFY(!manager.stepGroupVolume(0.1)); // no group on: nothing to report
        QVERIFY(manager.activate(displays));
        const auto muted = manager.toggleMute();
        QVERIFY(muted);
        QCOMPARE(*muted, (VolumeState{0.3, true}));
        QCOMPARE(*manager.toggleMute(), (VolumeState{0.3, false}));
    }

    void toggleMuteWithoutAGroupWorksOnTheDefaultDevice() {
        GroupTestRig rig;
        GroupManager& manager = rig.launch();
        rig.hardware->setDeviceVolume(rig.speakers, 0, 0.25f);
        settle();
        const auto muted = manager.toggleMute();
        QVERIFY(muted);
        QCOMPARE(muted->muted, true);
        QCOMPARE(muted->volume, 0.25);
        QCOMPARE(rig.audio->isMuted(rig.speakers), std::optional<bool>(true));
        QCOMPARE(manager.toggleMute()->muted, false);
        QCOMPARE(rig.audio->isMuted(rig.speakers), std::optional<bool>(false));
    }

    void toggleMuteWithoutMuteControlReportsNothing() {
        GroupTestRig rig;
        SimulatedAudioHardware::DeviceSpec spec;
        spec.uid = "hdmi:TV:Screen:1:1";
        spec.name = "TV";
        spec.mute = std::nullopt;
        const AudioObjectID tv = rig.hardware->addDevice(spec);
        rig.hardware->setDefaultOutputDevice(tv);
        GroupManager& manager = rig.launch();
        QVERIFY(!manager.toggleMute());
    }

    void stepVolumeWithoutAGroupWorksOnTheDefaultDevice_data() {
        QTest::addColumn<double>("delta");
        QTest::addColumn<double>("expected");
        QTest::addColumn<bool>("mutedAfter");
        QTest::newRow("up unmutes") << 0.0625 << 0.5625 << false;
        QTest::newRow("clamped at one") << 0.75 << 1.0 << false;
        QTest::newRow("clamped at zero") << -0.75 << 0.0 << false;
        QTest::newRow("zero keeps the mute") << 0.0 << 0.5 << true;
    }

    void stepVolumeWithoutAGroupWorksOnTheDefaultDevice() {
        QFETCH(double, delta);
        QFETCH(double, expected);
        QFETCH(bool, mutedAfter);
        GroupTestRig rig;
        GroupManager& manager = rig.launch();
        rig.audio->setMute(true, rig.speakers);
        const auto result = manager.stepVolume(delta);
        QVERIFY(result);
        QCOMPARE(result->volume, expected);
        QCOMPARE(result->muted, false); // reported as not muted, as the overlay shows it
        QCOMPARE(rig.volumeOf(rig.speakers), float(expected));
        QCOMPARE(rig.audio->isMuted(rig.speakers), std::optional<bool>(mutedAfter));
    }

    void stepVolumeWithoutReadableVolumeReportsNothing() {
        GroupTestRig rig;
        SimulatedAudioHardware::DeviceSpec spec;
        spec.uid = "hdmi:TV:Screen:1:1";
        spec.name = "TV";
        spec.volume.clear();
        const AudioObjectID tv = rig.hardware->addDevice(spec);
        rig.hardware->setDefaultOutputDevice(tv);
        GroupManager& manager = rig.launch();
        QVERIFY(!manager.stepVolume(0.1));
    }
};

QTEST_GUILESS_MAIN(TestGroupVolume)
#include "tst_group_volume.moc"
