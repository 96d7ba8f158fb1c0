#include "app/AppDelegate.h"
#include "app/AppSettings.h"
#include "control/VolumeKeyMonitor.h"
#include "groups/GroupManager.h"
#include "groups/OutputGroupCodec.h"
#include "platform/UserDefaults.h"
#include "platform/simulated/SimulatedAudioHardware.h"

#include "TestSupport.h"

#include <QTemporaryDir>
#include <QtTest>

// The launch as the process entry runs it, on the process-wide shared objects.
class TestAppDelegate : public QObject {
    Q_OBJECT

private slots:
    void launchFinishesBeforeTheStoredGroupIsRestored() {
        QTemporaryDir config;
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(config.path()));
        auto hardware = std::make_unique<SimulatedAudioHardware>();
        OutputGroup group;
        group.id = QUuid::createUuid();
        group.name = QStringLiteral("Desk");
        for (const QString& uid :
             {QStringLiteral("usb:A:Left:1:1,2"), QStringLiteral("usb:A:Right:2:1,2")}) {
            SimulatedAudioHardware::DeviceSpec spec;
            spec.uid = uid;
            spec.name = uid;
            hardware->addDevice(spec);
            group.memberUIDs.append(uid);
        }
        group.masterUID = group.memberUIDs.first();
        UserDefaults store(UserDefaults::standardFilePath());
        store.setData(*OutputGroupCodec::encode({group}), SettingsKeys::groups);
        store.setString(OutputGroupCodec::uuidText(group.id), SettingsKeys::activeGroup);
        AudioHardware::install(std::move(hardware));

        AppDelegate delegate;

        // The restore is still queued, and the volume keys are already taken.
        QCOMPARE(GroupManager::shared().activeGroupID(), std::nullopt);
        QVERIFY(VolumeKeyMonitor::shared().isRunning());
        QVERIFY(TestSupport::spinUntil(
            [] { return GroupManager::shared().activeGroupID().has_value(); }));
        QCOMPARE(*GroupManager::shared().activeGroupID(), group.id);
    }
};

QTEST_MAIN(TestAppDelegate)
#include "tst_appdelegate.moc"
