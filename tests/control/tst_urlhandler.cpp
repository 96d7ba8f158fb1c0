#include "../configs/ConfigRig.h"

#include "control/URLHandler.h"

#include <QtTest>

namespace {

struct URLRig : ConfigRig {
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
    // The active group's name (", muted" when muted), else the default output's own name; then
    // how many configs are saved, if any.
    QString state() const {
        QString state;
        if (const auto group = manager->activeGroup())
            state = group->name + (manager->isMuted() ? ", muted" : "");
        for (const AudioDevice& device : audio->outputDevices())
            if (state.isEmpty() && device.id == defaultOutput())
                state = device.name;
        if (!configs->configs().isEmpty())
            state += QStringLiteral(" (%1 saved)").arg(configs->configs().size());
        return state;
    }
};

} // namespace

class URLHandlerTest : public QObject {
    Q_OBJECT

private slots:
    // URLs opened in turn, with or without the displays group on before, and the state they
    // leave. Only the exact scheme and host count; the first query item of a name wins.
    void urlLeavesState_data() {
        QTest::addColumn<bool>("displaysOn");
        QTest::addColumn<QStringList>("urls");
        QTest::addColumn<QString>("state");
        const auto row = [](const char* name, bool on, const QString& url, const char* state) {
            QTest::newRow(name) << on << QStringList{url} << QString(state);
        };
        row("name, percent-decoded", false, "ondril://activate?group=Both%20Displays",
            "Both Displays");
        row("name ignoring case", false, "ondril://activate?group=both%20DISPLAYS",
            "Both Displays");
        row("path and fragment not read", false,
            "ondril://activate/any/path?group=Both%20Displays#x", "Both Displays");
        row("upper-case uuid beats a group named so", false, "ondril://activate?group={UUID}",
            "Both Displays");
        row("lower-case uuid is only a name", false, "ondril://activate?group={uuid}", "{uuid}");
        row("unknown group", false, "ondril://activate?group=Kitchen", "Speakers");
        row("first item wins though it has no value", false,
            "ondril://activate?group&group=Both%20Displays", "Speakers");
        row("first item wins", false, "ondril://activate?group=Kitchen&group=Both%20Displays",
            "Speakers");
        row("query names with case", false, "ondril://activate?Group=Both%20Displays", "Speakers");
        row("device name ignoring case", false, "ondril://single?device=HEADPHONES", "Headphones");
        row("uid is no name", false, "ondril://single?device=" + GroupTestRig::headphonesUID,
            "Speakers");
        row("custom name is no name", false, "ondril://single?device=Desk%20Phones", "Speakers");
        row("no device", false, "ondril://single", "Speakers");
        row("mute off is still a toggle", true, "ondril://mute?state=off", "Both Displays, muted");
        row("deactivate", true, "ondril://deactivate", "Speakers");
        for (const char* ignored :
             {"other://deactivate", "ONDRIL://deactivate", "//deactivate", "ondril:deactivate",
              "ondril:///deactivate", "ondril://Deactivate", "ondril://quit",
              "ondril://deactivate:port", "ondril://config?save"})
            row(ignored, true, ignored, "Both Displays");
        QTest::newRow("mute twice")
            << true << QStringList{"ondril://mute?state=off", "ondril://mute"} << "Both Displays";
        QTest::newRow("config apply beats save")
            << false
            << QStringList{"ondril://config?save=Desk", "ondril://single?device=Headphones",
                           "ondril://config?apply=desk&save=Other"}
            << "Speakers (1 saved)";
    }

    void urlLeavesState() {
        QFETCH(bool, displaysOn);
        QFETCH(QStringList, urls);
        QFETCH(QString, state);
        URLRig rig;
        rig.defaults->setStringDictionary({{GroupTestRig::headphonesUID, "Desk Phones"}},
                                          SettingsKeys::deviceNames);
        if (displaysOn)
            QVERIFY(rig.manager->activate(rig.displays));
        settle();
        for (const QString& url : urls)
            rig.open(url);
        state.replace(QLatin1String("{uuid}"),
                      OutputGroupCodec::uuidText(rig.displays.id).toLower());
        QCOMPARE(rig.state(), state);
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
};

QTEST_GUILESS_MAIN(URLHandlerTest)
#include "tst_urlhandler.moc"
