#include "appaudio/AppAudioManager.h"
#include "appaudio/AppAudioPrefs.h"
#include "platform/linux/ProcRunningApplications.h"

#include "ServerRig.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

// Boost on a real private server: a gain above unity runs the application's audio through
// Ondril's own path and its limiter, heard on the destinations' monitors, and whatever ends the
// session (the slider, the application, Ondril's quit or death) leaves the application playing as
// before. The tone is a 0.5 sine, 0.354 RMS; through the limiter at gain g its RMS is that of
// tanh(g * 0.5 * sin).
namespace {

constexpr int kWaitMs = 20000;
constexpr int kRate = 48000;
constexpr double kTolerance = 0.01;
// Long enough for three recordings of a sink's monitor.
constexpr int kRecordingsMs = 3000;
const QString player = QStringLiteral("org.example.Player");
const QStringList sinks{QStringLiteral("studio_left"), QStringLiteral("studio_right"),
                        QStringLiteral("airpods")}; // the default first
const QStringList playerProperties{QStringLiteral("application.id=") + player,
                                   QStringLiteral("application.name=Player")};

} // namespace

class BoostServerTest : public QObject {
    Q_OBJECT

private slots:
    void init() {
        qputenv("XDG_CONFIG_HOME", m_config.path().toUtf8());
        m_rig = std::make_unique<ServerRig>();
        const QString error = m_rig->start(sinks.first());
        QVERIFY2(error.isEmpty(), qPrintable(error));
        m_server = m_rig->server.get();
    }

    void cleanup() {
        m_apps.reset();
        m_rig.reset();
    }

    void boostIsHeardThroughTheLimiter_data() {
        QTest::addColumn<QStringList>("routes");
        QTest::addColumn<QList<double>>("volumes"); // slider positions in turn, the last one heard
        QTest::addColumn<QList<double>>("levels");  // RMS per sink of `sinks`
        QTest::newRow("volume 4 is limited, not clipped")
            << QStringList{} << QList{4.0} << QList{0.802, 0.0, 0.0};
        QTest::newRow("two sinks")
            << QStringList{"studio_right", "airpods"} << QList{2.0} << QList{0.0, 0.575, 0.575};
        QTest::newRow("into boost while playing")
            << QStringList{} << QList{0.8, 2.0} << QList{0.575, 0.0, 0.0};
        QTest::newRow("out of boost while playing")
            << QStringList{"studio_right"} << QList{2.0, 0.5} << QList{0.0, 0.177, 0.0};
    }

    void boostIsHeardThroughTheLimiter() {
        QFETCH(QStringList, routes);
        QFETCH(QList<double>, volumes);
        QFETCH(QList<double>, levels);
        startManager();
        auto tone = startPlayer();
        QVERIFY(tone);
        m_apps->setRoutes(player, routes);
        const RouteSession* session = nullptr;
        for (double volume : volumes) {
            m_apps->setVolume(player, volume);
            QVERIFY(m_apps->session(player));
            QVERIFY(!session || m_apps->session(player) == session); // the slider path
            session = m_apps->session(player);
        }
        QTest::qWait(300); // what was queued before the last change drains
        // A loaded machine may drop a fragment, whose edge makes one 50 ms window louder than
        // the tone: a recording is taken again then, a wrong level never settles.
        for (qsizetype i = 0; i < sinks.size(); ++i) {
            std::optional<double> level;
            QVERIFY2(QTest::qWaitFor(
                         [&] {
                             level = m_server->recordLevel(sinks[i]);
                             return level && std::abs(*level - levels[i]) < kTolerance;
                         },
                         kRecordingsMs),
                     qPrintable(QStringLiteral("%1: %2").arg(sinks[i]).arg(level.value_or(-1))));
        }

        // The application quits: its session goes, and so does every sink Ondril made for it.
        tone->kill();
        tone->waitForFinished();
        QVERIFY(QTest::qWaitFor([&] { return !m_apps->session(player); }, kWaitMs));
        QVERIFY(QTest::qWaitFor([&] { return privateSinks().isEmpty(); }, kWaitMs));
    }

    // The slider crossing unity both ways while the tone plays, heard on a 48 kHz sink: the path
    // runs at 48 kHz, so after the limiter nothing is resampled and a sample above the limiter's
    // tanh(1.5 * 0.5) = 0.635 can only be the old and new path heard together.
    void sliderSweepHasNoGapAndNothingAboveTheLimiter() {
        QVERIFY(m_server->pactl(
            {"load-module", "module-null-sink", "sink_name=sweep", "rate=48000", "channels=2"}));
        startManager();
        QVERIFY(QTest::qWaitFor(
            [&] { return m_rig->devices().deviceIDForOutputUID("sweep").has_value(); }, kWaitMs));
        auto tone = startPlayer();
        QVERIFY(tone);
        m_apps->setRoutes(player, {QStringLiteral("sweep")});
        m_apps->setVolume(player, 0.8);
        const QString path = m_rig->directory.filePath(QStringLiteral("sweep.raw"));
        QProcess recorder;
        recorder.start("parecord",
                       {"--device=sweep.monitor", "--raw", "--format=s16le", "--channels=1",
                        "--channel-map=front-left", "--rate=48000", "--latency-msec=5", path});
        // Under load parecord starts late: sweep only once it records the routed tone.
        QVERIFY(QTest::qWaitFor([&] { return QFileInfo(path).size() > kRate * 2 / 2; }, kWaitMs));
        for (double volume : {1.5, 0.8, 1.5, 0.8}) {
            m_apps->setVolume(player, volume);
            QTest::qWait(700);
        }
        // Then held boosted a while: a destination stream that ran dry must not stay dry. Only the
        // crossings are looked at for the loudest sample: on PulseAudio the held path plays at a
        // variable rate, and a fragment it drops to bound latency goes through the resampler,
        // whose overshoot (about 10%) would be taken for the two paths heard together (+0.4).
        const qsizetype sweepEnd = QFileInfo(path).size() / 2;
        m_apps->setVolume(player, 1.5);
        QTest::qWait(5000);
        ::kill(pid_t(recorder.processId()), SIGTERM);
        QVERIFY(recorder.waitForFinished(kWaitMs));
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray recording = file.readAll();
        const auto* samples = reinterpret_cast<const std::int16_t*>(recording.constData());
        const qsizetype count = recording.size() / 2;
        constexpr int kWindow = kRate / 200; // 5 ms
        int silentWindows = 0;
        int longestGapMs = 0;
        double loudest = 0;
        // The recording's first and last 100 ms are its own start and end.
        for (qsizetype start = kRate / 10; start + kWindow < count - kRate / 10; start += kWindow) {
            double energy = 0;
            for (qsizetype i = start; i < start + kWindow; ++i) {
                const double x = samples[i] / 32768.0;
                energy += x * x;
                if (i < sweepEnd)
                    loudest = std::max(loudest, std::abs(x));
            }
            silentWindows = std::sqrt(energy / kWindow) < 0.01 ? silentWindows + 1 : 0;
            longestGapMs = std::max(longestGapMs, silentWindows * 5);
        }
        QVERIFY2(longestGapMs <= 50, qPrintable(QStringLiteral("gap %1 ms").arg(longestGapMs)));
        // Heard through the limiter, and never louder.
        QVERIFY2(loudest > 0.635 - kTolerance && loudest < 0.635 + kTolerance,
                 qPrintable(QStringLiteral("peak %1").arg(loudest)));
    }

    // The path's audio thread runs real-time, as the servers' own threads do, and goes with it.
    void theAudioThreadRunsRealtimeWhileBoosted() {
        rlimit limit{};
        if (geteuid() != 0 && (getrlimit(RLIMIT_RTPRIO, &limit) != 0 || limit.rlim_cur < 4))
            QSKIP("only RealtimeKit could make this user's threads real-time");
        startManager();
        auto tone = startPlayer();
        QVERIFY(tone);
        m_apps->setVolume(player, 2.0);
        QVERIFY(m_apps->session(player));
        QCOMPARE(realtimeThreads(), 1);
        m_apps->setVolume(player, 0.5);
        QCOMPARE(realtimeThreads(), 0);
    }

    // On PulseAudio a path keeps its destination's level with a rate controller that learns the
    // device's clock and the level it needs; the next path to that device starts from there, so a
    // slider crossing unity does not learn the device again with under-runs.
    void aLaterPathStartsFromWhatTheLastOneLearned() {
        if (m_server->kind() != PrivateSoundServer::Kind::PulseAudio)
            QSKIP("PipeWire matches the clocks itself");
        QLoggingCategory::setFilterRules(
            QStringLiteral("com.kestrivane.ondril.PulseTapAggregate.debug=true"));
        s_aggregateLines.clear();
        s_previousHandler = qInstallMessageHandler(
            [](QtMsgType type, const QMessageLogContext& context, const QString& message) {
                if (qstrcmp(context.category, "com.kestrivane.ondril.PulseTapAggregate") == 0)
                    s_aggregateLines.append(message);
                else
                    s_previousHandler(type, context, message);
            });
        const auto restore = qScopeGuard([] {
            qInstallMessageHandler(s_previousHandler);
            QLoggingCategory::setFilterRules({});
        });
        const auto starts = [] { return s_aggregateLines.filter(QStringLiteral("starts at")); };
        startManager();
        auto tone = startPlayer();
        QVERIFY(tone);
        m_apps->setVolume(player, 1.5);
        QVERIFY(QTest::qWaitFor([&] { return !starts().isEmpty(); }, kWaitMs));
        QCOMPARE(starts(), QStringList{"destination 0 starts at a 12 ms level"});

        // With the tap sink suspended, the destination runs dry: its level rises.
        const QString tap = privateSinks().first();
        const QRegularExpression raised("level now (\\d+) ms$");
        const auto learned = [&] {
            QString level;
            for (const QString& line : std::as_const(s_aggregateLines))
                if (const auto match = raised.match(line); match.hasMatch())
                    level = match.captured(1);
            return level;
        };
        QVERIFY(m_server->pactl({"suspend-sink", tap, "1"}));
        QVERIFY(QTest::qWaitFor([&] { return !learned().isEmpty(); }, kWaitMs));
        QVERIFY(m_server->pactl({"suspend-sink", tap, "0"}));
        QTest::qWait(1500); // the controller looks once a second

        m_apps->setVolume(player, 0.8);
        m_apps->setVolume(player, 1.5);
        QVERIFY(QTest::qWaitFor([&] { return starts().size() == 2; }, kWaitMs));
        QCOMPARE(starts().last(),
                 QStringLiteral("destination 0 starts at a %1 ms level").arg(learned()));
    }

    void theAppPlaysAsBeforeAfterOndrilEnds_data() {
        QTest::addColumn<int>("signal");
        QTest::addColumn<bool>("withItsGuard");
        QTest::addColumn<QString>("heardOn"); // the app started on the second sink
        QTest::newRow("quit") << SIGTERM << false << sinks[1];
        QTest::newRow("killed: its guard clears the tap") << SIGKILL << false << sinks[1];
        // Where the app played was Ondril's and its guard's to know: it comes back on the default.
        QTest::newRow("killed with its guard, then started again")
            << SIGKILL << true << sinks.first();
    }

    void theAppPlaysAsBeforeAfterOndrilEnds() {
        QFETCH(int, signal);
        QFETCH(bool, withItsGuard);
        QFETCH(QString, heardOn);
        storePlayerVolume(2.0);
        auto tone = m_server->playTone(sinks[1], QStringLiteral("Player"), playerProperties);
        QVERIFY(tone);
        auto ondril = TestSupport::startOndril();
        QVERIFY(QTest::qWaitFor(
            [&] {
                const auto level = m_server->recordLevel(sinks.first(), 300);
                return level && std::abs(*level - 0.575) < kTolerance;
            },
            kWaitMs));
        const auto pid = pid_t(ondril->processId());
        pid_t guard = 0;
        QVERIFY(QTest::qWaitFor([&] { return (guard = guardOf(pid)) != 0; }, kWaitMs));

        if (withItsGuard)
            ::kill(guard, SIGKILL);
        ::kill(pid, signal);
        QVERIFY(ondril->waitForFinished(10000));
        if (withItsGuard) {
            // Left in the tap until the next start clears it.
            QTest::qWait(1000);
            QVERIFY(!privateSinks().isEmpty());
            storePlayerVolume(1.0);
            ondril = TestSupport::startOndril();
        }
        QVERIFY(QTest::qWaitFor([&] { return privateSinks().isEmpty(); }, kWaitMs));
        QVERIFY(QTest::qWaitFor([&] { return !runs(guard); }, kWaitMs));
        QCOMPARE(m_server->sinkOfStream(QStringLiteral("Player")), heardOn);
        // At its own volume once what the sink rendered before the move has played out.
        std::optional<double> level;
        QVERIFY2(QTest::qWaitFor(
                     [&] {
                         level = m_server->recordLevel(heardOn, 300);
                         return level && std::abs(*level - 0.354) < kTolerance;
                     },
                     kWaitMs),
                 qPrintable(QString::number(level.value_or(-1))));
        ondril->terminate();
        ondril->waitForFinished(10000);
    }

private:
    void startManager() {
        m_applications.setStreamIdentities(
            [this](std::int32_t pid) { return m_rig->hardware->streamIdentity(pid); });
        m_rig->launch();
        m_apps = std::make_unique<AppAudioManager>(m_rig->devices(), *m_rig->manager,
                                                   *m_rig->settings, m_applications);
    }

    // The test app on the default sink, once the server lists it as a process.
    std::unique_ptr<QProcess> startPlayer() {
        auto tone = m_server->playTone({}, QStringLiteral("Player"), playerProperties);
        const bool listed = tone && QTest::qWaitFor(
                                        [&] {
                                            AudioPropertyValue value;
                                            m_rig->hardware->AudioObjectGetPropertyData(
                                                kAudioObjectSystemObject,
                                                {kAudioHardwarePropertyProcessObjectList,
                                                 kAudioObjectPropertyScopeGlobal, 0},
                                                value);
                                            const auto* objects =
                                                std::get_if<std::vector<AudioObjectID>>(&value);
                                            return objects && !objects->empty();
                                        },
                                        kWaitMs);
        return listed ? std::move(tone) : nullptr;
    }

    static void storePlayerVolume(double volume) {
        AppAudioPrefs prefs;
        prefs.volume = volume;
        UserDefaults defaults(UserDefaults::standardFilePath());
        QVERIFY(
            defaults.setData(AppAudioPrefs::encodeAll({{player, prefs}}), SettingsKeys::appPrefs));
    }

    // The process that clears Ondril's taps should it die: a child of its own.
    static pid_t guardOf(pid_t ondril) {
        QFile children(QStringLiteral("/proc/%1/task/%1/children").arg(ondril));
        if (!children.open(QIODevice::ReadOnly))
            return 0;
        for (const QByteArray& child : children.readAll().split(' ')) {
            QFile commandLine(QStringLiteral("/proc/%1/cmdline").arg(child.toInt()));
            if (commandLine.open(QIODevice::ReadOnly) &&
                commandLine.readAll().contains("--tap-guard"))
                return pid_t(child.toInt());
        }
        return 0;
    }

    // A process that has ended may stay listed, as a zombie, until its new parent reaps it.
    static bool runs(pid_t pid) {
        QFile status(QStringLiteral("/proc/%1/stat").arg(pid));
        return status.open(QIODevice::ReadOnly) && !status.readAll().contains(") Z ");
    }

    static int realtimeThreads() {
        int count = 0;
        for (const QString& thread :
             QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot))
            if ((sched_getscheduler(pid_t(thread.toInt())) & ~SCHED_RESET_ON_FORK) == SCHED_RR)
                ++count;
        return count;
    }

    QStringList privateSinks() const {
        return m_server->sinkNames().filter(QRegularExpression("^com\\.kestrivane\\.ondril\\."));
    }

    static inline QStringList s_aggregateLines; // what the path's debug category logged
    static inline QtMessageHandler s_previousHandler = nullptr;

    QTemporaryDir m_config;
    std::unique_ptr<ServerRig> m_rig;
    PrivateSoundServer* m_server = nullptr;
    ProcRunningApplications m_applications;
    std::unique_ptr<AppAudioManager> m_apps;
};

QTEST_GUILESS_MAIN(BoostServerTest)
#include "tst_boost_server.moc"
