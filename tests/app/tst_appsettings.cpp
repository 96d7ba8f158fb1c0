#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "devices/AudioDevice.h"
#include "platform/UserDefaults.h"

#include <QtTest>

#include <memory>

namespace {

// Two UIDs of one device whose volatile middle part changed between connections.
const QString oldUID = QStringLiteral("alsa:card1:usb-Desk:inst7:out");
const QString newUID = QStringLiteral("alsa:card1:usb-Desk:inst9:out");
const QString otherUID = QStringLiteral("alsa:card2:hdmi:inst1:out");

} // namespace

class TestAppSettings : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    std::unique_ptr<UserDefaults> m_defaults;
    std::unique_ptr<NotificationCenter> m_center;
    std::unique_ptr<AppSettings> m_settings;
    QStringList m_posted;

    QString path() const { return m_dir.filePath("defaults.json"); }

private slots:
    void init() {
        QFile::remove(path());
        m_defaults = std::make_unique<UserDefaults>(path());
        m_center = std::make_unique<NotificationCenter>();
        m_settings = std::make_unique<AppSettings>(*m_defaults, *m_center);
        m_posted.clear();
        for (const QString& name :
             {Notifications::deviceNamesChanged, Notifications::hiddenDevicesChanged,
              Notifications::hiddenInputDevicesChanged})
            m_center->addObserver(name, nullptr, [this, name] { m_posted << name; });
    }

    // Only a stored boolean counts, and reading never writes a default.
    void onlyAStoredBooleanCounts_data() {
        QTest::addColumn<QVariant>("stored"); // invalid: the key is absent
        QTest::addColumn<bool>("pinned");
        QTest::newRow("absent") << QVariant() << false;
        QTest::newRow("number 1") << QVariant(1.0) << false;
        QTest::newRow("stored true") << QVariant(true) << true;
    }

    void onlyAStoredBooleanCounts() {
        QFETCH(QVariant, stored);
        QFETCH(bool, pinned);
        if (stored.isValid())
            QVERIFY(m_defaults->setObject(stored, SettingsKeys::pinPanel));
        QCOMPARE(m_settings->pinPanel(), pinned);
        QCOMPARE(m_defaults->objectForKey(SettingsKeys::pinPanel).value_or(QVariant()), stored);
        QCOMPARE(QFile::exists(path()), stored.isValid());
    }

    void hiddenDeviceWithDriftedUIDIsRepairedBeforeTheReadReturns_data() {
        QTest::addColumn<bool>("input");
        QTest::newRow("outputs") << false;
        QTest::newRow("inputs") << true;
    }

    void hiddenDeviceWithDriftedUIDIsRepairedBeforeTheReadReturns() {
        QFETCH(bool, input);
        const QString key = input ? SettingsKeys::hiddenInputDevices : SettingsKeys::hiddenDevices;
        const QString notification =
            input ? Notifications::hiddenInputDevicesChanged : Notifications::hiddenDevicesChanged;
        const auto isHidden = [&](const QString& uid) {
            return input ? m_settings->isInputDeviceHidden(uid) : m_settings->isDeviceHidden(uid);
        };
        QVERIFY(m_defaults->setStringArray({oldUID, otherUID}, key));
        QVERIFY(!isHidden("alsa:card3:usb-Mic:inst1:in")); // no match: no write
        QCOMPARE(m_posted, QStringList());

        // What an observer sees when it is told: the repaired list is already stored.
        QStringList seenByObserver;
        m_center->addObserver(notification, nullptr, [&] {
            seenByObserver = m_defaults->stringArrayForKey(key).value_or(QStringList());
        });
        QVERIFY(isHidden(newUID));
        QCOMPARE(m_posted, QStringList{notification});
        QCOMPARE(QSet<QString>(seenByObserver.cbegin(), seenByObserver.cend()),
                 (QSet<QString>{newUID, otherUID}));
        QCOMPARE(m_defaults->objectForKey(input ? SettingsKeys::hiddenDevices
                                                : SettingsKeys::hiddenInputDevices),
                 std::nullopt);

        // Repaired once: the next read finds the UID itself and writes nothing.
        QVERIFY(isHidden(newUID));
        QCOMPARE(m_posted.size(), 1);
    }

    void customNameFollowsADriftedUID() {
        QVERIFY(m_defaults->setStringDictionary({{oldUID, "Desk"}, {otherUID, "TV"}},
                                                SettingsKeys::deviceNames));
        QMap<QString, QString> seenByObserver;
        m_center->addObserver(Notifications::deviceNamesChanged, nullptr,
                              [&] { seenByObserver = m_settings->deviceNames(); });
        QCOMPARE(m_settings->customName(newUID), QStringLiteral("Desk"));
        const QMap<QString, QString> expected{{newUID, "Desk"}, {otherUID, "TV"}};
        QCOMPARE(m_posted, QStringList{Notifications::deviceNamesChanged});
        QCOMPARE(seenByObserver, expected);
        QCOMPARE(UserDefaults(path()).stringDictionaryForKey(SettingsKeys::deviceNames), expected);
    }

    void inputTakesTheNameOfItsOutputSide_data() {
        QTest::addColumn<QString>("uid");
        QTest::addColumn<bool>("isInput");
        QTest::addColumn<QString>("expected");
        QTest::newRow("input with another channel list") << "usb-Mic:3" << true << "Studio";
        QTest::newRow("input with its own name") << "usb-Own:3" << true << "Own input";
        QTest::newRow("output with another channel list") << "usb-Mic:3" << false << "Raw name";
        QTest::newRow("input without a channel list") << "usb-Mic" << true << "Raw name";
        QTest::newRow("input of another device") << "usb-Other:3" << true << "Raw name";
    }

    void inputTakesTheNameOfItsOutputSide() {
        QFETCH(QString, uid);
        QFETCH(bool, isInput);
        QFETCH(QString, expected);
        QVERIFY(m_defaults->setStringDictionary({{"usb-Mic:1,2", "Studio"},
                                                 {"usb-Own:1,2", "Own output"},
                                                 {"usb-Own:3", "Own input"},
                                                 {"usb-Other:x", "Not a channel list"}},
                                                SettingsKeys::deviceNames));
        AudioDevice device;
        device.uid = uid;
        device.name = "Raw name";
        device.isInput = isInput;
        QCOMPARE(device.displayName(*m_settings), expected);
    }

    void oneNonStringNameEmptiesTheWholeTable() {
        QVERIFY(m_defaults->setObject(QVariantMap{{newUID, "Desk"}, {otherUID, 3.0}},
                                      SettingsKeys::deviceNames));
        QCOMPARE(m_settings->customName(newUID), std::nullopt);
        QCOMPARE(m_posted, QStringList());
        // The next write replaces the unreadable table.
        m_settings->setCustomName(otherUID, "TV");
        QCOMPARE(m_settings->deviceNames(),
                 (QMap<QString, QString>{{otherUID, QStringLiteral("TV")}}));
    }
};

int main(int argc, char* argv[]) {
    // Never the user's own store, whatever environment the test is started in.
    QTemporaryDir config;
    qputenv("XDG_CONFIG_HOME", config.path().toLocal8Bit());
    QCoreApplication app(argc, argv);
    TestAppSettings test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_appsettings.moc"
