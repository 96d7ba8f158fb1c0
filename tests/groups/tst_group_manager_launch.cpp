#include "GroupTestRig.h"

#include <QtTest>

using Names = QMap<QString, QString>;

// What happens when GroupManager is made: loading, the fold of old names, the orphan pass and the
// restore of the group that was on when the program last ran. (That the restore steps aside for a
// group a rule put on first is the auto-switch test's.)
class TestGroupManagerLaunch : public QObject {
    Q_OBJECT

private slots:
    // A stored list that does not decode loads empty, and stays as it is until the next save.
    void corruptListLoadsEmptyAndStaysUntilTheNextSave_data() {
        QTest::addColumn<QString>("key");
        QTest::newRow("groups") << SettingsKeys::groups;
        QTest::newRow("input rules") << SettingsKeys::inputRules;
    }
    void corruptListLoadsEmptyAndStaysUntilTheNextSave() {
        QFETCH(QString, key);
        GroupTestRig rig;
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
        GroupTestRig rig;
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
        GroupTestRig rig;
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

QTEST_GUILESS_MAIN(TestGroupManagerLaunch)
#include "tst_group_manager_launch.moc"
