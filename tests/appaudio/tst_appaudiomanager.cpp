#include "../configs/ConfigRig.h"

#include <QSignalSpy>
#include <QtTest>

namespace {

const QString player = QStringLiteral("org.example.Player");

struct AppRig : ConfigRig {
    const RouteSession* session(const QString& bundleID = player) const {
        return apps->session(bundleID);
    }
    QStringList destinations(const QString& bundleID = player) const {
        const RouteSession* s = session(bundleID);
        return s ? s->destinationUIDs() : QStringList();
    }
    std::optional<AppAudioState> row(const QList<AppAudioState>& rows,
                                     const QString& bundleID) const {
        for (const AppAudioState& row : rows)
            if (row.bundleID == bundleID)
                return row;
        return std::nullopt;
    }
};

} // namespace

class AppAudioManagerTest : public QObject {
    Q_OBJECT

private slots:
    // The record and the session after some steps: "record <volume>" or "no record", then
    // "session <gain>" (", boosted" when the limiter runs) or "no session". Half volume, a route
    // at unity and back to neutral are heard on the servers.
    void neutralBoundary_data() {
        QTest::addColumn<QStringList>(
            "steps"); // "volume x", "mute", "route", "favourite", "unroute"
        QTest::addColumn<QString>("expected");
        QTest::newRow("back to unity removes the record")
            << QStringList{"volume 0.5", "volume 1"} << "no record, no session";
        QTest::newRow("above 4 clamps to 4")
            << QStringList{"volume 4.5"} << "record 4, session 4, boosted";
        QTest::newRow("below 0 clamps to 0") << QStringList{"volume -1"} << "record 0, session 0";
        QTest::newRow("muted boost: no limiter")
            << QStringList{"volume 2", "mute"} << "record 2, session 0";
        QTest::newRow("favourite at unity") << QStringList{"favourite"} << "record 1, no session";
        QTest::newRow("unrouting a favourite keeps its record")
            << QStringList{"favourite", "route", "unroute"} << "record 1, no session";
    }

    void neutralBoundary() {
        QFETCH(QStringList, steps);
        QFETCH(QString, expected);
        AppRig rig;
        rig.addApp(4242, player, QStringLiteral("Player"));
        rig.apps->refresh();
        settle();
        for (const QString& step : std::as_const(steps)) {
            if (step.startsWith(QLatin1String("volume ")))
                rig.apps->setVolume(player, step.mid(7).toDouble());
            else if (step == QLatin1String("mute"))
                rig.apps->setMuted(player, true);
            else if (step == QLatin1String("route"))
                rig.apps->setRoutes(player, {GroupTestRig::headphonesUID});
            else if (step == QLatin1String("unroute"))
                rig.apps->setRoutes(player, {});
            else if (step == QLatin1String("favourite"))
                rig.apps->setFavourite(player, true);
        }
        settle();

        const bool stored = rig.apps->prefs().contains(player);
        const RouteSession* session = rig.session();
        QString actual = stored ? QStringLiteral("record %1").arg(rig.apps->prefs()[player].volume)
                                : QStringLiteral("no record");
        actual += session ? QStringLiteral(", session %1%2")
                                .arg(session->gain().value.load())
                                .arg(session->gain().boost ? ", boosted" : "")
                          : QStringLiteral(", no session");
        QCOMPARE(actual, expected);
        const auto decoded = AppAudioPrefs::decodeAll(
            rig.defaults->dataForKey(SettingsKeys::appPrefs).value_or(QByteArray("{}")));
        QCOMPARE(decoded->contains(player), stored);
        QCOMPARE(rig.row(rig.apps->allApps(), player)->prefs, rig.apps->prefs().value(player));
        QCOMPARE(rig.hardware->processTaps().size(), std::size_t(session ? 1 : 0));
    }

    // A routed device that is gone is dropped; with none left the app plays normally.
    void goneRoutesAreDropped() {
        AppRig rig;
        rig.addApp(4242, player);
        rig.apps->setRoutes(player, {GroupTestRig::leftUID, GroupTestRig::rightUID});
        rig.hardware->removeDevice(rig.left);
        settle();
        rig.apps->reconcile(player);
        QCOMPARE(rig.destinations(), QStringList{GroupTestRig::rightUID});

        rig.hardware->removeDevice(rig.right);
        settle();
        rig.apps->reconcile(player);
        QVERIFY(!rig.session());
        QVERIFY(rig.apps->prefs().contains(player));
        QVERIFY(rig.hardware->processTaps().empty());
    }

    void followersMoveWithTheDefaultOutput() {
        AppRig rig;
        rig.addApp(4242, player);
        const QString routed = QStringLiteral("org.example.Routed");
        rig.addApp(4300, routed);
        rig.apps->setVolume(player, 0.5);
        rig.apps->setRoutes(routed, {GroupTestRig::leftUID});
        QCOMPARE(rig.destinations(), QStringList{GroupTestRig::speakersUID});
        const RouteSession* routedSession = rig.session(routed);

        rig.hardware->setDefaultOutputDevice(rig.headphones);
        settle();
        QCOMPARE(rig.destinations(), QStringList{GroupTestRig::headphonesUID});
        QCOMPARE(rig.session(routed), routedSession);

        // With a group on, they play to its members.
        const OutputGroup displays =
            makeGroup(QStringLiteral("Displays"), {GroupTestRig::leftUID, GroupTestRig::rightUID});
        rig.manager->setGroups({displays});
        QVERIFY(rig.manager->activate(displays));
        settle();
        QCOMPARE(rig.destinations(), (QStringList{GroupTestRig::leftUID, GroupTestRig::rightUID}));
    }

    // Helpers count as their responsible application; processes without a bundle identifier, and
    // Ondril itself, are not listed. A favourite is listed without a playing process.
    void attribution() {
        AppRig rig;
        rig.addApp(100, QStringLiteral("org.example.Browser"), QStringLiteral("Browser"), false);
        rig.addApp(101, std::nullopt, {}, true, 100); // a renderer with no identity of its own
        rig.addApp(200, std::nullopt, QStringLiteral("Launcher"), false);
        rig.addApp(201, QStringLiteral("org.example.Tool"), QStringLiteral("tool"), false, 200);
        rig.addApp(300, std::nullopt, QStringLiteral("nameless daemon"));
        rig.addApp(400, QStringLiteral("com.kestrivane.ondril"), QStringLiteral("Ondril"));
        rig.addApp(500, QStringLiteral("org.example.Alpha"), QStringLiteral("alpha"), false);
        const QString absent = QStringLiteral("org.example.Absent");
        const QString silent = QStringLiteral("org.example.Silent");
        rig.applications.addProcess(5000, {silent, QStringLiteral("Silent Editor"), 0});
        rig.apps->setFavourite(absent, true);
        rig.apps->setFavourite(silent, true);
        rig.apps->refresh();
        settle();

        QStringList order;
        for (const AppAudioState& row : rig.apps->allApps())
            order.append(row.bundleID);
        // Playing first, then by name without regard to case.
        QCOMPARE(order, (QStringList{"org.example.Browser", "org.example.Alpha", absent, silent,
                                     "org.example.Tool"}));
        const auto browser = rig.row(rig.apps->allApps(), QStringLiteral("org.example.Browser"));
        QVERIFY(browser->isPlaying);
        QCOMPARE(browser->pid, 100);
        QCOMPARE(rig.apps->apps().size(), 3);
        const auto absentRow = rig.row(rig.apps->apps(), absent);
        QVERIFY(absentRow);
        QCOMPARE(absentRow->name, absent);
        QCOMPARE(absentRow->pid, 0);
        QVERIFY(!absentRow->isPlaying);
        QCOMPARE(rig.row(rig.apps->apps(), silent)->name, QStringLiteral("Silent Editor"));
        QVERIFY(rig.hardware->processTaps().empty());
    }

    void playStateBurstCostsOneRefresh() {
        AppRig rig;
        const AudioObjectID object = rig.addApp(4242, player, QStringLiteral("Player"), false);
        rig.apps->setPanelOpen(true);
        rig.apps->refresh();
        settle();
        QVERIFY(rig.apps->apps().isEmpty());

        QSignalSpy published(rig.apps.get(), &AppAudioManager::allAppsChanged);
        rig.hardware->setProcessRunningOutput(object, true);
        rig.hardware->setProcessRunningOutput(object, false);
        rig.hardware->setProcessRunningOutput(object, true);
        QTRY_COMPARE(published.size(), 1);
        QTest::qWait(2 * AppAudioManager::refreshDelayMs);
        QCOMPARE(published.size(), 1);
        QCOMPARE(rig.apps->apps().size(), 1);

        // With the panel closed nothing listens for play state.
        rig.apps->removeOutputListeners();
        rig.hardware->setProcessRunningOutput(object, false);
        QTest::qWait(2 * AppAudioManager::refreshDelayMs);
        QCOMPARE(published.size(), 1);
    }

    void recordsSurviveARestart() {
        AppRig rig;
        rig.addApp(4242, player);
        rig.apps->setVolume(player, 0.25);
        rig.apps->setRoutes(player, {GroupTestRig::rightUID});
        rig.configs.reset();
        rig.apps.reset();
        QVERIFY(rig.hardware->processTaps().empty());

        // A stored table with stray fields and wrong types keeps what it can.
        const QByteArray stored = rig.defaults->dataForKey(SettingsKeys::appPrefs).value();
        QByteArray tampered = stored;
        tampered.replace("\"muted\":false", "\"muted\":\"no\"");
        QVERIFY(tampered != stored);
        rig.defaults->setData(tampered, SettingsKeys::appPrefs);
        rig.startUpper();
        QCOMPARE(rig.destinations(), QStringList{GroupTestRig::rightUID});
        QCOMPARE(rig.session()->gain().value.load(), 0.25f);
    }
};

QTEST_GUILESS_MAIN(AppAudioManagerTest)
#include "tst_appaudiomanager.moc"
