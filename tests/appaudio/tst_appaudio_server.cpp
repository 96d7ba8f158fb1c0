#include "appaudio/AppAudioManager.h"
#include "appaudio/LevelMeter.h"
#include "appaudio/RouteSession.h"
#include "appaudio/SwitchSound.h"
#include "platform/linux/ProcRunningApplications.h"
#include "platform/pulse/PulseStreamRouter.h"

#include "ServerRig.h"

#include <QtTest>

#include <future>

// Per-app audio against a real private server, PulseAudio or PipeWire as ONDRIL_TEST_SERVER says:
// a record (of the stream's application.id, not paplay's) is heard on the sinks' monitors as it
// reads, also by a stream started later, until it goes back to neutral and nothing of Ondril's is
// left. (What Ondril's quit leaves is heard in the boost server test.)
namespace {

const QString player = QStringLiteral("org.example.Player");
// The default first.
const QStringList sinks{QStringLiteral("studio_left"), QStringLiteral("studio_right"),
                        QStringLiteral("airpods")};

const QStringList playerProperties{QStringLiteral("application.id=") + player,
                                   QStringLiteral("application.name=Player")};

} // namespace

class AppAudioServerTest : public QObject {
    Q_OBJECT

private slots:
    void init() {
        m_rig = std::make_unique<ServerRig>();
        const QString error = m_rig->start(sinks.first());
        QVERIFY2(error.isEmpty(), qPrintable(error));
        m_server = m_rig->server.get();
        m_hardware = m_rig->hardware.get();
        m_applications.setStreamIdentities(
            [this](std::int32_t pid) { return m_hardware->streamIdentity(pid); });
        m_rig->launch();
        m_apps = std::make_unique<AppAudioManager>(*m_rig->audio, *m_rig->manager, *m_rig->settings,
                                                   m_applications);
    }

    void cleanup() {
        m_apps.reset();
        m_rig.reset();
    }

    void recordIsHeardAsItReads_data() {
        QTest::addColumn<QStringList>("routes");
        QTest::addColumn<double>("volume");
        QTest::addColumn<bool>("muted");
        QTest::addColumn<QList<double>>("factors"); // of the plain level, per sink of `sinks`
        QTest::newRow("half volume") << QStringList{} << 0.5 << false << QList{0.5, 0.0, 0.0};
        QTest::newRow("another sink")
            << QStringList{"studio_right"} << 1.0 << false << QList{0.0, 1.0, 0.0};
        QTest::newRow("two sinks")
            << QStringList{"studio_right", "airpods"} << 1.0 << false << QList{0.0, 1.0, 1.0};
        QTest::newRow("muted") << QStringList{} << 1.0 << true << QList{0.0, 0.0, 0.0};
    }

    void recordIsHeardAsItReads() {
        QFETCH(QStringList, routes);
        QFETCH(double, volume);
        QFETCH(bool, muted);
        QFETCH(QList<double>, factors);
        auto first = startPlayer();
        QVERIFY(first);
        const auto plain = m_server->recordLevel(sinks.first());
        QVERIFY(plain && *plain > 0.1);

        m_apps->setRoutes(player, routes);
        m_apps->setVolume(player, volume);
        m_apps->setMuted(player, muted);
        QVERIFY(m_apps->session(player));
        // The sink the stream must end up on: the route's one sink, or the session's combined sink.
        const QString routed = routes.size() > 1 ? PulseStreamRouter::sinkPrefix + player
                                                 : routes.value(0, sinks.first());
        verifyLevels(*plain, factors, routed);

        // A stream the application starts later gets the same treatment.
        auto second = startPlayer();
        QVERIFY(second);
        QVERIFY(eventually([&] { return sessionProcesses() == 2; }));
        first->kill();
        first->waitForFinished();
        // The levels below tell whether the one left is the second.
        QVERIFY(eventually([&] { return sessionProcesses() == 1; }));
        verifyLevels(*plain, factors, routed);

        // Back to neutral: the stream plays as before on its own sink, and no private sink stays.
        m_apps->setRoutes(player, {});
        m_apps->setVolume(player, 1.0);
        m_apps->setMuted(player, false);
        QVERIFY(!m_apps->session(player));
        verifyLevels(*plain, {1.0, 0.0, 0.0}, sinks.first());
        for (const QString& sink : m_server->sinkNames())
            QVERIFY2(!sink.startsWith(QStringLiteral("com.kestrivane.ondril.")), qPrintable(sink));
        second->kill();
        second->waitForFinished();
    }

    // The meters measure only while the panel is open: the system's level from the monitor of
    // whatever sink is the default, the app's from its own stream.
    void metersRunOnlyWhileThePanelIsOpen() {
        auto tone = startPlayer();
        QVERIFY(tone);
        m_apps->setVolume(player, 0.5);
        QVERIFY(m_apps->session(player));
        LevelMeter meter(*m_rig->audio);
        QVERIFY(meterSources().isEmpty());
        // Closed again before the server has confirmed the meters' streams: none may stay.
        meter.start();
        m_apps->startMetering();
        meter.stop();
        m_apps->stopMetering();

        meter.start();
        m_apps->startMetering();
        const auto moving = [&] {
            return meter.outputLevel() > 0.5 && m_apps->levels().value(player).toDouble() > 0.5;
        };
        QVERIFY(eventually(moving));
        QCOMPARE(meterSources().size(), 2);
        QVERIFY(meterSources().contains(sinks.first() + QStringLiteral(".monitor")));

        QVERIFY(m_server->pactl({QStringLiteral("set-default-sink"), sinks[1]}));
        QVERIFY(eventually(
            [&] { return meterSources().contains(sinks[1] + QStringLiteral(".monitor")); }));
        QVERIFY(eventually(moving));

        meter.stop();
        m_apps->stopMetering();
        QVERIFY(eventually([&] { return meterSources().isEmpty(); }));
    }

    // The pop reaches the sink it names. PulseAudio's null sink carries a short sample at a tenth
    // of PipeWire's level, and PipeWire 0.3.65 plays cached samples at unity whatever the volume.
    void confirmationSoundPlaysOnTheNamedSink() {
        auto library = m_hardware->makeSoundLibrary();
        auto recording = std::async(std::launch::async,
                                    [this] { return m_server->recordLevel(sinks[2], 1500); });
        QTest::qWait(700);
        playSwitchSound(sinks[2], *m_rig->settings, *library);
        const auto level = recording.get();
        QVERIFY(level);
        QVERIFY2(*level > 0.003, qPrintable(QString::number(*level)));
    }

private:
    // The sources Ondril's level streams read, one entry per stream.
    QStringList meterSources() const {
        QMap<QString, QString> sourceNames; // by index
        for (const QString& line :
             m_server->pactl({"list", "short", "sources"}).value_or(QString()).split('\n'))
            if (const QStringList fields = line.split('\t'); fields.size() > 1)
                sourceNames.insert(fields[0], fields[1]);
        QStringList sources;
        const QString outputs = m_server->pactl({"list", "source-outputs"}).value_or(QString());
        static const QRegularExpression source(QStringLiteral("Source: (\\d+)"));
        for (const QString& output : outputs.split(QStringLiteral("Source Output #")))
            if (output.contains(QLatin1String("media.name = \"Ondril level\"")))
                sources.append(sourceNames.value(source.match(output).captured(1)));
        return sources;
    }

    // The test app on the default sink, once the server lists its stream.
    std::unique_ptr<QProcess> startPlayer() {
        auto tone = m_server->playTone({}, QStringLiteral("Player"), playerProperties);
        const bool listed =
            tone && eventually([&] {
                return m_hardware->streamIdentity(std::int32_t(tone->processId())).has_value();
            });
        return listed ? std::move(tone) : nullptr;
    }

    std::size_t sessionProcesses() const {
        const RouteSession* session = m_apps->session(player);
        return session ? session->processObjects().size() : 0;
    }

    // Once the app's stream plays to `sink`, each sink is heard at its factor of `plain`.
    void verifyLevels(double plain, const QList<double>& factors, const QString& sink) {
        QVERIFY(
            eventually([&] { return m_server->sinkOfStream(QStringLiteral("Player")) == sink; }));
        QTest::qWait(300); // what was buffered before the change drains
        for (qsizetype i = 0; i < sinks.size(); ++i) {
            const auto level = m_server->recordLevel(sinks[i]);
            QVERIFY(level);
            const QString what =
                QStringLiteral("%1: %2 of %3").arg(sinks[i]).arg(*level).arg(plain);
            if (factors[i] == 0.0)
                QVERIFY2(*level < ServerRig::silentLevel, qPrintable(what));
            else
                QVERIFY2(std::abs(*level / plain - factors[i]) < 0.1, qPrintable(what));
        }
    }

    std::unique_ptr<ServerRig> m_rig;
    PrivateSoundServer* m_server = nullptr;
    PulseAudioHardware* m_hardware = nullptr;
    ProcRunningApplications m_applications;
    std::unique_ptr<AppAudioManager> m_apps;
};

QTEST_GUILESS_MAIN(AppAudioServerTest)
#include "tst_appaudio_server.moc"
