#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "devices/AudioDevice.h"
#include "platform/UserDefaults.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

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
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<UserDefaults> m_defaults;
    std::unique_ptr<NotificationCenter> m_center;
    std::unique_ptr<AppSettings> m_settings;
    QStringList m_posted;

    QString path() const { return m_dir->path() + QStringLiteral("/ondril/defaults.json"); }

    void observe(const QString& name) {
        m_center->addObserver(name, nullptr, [this, name] { m_posted << name; });
    }

private slots:
    void init() {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
        m_defaults = std::make_unique<UserDefaults>(path());
        m_center = std::make_unique<NotificationCenter>();
        m_settings = std::make_unique<AppSettings>(*m_defaults, *m_center);
        m_posted.clear();
        for (const QString& name :
             {Notifications::deviceNamesChanged, Notifications::hiddenDevicesChanged,
              Notifications::hiddenInputDevicesChanged, Notifications::hotKeysChanged})
            observe(name);
    }

    void emptyStoreGivesFirstLaunchDefaultsAndWritesNothing() {
        QCOMPARE(m_settings->showVolumeHUD(), true);
        QCOMPARE(m_settings->switchSound(), true);
        QCOMPARE(m_settings->pinPanel(), false);
        QCOMPARE(m_settings->autoSwitchGroups(), false);
        QCOMPARE(m_settings->autoSwitchInputs(), false);
        QCOMPARE(m_settings->analyticsEnabled(), true);
        QCOMPARE(m_settings->volumeHUDPosition(), HUDPosition::bottom);
        QVERIFY(m_settings->deviceNames().isEmpty());
        QCOMPARE(m_settings->customName(newUID), std::nullopt);
        QCOMPARE(m_settings->isDeviceHidden(newUID), false);
        QCOMPARE(m_settings->isInputDeviceHidden(newUID), false);
        QVERIFY(!QFile::exists(path()));
        QCOMPARE(m_posted, QStringList());
    }

    void onlyAStoredBooleanCounts_data() {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<bool>("expected");
        const QString hud = SettingsKeys::showVolumeHUD;
        const QString sound = SettingsKeys::switchSound;
        const QString analytics = SettingsKeys::analyticsEnabled;
        const QString pin = SettingsKeys::pinPanel;
        const QString groups = SettingsKeys::autoSwitchGroups;
        const QString inputs = SettingsKeys::autoSwitchInputs;
        QTest::newRow("overlay: string no") << hud << QVariant(QStringLiteral("no")) << true;
        QTest::newRow("overlay: number 0") << hud << QVariant(0.0) << true;
        QTest::newRow("overlay: stored false") << hud << QVariant(false) << false;
        QTest::newRow("sound: string false") << sound << QVariant(QStringLiteral("false")) << true;
        QTest::newRow("sound: stored false") << sound << QVariant(false) << false;
        QTest::newRow("analytics: empty data") << analytics << QVariant(QByteArray()) << true;
        QTest::newRow("analytics: stored false") << analytics << QVariant(false) << false;
        QTest::newRow("pin: string yes") << pin << QVariant(QStringLiteral("yes")) << false;
        QTest::newRow("pin: number 1") << pin << QVariant(1.0) << false;
        QTest::newRow("pin: stored true") << pin << QVariant(true) << true;
        QTest::newRow("auto outputs: stored true") << groups << QVariant(true) << true;
        QTest::newRow("auto inputs: string true")
            << inputs << QVariant(QStringLiteral("true")) << false;
        QTest::newRow("auto inputs: stored true") << inputs << QVariant(true) << true;
    }

    void onlyAStoredBooleanCounts() {
        QFETCH(QString, key);
        QFETCH(QVariant, stored);
        QFETCH(bool, expected);
        QVERIFY(m_defaults->setObject(stored, key));
        const QMap<QString, bool (AppSettings::*)() const> readers{
            {SettingsKeys::showVolumeHUD, &AppSettings::showVolumeHUD},
            {SettingsKeys::switchSound, &AppSettings::switchSound},
            {SettingsKeys::analyticsEnabled, &AppSettings::analyticsEnabled},
            {SettingsKeys::pinPanel, &AppSettings::pinPanel},
            {SettingsKeys::autoSwitchGroups, &AppSettings::autoSwitchGroups},
            {SettingsKeys::autoSwitchInputs, &AppSettings::autoSwitchInputs}};
        QCOMPARE((m_settings.get()->*readers.value(key))(), expected);
        QCOMPARE(m_defaults->objectForKey(key), std::optional<QVariant>(stored)); // left alone
    }

    void unknownPositionFallsBackToBottomWithoutWriting_data() {
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<HUDPosition>("expected");
        QTest::newRow("middle") << QVariant(QStringLiteral("middle")) << HUDPosition::bottom;
        QTest::newRow("wrong case") << QVariant(QStringLiteral("TopLeft")) << HUDPosition::bottom;
        QTest::newRow("empty") << QVariant(QString()) << HUDPosition::bottom;
        QTest::newRow("not a string") << QVariant(true) << HUDPosition::bottom;
        QTest::newRow("topLeft") << QVariant(QStringLiteral("topLeft")) << HUDPosition::topLeft;
        QTest::newRow("center") << QVariant(QStringLiteral("center")) << HUDPosition::center;
    }

    void unknownPositionFallsBackToBottomWithoutWriting() {
        QFETCH(QVariant, stored);
        QFETCH(HUDPosition, expected);
        QVERIFY(m_defaults->setObject(stored, SettingsKeys::volumeHUDPosition));
        QCOMPARE(m_settings->volumeHUDPosition(), expected);
        QCOMPARE(m_defaults->objectForKey(SettingsKeys::volumeHUDPosition),
                 std::optional<QVariant>(stored));
    }

    void everyPositionIsStoredByItsRawValue() {
        const QStringList raw{
            QStringLiteral("topLeft"),    QStringLiteral("top"),    QStringLiteral("topRight"),
            QStringLiteral("left"),       QStringLiteral("center"), QStringLiteral("right"),
            QStringLiteral("bottomLeft"), QStringLiteral("bottom"), QStringLiteral("bottomRight")};
        for (int i = 0; i < int(HUDPositions::allCases.size()); ++i) {
            const HUDPosition position = HUDPositions::allCases[std::size_t(i)];
            QCOMPARE(HUDPositions::row(position), i / 3);
            QCOMPARE(HUDPositions::column(position), i % 3);
            m_settings->setVolumeHUDPosition(position);
            QCOMPARE(m_defaults->stringForKey(SettingsKeys::volumeHUDPosition),
                     std::optional<QString>(raw[i]));
            QCOMPARE(m_settings->volumeHUDPosition(), position);
        }
        QCOMPARE(m_posted, QStringList()); // no notification for the position
    }

    void customNameIsTrimmedAndBlankRemoves_data() {
        QTest::addColumn<QString>("name");
        QTest::addColumn<std::optional<QString>>("stored");
        QTest::newRow("padded") << QStringLiteral("  Desk speakers \n")
                                << std::optional<QString>(QStringLiteral("Desk speakers"));
        QTest::newRow("three blanks") << QStringLiteral("   ") << std::optional<QString>();
        QTest::newRow("newlines and tabs") << QStringLiteral("\n\t\n") << std::optional<QString>();
        QTest::newRow("empty") << QString() << std::optional<QString>();
    }

    void customNameIsTrimmedAndBlankRemoves() {
        QFETCH(QString, name);
        QFETCH(std::optional<QString>, stored);
        m_settings->setCustomName(newUID, QStringLiteral("before"));
        m_settings->setCustomName(otherUID, QStringLiteral("Other"));
        m_posted.clear();
        m_settings->setCustomName(newUID, name);
        QCOMPARE(m_posted, QStringList{Notifications::deviceNamesChanged});
        const auto names = m_defaults->stringDictionaryForKey(SettingsKeys::deviceNames);
        QVERIFY(names.has_value());
        QCOMPARE(names->contains(newUID), stored.has_value());
        if (stored)
            QCOMPARE(names->value(newUID), *stored);
        QCOMPARE(names->value(otherUID), QStringLiteral("Other"));
    }

    void hiddenListsAreStoredAsArraysAndPosted_data() {
        QTest::addColumn<bool>("input");
        QTest::newRow("outputs") << false;
        QTest::newRow("inputs") << true;
    }

    void hiddenListsAreStoredAsArraysAndPosted() {
        QFETCH(bool, input);
        const QSet<QString> uids{oldUID, otherUID};
        if (input)
            m_settings->setHiddenInputDevices(uids);
        else
            m_settings->setHiddenDevices(uids);
        const QString key = input ? SettingsKeys::hiddenInputDevices : SettingsKeys::hiddenDevices;
        const QString other =
            input ? SettingsKeys::hiddenDevices : SettingsKeys::hiddenInputDevices;
        const auto stored = m_defaults->stringArrayForKey(key);
        QVERIFY(stored.has_value());
        QCOMPARE(QSet<QString>(stored->cbegin(), stored->cend()), uids);
        QCOMPARE(stored->size(), 2);
        QCOMPARE(m_defaults->objectForKey(other), std::nullopt);
        QCOMPARE(m_posted, QStringList{input ? Notifications::hiddenInputDevicesChanged
                                             : Notifications::hiddenDevicesChanged});
        QVERIFY(input ? m_settings->isInputDeviceHidden(otherUID)
                      : m_settings->isDeviceHidden(otherUID));
        QVERIFY(!(input ? m_settings->isDeviceHidden(otherUID)
                        : m_settings->isInputDeviceHidden(otherUID)));
    }

    void hiddenDeviceWithDriftedUIDIsRepairedBeforeTheReadReturns_data() {
        hiddenListsAreStoredAsArraysAndPosted_data();
    }

    void hiddenDeviceWithDriftedUIDIsRepairedBeforeTheReadReturns() {
        QFETCH(bool, input);
        const QString key = input ? SettingsKeys::hiddenInputDevices : SettingsKeys::hiddenDevices;
        const QString notification =
            input ? Notifications::hiddenInputDevicesChanged : Notifications::hiddenDevicesChanged;
        QVERIFY(m_defaults->setStringArray({oldUID, otherUID}, key));

        // What an observer sees when it is told: the repaired list is already stored.
        QStringList seenByObserver;
        bool returned = false;
        m_center->addObserver(notification, nullptr, [&] {
            QVERIFY(!returned);
            seenByObserver = m_defaults->stringArrayForKey(key).value_or(QStringList());
        });
        const bool hidden =
            input ? m_settings->isInputDeviceHidden(newUID) : m_settings->isDeviceHidden(newUID);
        returned = true;

        QVERIFY(hidden);
        QCOMPARE(m_posted, QStringList{notification});
        const QStringList stored = m_defaults->stringArrayForKey(key).value_or(QStringList());
        QCOMPARE(QSet<QString>(stored.cbegin(), stored.cend()), (QSet<QString>{newUID, otherUID}));
        QCOMPARE(QSet<QString>(seenByObserver.cbegin(), seenByObserver.cend()),
                 (QSet<QString>{newUID, otherUID}));

        // Repaired once: the next read finds the UID itself and writes nothing.
        m_posted.clear();
        QVERIFY(input ? m_settings->isInputDeviceHidden(newUID)
                      : m_settings->isDeviceHidden(newUID));
        QCOMPARE(m_posted, QStringList());
    }

    void hiddenListWithoutAMatchIsNotWritten() {
        QVERIFY(m_defaults->setStringArray({otherUID}, SettingsKeys::hiddenDevices));
        QFile file(path());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray before = file.readAll();
        file.close();
        QVERIFY(!m_settings->isDeviceHidden(newUID));
        QCOMPARE(m_posted, QStringList());
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), before);
    }

    void customNameFollowsADriftedUID() {
        QVERIFY(m_defaults->setStringDictionary(
            {{oldUID, QStringLiteral("Desk")}, {otherUID, QStringLiteral("TV")}},
            SettingsKeys::deviceNames));
        QMap<QString, QString> seenByObserver;
        m_center->addObserver(Notifications::deviceNamesChanged, nullptr,
                              [&] { seenByObserver = m_settings->deviceNames(); });

        QCOMPARE(m_settings->customName(newUID), std::optional<QString>(QStringLiteral("Desk")));

        const QMap<QString, QString> expected{{newUID, QStringLiteral("Desk")},
                                              {otherUID, QStringLiteral("TV")}};
        QCOMPARE(m_posted, QStringList{Notifications::deviceNamesChanged});
        QCOMPARE(seenByObserver, expected);
        QCOMPARE(UserDefaults(path()).stringDictionaryForKey(SettingsKeys::deviceNames),
                 (std::optional<QMap<QString, QString>>(expected)));
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
        QVERIFY(m_defaults->setStringDictionary(
            {{QStringLiteral("usb-Mic:1,2"), QStringLiteral("Studio")},
             {QStringLiteral("usb-Own:1,2"), QStringLiteral("Own output")},
             {QStringLiteral("usb-Own:3"), QStringLiteral("Own input")},
             {QStringLiteral("usb-Other:x"), QStringLiteral("Not a channel list")}},
            SettingsKeys::deviceNames));
        AudioDevice device;
        device.uid = uid;
        device.name = QStringLiteral("Raw name");
        device.isInput = isInput;
        QCOMPARE(device.displayName(*m_settings), expected);
    }

    void oneNonStringNameEmptiesTheWholeTable() {
        QVERIFY(
            m_defaults->setObject(QVariantMap{{newUID, QStringLiteral("Desk")}, {otherUID, 3.0}},
                                  SettingsKeys::deviceNames));
        QVERIFY(m_settings->deviceNames().isEmpty());
        QCOMPARE(m_settings->customName(newUID), std::nullopt);
        QCOMPARE(m_posted, QStringList());

        // The next write replaces the unreadable table.
        m_settings->setCustomName(otherUID, QStringLiteral("TV"));
        QCOMPARE(m_settings->deviceNames(),
                 (QMap<QString, QString>{{otherUID, QStringLiteral("TV")}}));
    }

    void sharedInstanceUsesTheStandardStore() {
        QCOMPARE(&AppSettings::shared().defaults(), &UserDefaults::standardUserDefaults());
        QCOMPARE(&AppSettings::shared().notificationCenter(), &NotificationCenter::defaultCenter());
        QVERIFY(UserDefaults::standardUserDefaults().filePath().startsWith(
            qEnvironmentVariable("XDG_CONFIG_HOME")));
    }

    void storedHotKeysThatDoNotDecodeCountAsEmpty_data() {
        QTest::addColumn<QByteArray>("stored");
        QTest::addColumn<int>("entries");

        QTest::newRow("one binding")
            << QByteArray("{\"global.toggleMute\":{\"keyCode\":46,\"modifiers\":6144}}") << 1;
        QTest::newRow("not json") << QByteArray("{garbage") << 0;
        QTest::newRow("an array") << QByteArray("[]") << 0;
        QTest::newRow("modifiers missing")
            << QByteArray("{\"a\":{\"keyCode\":46},\"b\":{\"keyCode\":1,\"modifiers\":256}}") << 0;
        QTest::newRow("key code as text")
            << QByteArray("{\"a\":{\"keyCode\":\"46\",\"modifiers\":256}}") << 0;
        QTest::newRow("fractional key code")
            << QByteArray("{\"a\":{\"keyCode\":46.5,\"modifiers\":256}}") << 0;
        QTest::newRow("negative mask")
            << QByteArray("{\"a\":{\"keyCode\":46,\"modifiers\":-1}}") << 0;
        QTest::newRow("empty object") << QByteArray("{}") << 0;
    }

    void storedHotKeysThatDoNotDecodeCountAsEmpty() {
        QFETCH(QByteArray, stored);
        QFETCH(int, entries);
        m_defaults->setData(stored, SettingsKeys::hotKeys);
        QCOMPARE(m_settings->hotKeys().size(), entries);
        QVERIFY(m_posted.isEmpty()); // reading never writes or posts
        QCOMPARE(m_defaults->dataForKey(SettingsKeys::hotKeys), stored);
    }

    void setHotKeyOverwritesACorruptTableWithItsOneEntryAndPosts() {
        m_defaults->setData("{garbage", SettingsKeys::hotKeys);
        const HotKeyCombo combo{46, HotKeyCombo::controlKey | HotKeyCombo::optionKey};
        m_settings->setHotKey(QStringLiteral("global.toggleMute"), combo);

        QCOMPARE(m_posted, QStringList{Notifications::hotKeysChanged});
        const auto table = m_settings->hotKeys();
        QCOMPARE(table.size(), 1);
        QCOMPARE(table.value(QStringLiteral("global.toggleMute")), combo);
        const auto json = QJsonDocument::fromJson(*m_defaults->dataForKey(SettingsKeys::hotKeys));
        QCOMPARE(json.object().value("global.toggleMute").toObject(),
                 (QJsonObject{{"keyCode", 46}, {"modifiers", 6144}}));
    }

    void setHotKeyWithNothingRemovesOnlyThatAction() {
        m_settings->setHotKey(QStringLiteral("global.togglePanel"),
                              HotKeyCombo{49, HotKeyCombo::cmdKey});
        m_settings->setHotKey(QStringLiteral("group.X"), HotKeyCombo{0, HotKeyCombo::shiftKey});
        m_settings->setHotKey(QStringLiteral("global.togglePanel"), std::nullopt);

        const auto table = m_settings->hotKeys();
        QCOMPARE(table.keys(), QStringList{QStringLiteral("group.X")});
        QCOMPARE(m_posted.count(Notifications::hotKeysChanged), 3);
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
