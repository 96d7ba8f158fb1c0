#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "platform/SystemSleepMonitor.h"
#include "platform/UserDefaults.h"
#include "platform/pulse/PulseAudioHardware.h"

#include "PrivateSoundServer.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

// How fast a rule reacts: with "when the headphones are connected use them" on, from the moment
// the program's audio service lists the arriving sink (pactl load-module module-null-sink) to the
// default output being that sink, on a private PulseAudio and on a private PipeWire. The counter
// adds the time from starting pactl.
namespace {

constexpr int kGiveUpMs = 10000;
const QString kArriving = QStringLiteral("bench_headphones");

struct Rig {
    explicit Rig(PrivateSoundServer::Kind kind)
        : server(kind) {}
    PrivateSoundServer server;
    std::unique_ptr<PulseAudioHardware> hardware;
    QTemporaryDir directory;
    std::unique_ptr<UserDefaults> defaults;
    NotificationCenter center;
    std::unique_ptr<AppSettings> settings;
    SystemSleepMonitor sleepMonitor;
    std::unique_ptr<AudioDeviceManager> audio;
    std::unique_ptr<GroupManager> manager;
};

bool spinUntil(const std::function<bool()>& condition, int timeoutMs = kGiveUpMs) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
    }
    return true;
}

bool hardwareLists(const Rig& rig, const QString& uid) {
    AudioPropertyValue value;
    rig.hardware->AudioObjectGetPropertyData(
        kAudioObjectSystemObject,
        {kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal, 0}, value);
    for (AudioObjectID id : std::get<std::vector<AudioObjectID>>(value)) {
        if (rig.audio->readUID(id) == uid)
            return true;
    }
    return false;
}

bool defaultIs(const Rig& rig, const QString& uid) {
    return rig.audio->readUID(rig.audio->readDefaultOutputID()) == uid;
}

void BM_SinkArrivalToRuleDefault(benchmark::State& state, Rig& rig) {
    double fromPactlTotal = 0;
    int rounds = 0;
    for (auto _ : state) {
        // Gone first: the rule stops fitting and the priority list puts the speakers back.
        const auto module = rig.server.owningModule(kArriving);
        if (module)
            rig.server.pactl({QStringLiteral("unload-module"), QString::number(module->first)});
        if (!spinUntil([&] { return defaultIs(rig, QStringLiteral("builtin")); })) {
            state.SkipWithError("the priority list did not take over");
            break;
        }
        std::optional<qint64> heardAt;
        AudioObjectPropertyListenerToken token = 0;
        QElapsedTimer clock;
        rig.hardware->AudioObjectAddPropertyListenerBlock(
            kAudioObjectSystemObject,
            {kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal, 0},
            [&](const auto&) {
                if (!heardAt && hardwareLists(rig, kArriving))
                    heardAt = clock.nsecsElapsed();
            },
            token);
        QProcess pactl;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PULSE_SERVER"), rig.server.serverAddress());
        pactl.setProcessEnvironment(environment);
        clock.start();
        pactl.start(QStringLiteral("pactl"),
                    {QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
                     QStringLiteral("sink_name=") + kArriving});
        const bool switched = spinUntil([&] { return defaultIs(rig, kArriving); });
        const qint64 doneAt = clock.nsecsElapsed();
        rig.hardware->AudioObjectRemovePropertyListenerBlock(token);
        pactl.waitForFinished(5000);
        if (!switched || !heardAt) {
            state.SkipWithError("the rule did not make the arriving sink the default");
            break;
        }
        state.SetIterationTime(double(doneAt - *heardAt) / 1e9);
        fromPactlTotal += double(doneAt) / 1e6;
        ++rounds;
    }
    if (rounds > 0)
        state.counters["from_pactl_start_ms"] = fromPactlTotal / rounds;
    state.SetLabel("sink listed -> rule-made default");
}

std::unique_ptr<Rig> startRig(PrivateSoundServer::Kind kind) {
    const QString kindName = PrivateSoundServer::kindName(kind);
    auto rig = std::make_unique<Rig>(kind);
    if (!rig->server.start()) {
        std::fprintf(stderr, "bench_autoswitch: %s: %s\n", qPrintable(kindName),
                     qPrintable(rig->server.error()));
        return nullptr;
    }
    rig->server.pactl({QStringLiteral("set-default-sink"), QStringLiteral("builtin")});
    // Connects through PULSE_SERVER, which the server's start has just pointed at itself.
    rig->hardware = PulseAudioHardware::connect(5000);
    if (!rig->hardware) {
        std::fprintf(stderr, "bench_autoswitch: %s: no connection\n", qPrintable(kindName));
        return nullptr;
    }
    rig->defaults =
        std::make_unique<UserDefaults>(rig->directory.filePath(QStringLiteral("defaults.json")));
    rig->defaults->setBool(true, SettingsKeys::autoSwitchGroups);
    rig->settings = std::make_unique<AppSettings>(*rig->defaults, rig->center);
    rig->audio = std::make_unique<AudioDeviceManager>(*rig->hardware);
    rig->manager = std::make_unique<GroupManager>(*rig->audio, *rig->settings, rig->sleepMonitor);
    rig->manager->setDevicePriority({QStringLiteral("builtin")});
    rig->manager->saveDevicePriority();
    rig->manager->addRule({kArriving}, RuleAction::device(kArriving));
    return rig;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    std::vector<std::unique_ptr<Rig>> rigs;
    for (auto kind : {PrivateSoundServer::Kind::PulseAudio, PrivateSoundServer::Kind::PipeWire}) {
        auto rig = startRig(kind);
        if (!rig)
            return 1;
        Rig* raw = rig.get();
        rigs.push_back(std::move(rig));
        benchmark::RegisterBenchmark(
            ("BM_SinkArrivalToRuleDefault/" + PrivateSoundServer::kindName(kind))
                .toUtf8()
                .constData(),
            [raw](benchmark::State& state) { BM_SinkArrivalToRuleDefault(state, *raw); })
            ->UseManualTime()
            ->Iterations(20)
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
