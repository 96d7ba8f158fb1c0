#include "ConfigRig.h"

#include <QtTest>

class ConfigManagerTest : public QObject {
    Q_OBJECT

private slots:
    void saveTakesTheRouting_data() {
        QTest::addColumn<QString>("output"); // "group", "single" or "aggregate"
        QTest::newRow("active group") << "group";
        QTest::newRow("single output") << "single";
        QTest::newRow("own aggregate as default, no group") << "aggregate";
    }

    void saveTakesTheRouting() {
        QFETCH(QString, output);
        ConfigRig rig;
        rig.manager->setGroups({rig.displays});
        rig.manager->activate(rig.displays);
        settle();
        if (output == QLatin1String("single"))
            rig.manager->switchToDevice(rig.headphones);
        if (output == QLatin1String("aggregate")) {
            // An aggregate of ours left as the default while no group is on.
            rig.manager->deactivate();
            rig.hardware->setDefaultOutputDevice(
                rig.addOutput(GroupManager::aggregateUID(QUuid::createUuid()), "Group"));
        }
        settle();
        rig.hardware->setDefaultInputDevice(rig.webcam);
        rig.apps->setVolume(ConfigRig::player, 2.0);
        settle();

        rig.configs->saveCurrent("Desk");
        rig.startUpper(); // read back from the store
        QCOMPARE(rig.configs->configs().size(), 1);
        const QuickConfig saved = rig.configs->configs().first();
        QCOMPARE(saved.name, QStringLiteral("Desk"));
        QCOMPARE(saved.activeGroupID, output == QLatin1String("group")
                                          ? std::optional<QUuid>(rig.displays.id)
                                          : std::nullopt);
        QCOMPARE(saved.singleOutputUID, output == QLatin1String("single")
                                            ? std::optional<QString>(GroupTestRig::headphonesUID)
                                            : std::nullopt);
        QCOMPARE(saved.inputUID, std::optional<QString>(ConfigRig::webcamUID));
        QCOMPARE(saved.appRoutes.value(ConfigRig::player).volume, 2.0);
    }

    void applyRestoresOutputInputAndRecords() {
        ConfigRig rig;
        rig.addApp(4100, ConfigRig::player);
        rig.manager->switchToDevice(rig.headphones);
        rig.apps->setVolume(ConfigRig::player, 1.5); // a follower of the default output
        settle();
        rig.configs->saveCurrent("Desk");

        rig.manager->switchToDevice(rig.speakers);
        rig.hardware->setDefaultInputDevice(rig.webcam);
        rig.apps->setVolume(ConfigRig::player, 0.5);
        settle();

        rig.configs->apply("desk");
        settle();
        QCOMPARE(rig.defaultOutput(), rig.headphones);
        QCOMPARE(rig.defaultInput(), rig.mic);
        QCOMPARE(rig.apps->prefs().value(ConfigRig::player).volume, 1.5);
        // The records went last: the session plays to the output the config chose.
        QVERIFY(rig.apps->session(ConfigRig::player));
        QCOMPARE(rig.apps->session(ConfigRig::player)->destinationUIDs(),
                 QStringList{GroupTestRig::headphonesUID});
    }

    void applyAfterTheGroupWasDeleted() {
        ConfigRig rig;
        rig.manager->setGroups({rig.displays});
        rig.manager->activate(rig.displays);
        settle();
        rig.configs->saveCurrent("Desk");
        rig.manager->deleteGroup(rig.displays);
        settle();
        rig.startUpper();
        QCOMPARE(rig.configs->configs().first().activeGroupID, std::nullopt); // stored so

        rig.manager->switchToDevice(rig.right);
        rig.hardware->setDefaultInputDevice(rig.webcam);
        rig.addApp(4100, ConfigRig::player);
        rig.apps->setVolume(ConfigRig::player, 2.0);
        settle();
        QVERIFY(rig.apps->session(ConfigRig::player));
        rig.configs->apply("Desk");
        settle();
        QCOMPARE(rig.defaultOutput(), rig.right); // saved with a group: no single output to fall to
        QCOMPARE(rig.defaultInput(), rig.mic);
        // Saved without records: every record and session ends.
        QVERIFY(rig.apps->prefs().isEmpty());
        QVERIFY(!rig.apps->session(ConfigRig::player));

        // A config that names a group that is gone falls to its single output.
        QuickConfig config = rig.configs->configs().first();
        config.activeGroupID = rig.displays.id;
        config.singleOutputUID = GroupTestRig::headphonesUID;
        rig.configs->apply(config);
        settle();
        QCOMPARE(rig.defaultOutput(), rig.headphones);
    }

    void applySkipsAbsentDevices() {
        ConfigRig rig;
        QuickConfig config;
        config.name = "Away";
        config.singleOutputUID = "usb:Gone:Speaker:9:1";
        config.inputUID = "usb:Gone:Mic:9:1";
        AppAudioPrefs& record = config.appRoutes[ConfigRig::player];
        record.volume = 3.0;
        record.routeUIDs = {"usb:Gone:Speaker:9:1"};
        rig.configs->apply(config);
        settle();
        QCOMPARE(rig.defaultOutput(), rig.speakers);
        QCOMPARE(rig.defaultInput(), rig.mic);
        // The records are kept as saved, the absent route included.
        QCOMPARE(rig.apps->prefs().value(ConfigRig::player),
                 config.appRoutes.value(ConfigRig::player));
    }

    void namesMatchIgnoringCaseFirstWins() {
        ConfigRig rig;
        rig.manager->switchToDevice(rig.left);
        settle();
        rig.configs->saveCurrent("Ünterwegs");
        rig.manager->switchToDevice(rig.right);
        settle();
        rig.configs->saveCurrent("ünterwegs");
        QCOMPARE(rig.configs->configs().size(), 2); // a save never replaces

        rig.configs->apply(QStringLiteral("nothing like it"));
        settle();
        QCOMPARE(rig.defaultOutput(), rig.right);
        rig.configs->apply("ÜNTERWEGS");
        settle();
        QCOMPARE(rig.defaultOutput(), rig.left);
    }

    // A stored config decodes what it can: a damaged field takes its default (a fresh id, the
    // name "Setup", none of the others) and the rest stays. Read: the name, then what stayed.
    void tolerantDecoding_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("kept");
        const QByteArray whole =
            R"({"id":"6F0C7A3E-2B1D-4C9A-8E55-0A1B2C3D4E5F","name":"Desk",)"
            R"("activeGroupID":"1E2D3C4B-5A69-4788-9766-554433221100","singleOutputUID":"out",)"
            R"("inputUID":"in","appRoutes":{"org.example.Player":{"volume":2}}})";
        auto damaged = [&](const char* key, const char* value) {
            QJsonObject object = QJsonDocument::fromJson(whole).object();
            object.insert(QLatin1String(key),
                          QJsonDocument::fromJson(QByteArray("[") + value + "]").array().first());
            return QJsonDocument(QJsonArray{object}).toJson();
        };
        QTest::newRow("whole") << "[" + whole + "]"
                               << "Desk: id group output input routes";
        QTest::newRow("id not a uuid")
            << damaged("id", "\"x\"") << "Desk: group output input routes";
        QTest::newRow("name a number")
            << damaged("name", "7") << "Setup: id group output input routes";
        QTest::newRow("group id damaged")
            << damaged("activeGroupID", "\"1E2D\"") << "Desk: id output input routes";
        QTest::newRow("output not text")
            << damaged("singleOutputUID", "[]") << "Desk: id group input routes";
        QTest::newRow("input null")
            << damaged("inputUID", "null") << "Desk: id group output routes";
        QTest::newRow("routes an array")
            << damaged("appRoutes", "[1]") << "Desk: id group output input";
        QTest::newRow("empty object") << QByteArray("[{}]") << "Setup:";
    }

    void tolerantDecoding() {
        QFETCH(QByteArray, json);
        QFETCH(QString, kept);
        const auto configs = QuickConfig::decodeAll(json);
        QVERIFY(configs);
        QCOMPARE(configs->size(), 1);
        const QuickConfig& config = configs->first();
        QVERIFY(!config.id.isNull());
        QStringList stayed{config.name + u':'};
        if (config.id == QUuid::fromString("6F0C7A3E-2B1D-4C9A-8E55-0A1B2C3D4E5F"))
            stayed << "id";
        if (config.activeGroupID)
            stayed << "group";
        if (config.singleOutputUID)
            stayed << "output";
        if (config.inputUID)
            stayed << "input";
        if (config.appRoutes.size() == 1)
            stayed << "routes";
        QCOMPARE(stayed.join(u' '), kept);
        QCOMPARE(QuickConfig::decodeAll(QuickConfig::encodeAll(*configs)), configs);
    }
};

QTEST_GUILESS_MAIN(ConfigManagerTest)
#include "tst_configmanager.moc"
