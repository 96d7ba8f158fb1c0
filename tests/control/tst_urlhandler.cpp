#include "../configs/ConfigRig.h"

#include "control/URLHandler.h"

#include <QtTest>

namespace {

struct URLRig : ConfigRig {
    OutputGroup displays = makeGroup(QStringLiteral("Both Displays"), {leftUID, rightUID});
    // Named by the other group's uuid text, in lower case.
    OutputGroup impostor =
        makeGroup(OutputGroupCodec::uuidText(displays.id).toLower(), {speakersUID, headphonesUID});
    URLHandler handler{*manager, *audio, *apps, *configs};

    URLRig() { manager->setGroups({impostor, displays}); }

    void open(QString url) {
        url.replace(QLatin1String("{UUID}"), OutputGroupCodec::uuidText(displays.id));
        url.replace(QLatin1String("{uuid}"), OutputGroupCodec::uuidText(displays.id).toLower());
        handler.handleURL(url);
        settle();
    }
    QString activeName() const {
        const auto group = manager->activeGroup();
        return group ? group->name : QString();
    }
};

} // namespace

class URLHandlerTest : public QObject {
    Q_OBJECT

private slots:
    void activate_data() {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("active"); // the active group's name afterwards
        QTest::newRow("name, percent-decoded") << "ondril://activate?group=Both%20Displays"
                                               << "Both Displays";
        QTest::newRow("name ignoring case") << "ondril://activate?group=both%20DISPLAYS"
                                            << "Both Displays";
        QTest::newRow("path and fragment not read")
            << "ondril://activate/any/path?group=Both%20Displays#x"
            << "Both Displays";
        QTest::newRow("upper-case uuid beats a group named so") << "ondril://activate?group={UUID}"
                                                                << "Both Displays";
        QTest::newRow("lower-case uuid is only a name") << "ondril://activate?group={uuid}"
                                                        << "{uuid}";
        QTest::newRow("unknown group") << "ondril://activate?group=Kitchen"
                                       << "";
        QTest::newRow("first item wins though it has no value")
            << "ondril://activate?group&group=Both%20Displays"
            << "";
        QTest::newRow("first item wins") << "ondril://activate?group=Kitchen&group=Both%20Displays"
                                         << "";
        QTest::newRow("query names with case") << "ondril://activate?Group=Both%20Displays"
                                               << "";
    }

    void activate() {
        QFETCH(QString, url);
        QFETCH(QString, active);
        URLRig rig;
        rig.open(url);
        active.replace(QLatin1String("{uuid}"),
                       OutputGroupCodec::uuidText(rig.displays.id).toLower());
        QCOMPARE(rig.activeName(), active);
    }

    void single_data() {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("output"); // UID of the default output afterwards
        QTest::newRow("name ignoring case")
            << "ondril://single?device=HEADPHONES" << GroupTestRig::headphonesUID;
        QTest::newRow("uid is no name")
            << "ondril://single?device=" + GroupTestRig::headphonesUID << GroupTestRig::speakersUID;
        QTest::newRow("custom name is no name")
            << "ondril://single?device=Desk%20Phones" << GroupTestRig::speakersUID;
        QTest::newRow("no device") << "ondril://single" << GroupTestRig::speakersUID;
    }

    void single() {
        QFETCH(QString, url);
        QFETCH(QString, output);
        URLRig rig;
        rig.defaults->setStringDictionary(
            {{GroupTestRig::headphonesUID, QStringLiteral("Desk Phones")}},
            SettingsKeys::deviceNames);
        rig.open(url);
        QCOMPARE(rig.audio->readUID(rig.defaultOutput()), output);
    }

    void volume_data() {
        QTest::addColumn<QString>("query");
        QTest::addColumn<bool>("groupActive");
        QTest::addColumn<double>("master"); // from 0.65
        QTest::newRow("percent") << "set=50" << true << 0.5;
        QTest::newRow("fraction") << "set=0.5" << true << 0.5;
        QTest::newRow("one is full") << "set=1" << true << 1.0;
        QTest::newRow("1.5 is per cent") << "set=1.5" << true << 0.015;
        QTest::newRow("exponent") << "set=5e1" << true << 0.5;
        QTest::newRow("hexadecimal") << "set=0x32" << true << 0.5;
        QTest::newRow("negative percent step") << "delta=-5" << true << 0.6;
        QTest::newRow("step to silence") << "delta=-100" << true << 0.0;
        QTest::newRow("set no number falls to delta") << "set=abc&delta=10" << true << 0.75;
        QTest::newRow("set wins over delta") << "set=20&delta=10" << true << 0.2;
        QTest::newRow("leading blank") << "set=%2050" << true << 0.65;
        QTest::newRow("trailing text") << "set=50%25" << true << 0.65;
        QTest::newRow("empty") << "set=" << true << 0.65;
        QTest::newRow("comma decimal") << "set=0,5" << true << 0.65;
        QTest::newRow("no group active") << "set=50" << false << 0.65;
    }

    void volume() {
        QFETCH(QString, query);
        QFETCH(bool, groupActive);
        QFETCH(double, master);
        URLRig rig;
        if (groupActive)
            rig.manager->activate(rig.displays);
        const float speakersBefore = rig.volumeOf(rig.speakers);
        rig.open("ondril://volume?" + query);
        const double stored = rig.manager->groups().last().masterVolume;
        QVERIFY2(qAbs(stored - master) < 1e-9, qPrintable(QString::number(stored)));
        QCOMPARE(rig.volumeOf(rig.speakers), speakersBefore); // never the default output's own
    }

    void muteAndDeactivate() {
        URLRig rig;
        rig.manager->activate(rig.displays);
        rig.open(QStringLiteral("ondril://mute?state=off"));
        QVERIFY(rig.manager->isMuted());
        rig.open(QStringLiteral("ondril://mute"));
        QVERIFY(!rig.manager->isMuted());
        rig.open(QStringLiteral("ondril://deactivate"));
        QCOMPARE(rig.manager->activeGroupID(), std::nullopt);
    }

    void app_data() {
        // The record starts at volume 1, muted, routed to the speakers.
        QTest::addColumn<QString>("query");
        QTest::addColumn<double>("volume");
        QTest::addColumn<bool>("muted");
        QTest::addColumn<QStringList>("routes");
        const QStringList speakers{GroupTestRig::speakersUID};
        QTest::newRow("percent") << "volume=150" << 1.5 << true << speakers;
        QTest::newRow("four is the top") << "volume=4" << 4.0 << true << speakers;
        QTest::newRow("fraction") << "volume=0.5" << 0.5 << true << speakers;
        QTest::newRow("trailing text") << "volume=150dB" << 1.0 << true << speakers;
        QTest::newRow("mute yes is false") << "mute=yes" << 1.0 << false << speakers;
        QTest::newRow("mute TRUE") << "mute=TRUE" << 1.0 << true << speakers;
        QTest::newRow("mute 1, volume too") << "mute=1&volume=200" << 2.0 << true << speakers;
        QTest::newRow("mute without value") << "mute" << 1.0 << true << speakers;
        QTest::newRow("device by name")
            << "device=left%20display" << 1.0 << true << QStringList{GroupTestRig::leftUID};
        QTest::newRow("device by uid") << "device=" + GroupTestRig::rightUID << 1.0 << true
                                       << QStringList{GroupTestRig::rightUID};
        QTest::newRow("DEFAULT follows") << "device=DEFAULT" << 1.0 << true << QStringList();
        QTest::newRow("unknown device keeps the volume")
            << "volume=3&device=Nope" << 3.0 << true << speakers;
    }

    void app() {
        QFETCH(QString, query);
        QFETCH(double, volume);
        QFETCH(bool, muted);
        QFETCH(QStringList, routes);
        URLRig rig;
        rig.apps->setMuted(ConfigRig::player, true);
        rig.apps->setRoutes(ConfigRig::player, {GroupTestRig::speakersUID});
        rig.open("ondril://app?bundle=" + ConfigRig::player + "&" + query);
        const AppAudioPrefs record = rig.apps->prefs().value(ConfigRig::player);
        QCOMPARE(record.volume, volume);
        QCOMPARE(record.muted, muted);
        QCOMPARE(record.routeUIDs, routes);
    }

    void configApplyBeatsSave() {
        URLRig rig;
        rig.open(QStringLiteral("ondril://config?save=Desk"));
        rig.manager->switchToDevice(rig.headphones);
        settle();
        rig.open(QStringLiteral("ondril://config?apply=desk&save=Other"));
        QCOMPARE(rig.configs->configs().size(), 1);
        QCOMPARE(rig.defaultOutput(), rig.speakers);
    }

    void ignored_data() {
        QTest::addColumn<QString>("url");
        QTest::newRow("foreign scheme") << "other://deactivate";
        QTest::newRow("scheme in capitals") << "ONDRIL://deactivate";
        QTest::newRow("no scheme") << "//deactivate";
        QTest::newRow("no host") << "ondril:deactivate";
        QTest::newRow("empty host") << "ondril:///deactivate";
        QTest::newRow("host in capitals") << "ondril://Deactivate";
        QTest::newRow("unknown host") << "ondril://quit";
        QTest::newRow("unparsable") << "ondril://deactivate:port";
        QTest::newRow("save without value") << "ondril://config?save";
    }

    void ignored() {
        QFETCH(QString, url);
        URLRig rig;
        rig.manager->activate(rig.displays);
        settle();
        const AudioObjectID output = rig.defaultOutput();
        rig.open(url);
        QCOMPARE(rig.activeName(), rig.displays.name);
        QCOMPARE(rig.defaultOutput(), output);
        QVERIFY(rig.configs->configs().isEmpty());
    }
};

QTEST_GUILESS_MAIN(URLHandlerTest)
#include "tst_urlhandler.moc"
