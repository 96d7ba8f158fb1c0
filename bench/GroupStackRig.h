#pragma once

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
#include <optional>
#include <vector>

// The program's group stack on a private server of its own, for the benchmarks that time how the
// stack answers a change of the server's devices, on PulseAudio and on PipeWire in one run.
namespace {

constexpr int kGiveUpMs = 10000;

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

struct GroupStackRig {
    explicit GroupStackRig(PrivateSoundServer::Kind kind)
        : server(kind) {}
    ~GroupStackRig() {
        if (tone) {
            tone->kill();
            tone->waitForFinished();
        }
    }

    PrivateSoundServer server;
    std::unique_ptr<PulseAudioHardware> hardware;
    QTemporaryDir directory;
    std::unique_ptr<UserDefaults> defaults;
    NotificationCenter center;
    std::unique_ptr<AppSettings> settings;
    SystemSleepMonitor sleepMonitor;
    std::unique_ptr<AudioDeviceManager> audio;
    std::unique_ptr<GroupManager> manager;
    std::unique_ptr<QProcess> tone;

    // Starts the server with "builtin" as its default output and the stack on it; `configure`
    // writes what the managers find stored when they are made. False, with why on stderr.
    bool start(
        const char* benchmark,
        const std::function<void(UserDefaults&)>& configure = [](UserDefaults&) {}) {
        const QString kindName = PrivateSoundServer::kindName(server.kind());
        if (!server.start()) {
            std::fprintf(stderr, "%s: %s: %s\n", benchmark, qPrintable(kindName),
                         qPrintable(server.error()));
            return false;
        }
        server.pactl({QStringLiteral("set-default-sink"), QStringLiteral("builtin")});
        // Connects through PULSE_SERVER, which the server's start has just pointed at itself.
        hardware = PulseAudioHardware::connect(5000);
        if (!hardware) {
            std::fprintf(stderr, "%s: %s: no connection\n", benchmark, qPrintable(kindName));
            return false;
        }
        defaults =
            std::make_unique<UserDefaults>(directory.filePath(QStringLiteral("defaults.json")));
        configure(*defaults);
        settings = std::make_unique<AppSettings>(*defaults, center);
        audio = std::make_unique<AudioDeviceManager>(*hardware);
        manager = std::make_unique<GroupManager>(*audio, *settings, sleepMonitor);
        return true;
    }

    // Whether the audio service itself lists a device of this UID now.
    bool lists(const QString& uid) const {
        AudioPropertyValue value;
        hardware->AudioObjectGetPropertyData(
            kAudioObjectSystemObject,
            {kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal, 0}, value);
        for (AudioObjectID id : std::get<std::vector<AudioObjectID>>(value))
            if (audio->readUID(id) == uid)
                return true;
        return false;
    }

    // One change of the devices made with `pactl arguments`, on a clock started with pactl: when
    // the device list first made `heard` true, and when `done` came true. nullopt when either did
    // not within the bound.
    struct Timing {
        qint64 heardNs = 0;
        qint64 doneNs = 0;
    };
    std::optional<Timing> timeChange(const QStringList& arguments,
                                     const std::function<bool()>& heard,
                                     const std::function<bool()>& done) {
        std::optional<qint64> heardAt;
        AudioObjectPropertyListenerToken token = 0;
        QElapsedTimer clock;
        hardware->AudioObjectAddPropertyListenerBlock(
            kAudioObjectSystemObject,
            {kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal, 0},
            [&](const auto&) {
                if (!heardAt && heard())
                    heardAt = clock.nsecsElapsed();
            },
            token);
        // Both servers run at once: this one is named, whatever PULSE_SERVER says by now.
        QProcess pactl;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PULSE_SERVER"), server.serverAddress());
        pactl.setProcessEnvironment(environment);
        clock.start();
        pactl.start(QStringLiteral("pactl"), arguments);
        const bool reached = spinUntil(done);
        const qint64 doneAt = clock.nsecsElapsed();
        hardware->AudioObjectRemovePropertyListenerBlock(token);
        pactl.waitForFinished(5000);
        if (!reached || !heardAt)
            return std::nullopt;
        return Timing{*heardAt, doneAt};
    }
};

// The main of such a benchmark: `bench` runs `iterations` times on a rig of each server, made
// by `makeRig` before any runs (null: the benchmark fails), reported as "<name>/<server>".
int runOnBothServers(
    int argc, char** argv, const std::string& name,
    const std::function<std::unique_ptr<GroupStackRig>(PrivateSoundServer::Kind)>& makeRig,
    void (*bench)(benchmark::State&, GroupStackRig&), int iterations) {
    QCoreApplication application(argc, argv);
    std::vector<std::unique_ptr<GroupStackRig>> rigs;
    for (auto kind : {PrivateSoundServer::Kind::PulseAudio, PrivateSoundServer::Kind::PipeWire}) {
        rigs.push_back(makeRig(kind));
        if (!rigs.back())
            return 1;
        GroupStackRig* rig = rigs.back().get();
        benchmark::RegisterBenchmark(
            (name + '/' + PrivateSoundServer::kindName(kind).toStdString()).c_str(),
            [rig, bench](benchmark::State& state) { bench(state, *rig); })
            ->UseManualTime()
            ->Iterations(iterations)
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

} // namespace
