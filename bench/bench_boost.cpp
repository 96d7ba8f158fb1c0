#include "appaudio/RouteSession.h"
#include "platform/pulse/PulseAudioHardware.h"

#include "PrivateSoundServer.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <cmath>
#include <csignal>
#include <cstdio>

// A boosted session against a private server (ONDRIL_TEST_SERVER=pipewire for PipeWire): what the
// default's monitor hears while the slider crosses unity, the CPU time of the process while one
// session plays, and the latency the path adds, at the start and after a long play
// (ONDRIL_BENCH_BOOST_SECONDS, 600 unless set).
namespace {

constexpr int kRate = 48000;
const QString kSink = QStringLiteral("studio_left");

PrivateSoundServer* g_server = nullptr;
PulseAudioHardware* g_hardware = nullptr;
QTemporaryDir* g_directory = nullptr;

// Runs the event loop for `ms`, or until `done` holds.
bool runFor(
    int ms, const std::function<bool()>& done = [] { return false; }) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms) {
        if (done())
            return true;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(5);
    }
    return done();
}

QProcessEnvironment serverEnvironment() {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PULSE_SERVER"), g_server->serverAddress());
    return environment;
}

std::unique_ptr<QProcess> start(const QString& program, const QStringList& arguments) {
    auto process = std::make_unique<QProcess>();
    process->setProcessEnvironment(serverEnvironment());
    process->start(program, arguments);
    process->waitForStarted(3000);
    return process;
}

std::unique_ptr<QProcess> play(const QString& file, const QStringList& format) {
    return start(QStringLiteral("paplay"),
                 QStringList{QStringLiteral("--property=application.id=org.example.Bench")} +
                     format + QStringList{file});
}

// A boosted session of the process that `player` runs, to the default sink.
std::unique_ptr<RouteSession> boost(const QProcess& player) {
    std::vector<AudioObjectID> objects;
    runFor(5000, [&] {
        AudioPropertyValue value;
        g_hardware->AudioObjectGetPropertyData(
            kAudioObjectSystemObject,
            {kAudioHardwarePropertyProcessObjectList, kAudioObjectPropertyScopeGlobal, 0}, value);
        for (AudioObjectID object : std::get<std::vector<AudioObjectID>>(value)) {
            AudioPropertyValue pid;
            g_hardware->AudioObjectGetPropertyData(
                object, {kAudioProcessPropertyPID, kAudioObjectPropertyScopeGlobal, 0}, pid);
            if (std::get<std::int32_t>(pid) == std::int32_t(player.processId()))
                objects.push_back(object);
        }
        return !objects.empty();
    });
    auto session = std::make_unique<RouteSession>(*g_hardware, QStringLiteral("org.example.Bench"),
                                                  objects, QStringList{kSink});
    session->setGain(1.5f, true);
    return session->start() ? std::move(session) : nullptr;
}

// 440 Hz at half scale, the tone the tests play, as raw stereo s16 at 48 kHz.
QString tone() {
    const QString path = g_directory->filePath(QStringLiteral("tone.raw"));
    QByteArray data(kRate * 30 * 4, '\0');
    auto* samples = reinterpret_cast<std::int16_t*>(data.data());
    for (int frame = 0; frame < kRate * 30; ++frame)
        samples[2 * frame] = samples[2 * frame + 1] =
            std::int16_t(16384 * std::sin(2 * M_PI * 440.0 * frame / kRate));
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(data);
    return path;
}

// The slider crossing unity both ways while a tone plays: the longest stretch of silence (5 ms
// windows below 1% of full scale) and the loudest sample, which the limiter at 1.5 holds at
// tanh(0.75) = 0.635; a doubled signal would go above it.
void BM_SliderSweep(benchmark::State& state) {
    const QString recordingPath = g_directory->filePath(QStringLiteral("sweep.raw"));
    double longestGapMs = 0;
    double loudest = 0;
    for (auto _ : state) {
        auto player = play(tone(), {"--raw", "--format=s16le", "--channels=2", "--rate=48000"});
        auto session = boost(*player);
        if (!session) {
            state.SkipWithError("no session");
            return;
        }
        session->setGain(0.8f, false);
        runFor(1000);
        auto recorder =
            start(QStringLiteral("parecord"),
                  {QStringLiteral("--device=") + kSink + QStringLiteral(".monitor"), "--raw",
                   "--format=s16le", "--channels=1", "--channel-map=front-left", "--rate=48000",
                   "--latency-msec=5", recordingPath});
        runFor(700);
        for (const auto& [gain, boosted] : {std::pair{1.5f, true}, std::pair{0.8f, false},
                                            std::pair{1.5f, true}, std::pair{0.8f, false}}) {
            session->setGain(gain, boosted);
            runFor(700);
        }
        ::kill(pid_t(recorder->processId()), SIGTERM);
        recorder->waitForFinished(3000);
        session.reset();
        player->kill();
        player->waitForFinished(3000);
        QFile file(recordingPath);
        file.open(QIODevice::ReadOnly);
        const QByteArray recording = file.readAll();
        const auto* samples = reinterpret_cast<const std::int16_t*>(recording.constData());
        const int count = int(recording.size() / 2);
        constexpr int kWindow = kRate / 200;
        int silentWindows = 0;
        // The recording's first and last 100 ms are its own start and end.
        for (int start = kRate / 10; start + kWindow < count - kRate / 10; start += kWindow) {
            double energy = 0;
            for (int i = start; i < start + kWindow; ++i) {
                const double x = samples[i] / 32768.0;
                energy += x * x;
                loudest = std::max(loudest, std::abs(x));
            }
            silentWindows = std::sqrt(energy / kWindow) < 0.01 ? silentWindows + 1 : 0;
            longestGapMs = std::max(longestGapMs, silentWindows * 5.0);
        }
    }
    state.counters["longest_gap_ms"] = longestGapMs;
    state.counters["loudest"] = loudest;
    state.SetLabel("slider 0.8 -> 1.5 -> 0.8 -> 1.5 -> 0.8 while playing");
}
BENCHMARK(BM_SliderSweep)->Iterations(1)->Unit(benchmark::kMillisecond);

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void BM_BoostedSessionCpu(benchmark::State& state) {
    auto player = play(tone(), {"--raw", "--format=s16le", "--channels=2", "--rate=48000"});
    auto session = boost(*player);
    if (!session) {
        state.SkipWithError("no session");
        return;
    }
    constexpr int kSeconds = 10;
    double used = 0;
    for (auto _ : state) {
        const double before = cpuSeconds();
        runFor(kSeconds * 1000);
        used = cpuSeconds() - before;
    }
    state.counters["cpu_percent_of_one_core"] = 100.0 * used / kSeconds;
    state.SetLabel("CPU of the process while one boosted session plays");
    session.reset();
    player->kill();
    player->waitForFinished(3000);
}
BENCHMARK(BM_BoostedSessionCpu)->Iterations(1)->Unit(benchmark::kMillisecond);

// What the server says the path holds that an unrouted stream does not: the record stream on the
// tap's monitor (the monitor's latency and what waits to be read) and the destination stream's
// queue. The servers' own timestamps, so that no player or recorder start-up delay enters.
double addedLatencyMs() {
    const auto list = [](const char* what) {
        QProcess pactl;
        pactl.setProcessEnvironment(serverEnvironment());
        pactl.start(QStringLiteral("pactl"), {"-f", "json", "list", what});
        pactl.waitForFinished(5000);
        return QJsonDocument::fromJson(pactl.readAllStandardOutput()).array();
    };
    const auto named = [](const QJsonArray& streams, const char* name, const char* device) {
        for (const QJsonValue& stream : streams)
            if (stream[QStringLiteral("properties")][QStringLiteral("media.name")].toString() ==
                QLatin1String(name))
                return stream[QStringLiteral("buffer_latency_usec")].toDouble() +
                       stream[QLatin1String(device)].toDouble();
        return -1e6;
    };
    const double playback = named(list("sink-inputs"), "Ondril boost", "");
    const double record = named(list("source-outputs"), "Ondril tap", "source_latency_usec");
    return playback < 0 || record < 0 ? -1 : (playback + record) / 1000.0;
}

// The mean of a few readings a quarter of a second apart.
double meanAddedLatencyMs() {
    double sum = 0;
    int readings = 0;
    for (int i = 0; i < 8; ++i) {
        if (const double latency = addedLatencyMs(); latency >= 0) {
            sum += latency;
            ++readings;
        }
        runFor(250);
    }
    return readings ? sum / readings : -1;
}

// 480 Hz at half scale, mono, for `seconds`: a file rather than a pipe, which the blocking
// pactl calls would leave unfed.
QString longTone(int seconds) {
    const QString path = g_directory->filePath(QStringLiteral("long-tone.raw"));
    QByteArray data(qsizetype(kRate) * seconds * 2, '\0');
    auto* samples = reinterpret_cast<std::int16_t*>(data.data());
    for (qsizetype frame = 0; frame < qsizetype(kRate) * seconds; ++frame)
        samples[frame] = std::int16_t(16384 * std::sin(2 * M_PI * 480.0 * double(frame) / kRate));
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(data);
    return path;
}

// Latency at the start and after a long play of one boosted session, and what the destination's
// monitor heard meanwhile: any silence longer than 10 ms is an underrun (or a dropped fragment).
void BM_LongPlay(benchmark::State& state) {
    const int seconds = qEnvironmentVariableIsSet("ONDRIL_BENCH_BOOST_SECONDS")
                            ? qEnvironmentVariableIntValue("ONDRIL_BENCH_BOOST_SECONDS")
                            : 600;
    auto player =
        play(longTone(seconds + 30), {"--raw", "--format=s16le", "--channels=1", "--rate=48000"});
    auto session = boost(*player);
    if (!session) {
        state.SkipWithError("no session");
        return;
    }
    const QString recordingPath = g_directory->filePath(QStringLiteral("long.raw"));
    auto recorder = start(QStringLiteral("parecord"),
                          {QStringLiteral("--device=") + kSink + QStringLiteral(".monitor"),
                           "--raw", "--format=s16le", "--channels=1", "--channel-map=front-left",
                           "--rate=48000", recordingPath});
    double first = 0;
    double last = 0;
    for (auto _ : state) {
        runFor(5000);
        first = meanAddedLatencyMs();
        runFor(seconds * 1000);
        last = meanAddedLatencyMs();
    }
    ::kill(pid_t(recorder->processId()), SIGTERM);
    recorder->waitForFinished(3000);
    session.reset();
    player->kill();
    player->waitForFinished(3000);
    QFile file(recordingPath);
    file.open(QIODevice::ReadOnly);
    const QByteArray recording = file.readAll();
    const auto* samples = reinterpret_cast<const std::int16_t*>(recording.constData());
    const qsizetype count = recording.size() / 2;
    constexpr int kWindow = kRate / 200;
    int silentWindows = 0;
    int gaps = 0;
    double longestGapMs = 0;
    // Past the first 2 s: the recorder and the session's start.
    for (qsizetype start = 2 * kRate; start + kWindow < count - kRate / 10; start += kWindow) {
        double energy = 0;
        for (qsizetype i = start; i < start + kWindow; ++i)
            energy += double(samples[i]) * samples[i] / (32768.0 * 32768.0);
        silentWindows = std::sqrt(energy / kWindow) < 0.01 ? silentWindows + 1 : 0;
        gaps += silentWindows == 3 ? 1 : 0;
        longestGapMs = std::max(longestGapMs, silentWindows * 5.0);
    }
    state.counters["added_latency_start_ms"] = first;
    state.counters["added_latency_end_ms"] = last;
    state.counters["gaps_over_10ms"] = gaps;
    state.counters["longest_gap_ms"] = longestGapMs;
    state.counters["recorded_s"] = double(count) / kRate;
    state.SetLabel(QStringLiteral("one boosted session playing %1 s").arg(seconds).toStdString());
}
BENCHMARK(BM_LongPlay)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    PrivateSoundServer server(
        PrivateSoundServer::kindFromEnvironment().value_or(PrivateSoundServer::Kind::PulseAudio));
    std::printf("server: %s\n", qPrintable(PrivateSoundServer::kindName(server.kind())));
    if (!server.start()) {
        std::fprintf(stderr, "bench_boost: %s\n", qPrintable(server.error()));
        return 1;
    }
    auto hardware = PulseAudioHardware::connect(5000);
    if (!hardware) {
        std::fprintf(stderr, "bench_boost: no connection to the private server\n");
        return 1;
    }
    QTemporaryDir directory;
    g_server = &server;
    g_hardware = hardware.get();
    g_directory = &directory;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
