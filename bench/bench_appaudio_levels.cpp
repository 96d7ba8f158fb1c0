#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "appaudio/AppAudioManager.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "platform/SystemSleepMonitor.h"
#include "platform/UserDefaults.h"
#include "platform/linux/ProcRunningApplications.h"
#include "platform/pulse/PulseAudioHardware.h"

#include "BenchServer.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <cstdio>
#include <functional>

// Per-app audio on a private server, with three players whose records ask for half volume (so
// each has a session on the server's own controls): how soon a record change shows on the
// default sink's monitor, and what the program costs in CPU while the sessions run.
namespace {

constexpr int kPlayers = 3;
constexpr double kToneAmplitude = 0.5; // of the fixture's tone

AppAudioManager* g_apps = nullptr;
PulseAudioHardware* g_hardware = nullptr;
QStringList g_players;

bool spinUntil(const std::function<bool()>& condition, int timeoutMs) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents();
        QThread::msleep(1);
    }
    return true;
}

// The event loop as the program runs it, idle unless something arrives.
void runEventLoopFor(int ms) {
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

// From a volume change of one player's record to the first peak on the monitor that carries
// the new level (within 10 %), the other players muted.
void BM_RecordChangeToMonitorLevel(benchmark::State& state) {
    auto monitor = g_hardware->makeOutputPeakMonitor();
    const auto peak = std::make_shared<std::atomic<float>>(0.0f);
    if (!monitor->start(peak)) {
        state.SkipWithError("no level stream on the monitor");
        return;
    }
    for (const QString& player : g_players.mid(1))
        g_apps->setMuted(player, true);
    bool loud = false;
    for (auto _ : state) {
        loud = !loud;
        const double volume = loud ? 1.0 : 0.25;
        const float expected = float(kToneAmplitude * volume);
        QElapsedTimer timer;
        timer.start();
        g_apps->setVolume(g_players.first(), volume);
        peak->store(0.0f, std::memory_order_relaxed);
        const bool reached = spinUntil(
            [&] {
                const float seen = peak->exchange(0.0f, std::memory_order_relaxed);
                return seen > 0.0f && std::abs(seen - expected) < 0.1f * expected;
            },
            5000);
        state.SetIterationTime(double(timer.nsecsElapsed()) / 1e9);
        if (!reached) {
            state.SkipWithError("the monitor never carried the new level");
            break;
        }
    }
    for (const QString& player : g_players.mid(1))
        g_apps->setMuted(player, false);
    monitor->stop();
    state.SetLabel("volume 1.0 <-> 0.25, peaks at 60 per second");
}
BENCHMARK(BM_RecordChangeToMonitorLevel)
    ->UseManualTime()
    ->Iterations(20)
    ->Unit(benchmark::kMillisecond);

double cpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// CPU of the whole process (main thread and the server connection's) over 5 s of running
// sessions, as a percentage of one core; with the panel's meters on (the system level and the
// per-app levels) while range(0) is 1.
void BM_CpuWithThreeSessions(benchmark::State& state) {
    const bool metering = state.range(0) != 0;
    auto monitor = g_hardware->makeOutputPeakMonitor();
    if (metering) {
        monitor->start(std::make_shared<std::atomic<float>>(0.0f));
        g_apps->startMetering();
    }
    double percent = 0;
    for (auto _ : state) {
        const double before = cpuSeconds();
        QElapsedTimer timer;
        timer.start();
        runEventLoopFor(5000);
        percent = 100.0 * (cpuSeconds() - before) / (double(timer.nsecsElapsed()) / 1e9);
        state.SetIterationTime(double(timer.nsecsElapsed()) / 1e9);
    }
    monitor->stop();
    g_apps->stopMetering();
    state.counters["cpu_percent"] = percent;
    state.SetLabel(metering ? "panel open: per-app meters on" : "panel closed");
}
BENCHMARK(BM_CpuWithThreeSessions)
    ->Arg(0)
    ->Arg(1)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const auto server = startBenchServer("bench_appaudio_levels");
    if (!server)
        return 1;
    auto hardware = PulseAudioHardware::connect(5000);
    if (!hardware) {
        std::fprintf(stderr, "bench_appaudio_levels: no connection to the private server\n");
        return 1;
    }
    ProcRunningApplications applications;
    applications.setStreamIdentities(
        [&hardware](std::int32_t pid) { return hardware->streamIdentity(pid); });
    QTemporaryDir directory;
    UserDefaults defaults(directory.filePath(QStringLiteral("defaults.json")));
    NotificationCenter center;
    AppSettings settings(defaults, center);
    SystemSleepMonitor sleepMonitor;
    AudioDeviceManager audio(*hardware);
    GroupManager groups(audio, settings, sleepMonitor);
    AppAudioManager apps(audio, groups, settings, applications);

    std::vector<std::unique_ptr<QProcess>> tones;
    for (int i = 0; i < kPlayers; ++i) {
        const QString id = QStringLiteral("org.example.Player%1").arg(i);
        tones.push_back(server->playTone({}, QStringLiteral("Player %1").arg(i),
                                         {QStringLiteral("application.id=") + id}));
        g_players.append(id);
    }
    for (const QString& player : g_players)
        apps.setVolume(player, 0.5);
    if (!spinUntil(
            [&] {
                return std::all_of(g_players.begin(), g_players.end(), [&](const QString& player) {
                    return apps.session(player) != nullptr;
                });
            },
            15000)) {
        std::fprintf(stderr, "bench_appaudio_levels: the players got no sessions\n");
        return 1;
    }
    g_hardware = hardware.get();
    g_apps = &apps;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    apps.stopAllSessions();
    return 0;
}
