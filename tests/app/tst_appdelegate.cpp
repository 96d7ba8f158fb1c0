#include "../groups/GroupTestRig.h"

#include "app/AppDelegate.h"
#include "control/VolumeKeyMonitor.h"

#include <QtTest>

// The launch as the process entry runs it, on the process-wide shared objects.
class TestAppDelegate : public QObject {
    Q_OBJECT

private slots:
    void launchFinishesBeforeTheStoredGroupIsRestored() {
        QTemporaryDir config;
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path()));
        auto hardware = std::make_unique<SimulatedAudioHardware>();
        const OutputGroup group = makeGroup("Desk", {"usb:A:Left:1:1,2", "usb:A:Right:2:1,2"});
        for (const QString& uid : group.memberUIDs)
            hardware->addDevice({.uid = uid, .name = uid});
        UserDefaults store(UserDefaults::standardFilePath());
        store.setData(*OutputGroupCodec::encode({group}), SettingsKeys::groups);
        store.setString(OutputGroupCodec::uuidText(group.id), SettingsKeys::activeGroup);
        AudioHardware::install(std::move(hardware));

        AppDelegate delegate;

        // The restore is still queued, and the volume keys are already taken.
        QCOMPARE(GroupManager::shared().activeGroupID(), std::nullopt);
        QVERIFY(VolumeKeyMonitor::shared().isRunning());
        QVERIFY(QTest::qWaitFor([] { return GroupManager::shared().activeGroupID().has_value(); }));
        QCOMPARE(*GroupManager::shared().activeGroupID(), group.id);
    }
};

QTEST_MAIN(TestAppDelegate)
#include "tst_appdelegate.moc"
