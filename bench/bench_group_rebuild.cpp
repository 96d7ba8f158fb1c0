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

// How long an active group takes to heal when one member's sink vanishes (pactl unload-module)
// while a tone plays to it: from the moment the program hears the sink is gone to the rebuilt
// combined sink being the default output, on a private PulseAudio and on a private PipeWire. The
// counters add the time from starting pactl, and the time for the member's return to be taken in.
namespace {

constexpr int kGiveUpMs = 10000;
const QString kVictim = QStringLiteral("bench_member");

struct Stack {
    PrivateSoundServer* server = nullptr;
    PulseAudioHardware* hardware = nullptr;
    AudioDeviceManager* audio = nullptr;
    GroupManager* manager = nullptr;
};

Stack g_stack;

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

bool hardwareLists(const QString& uid) {
    AudioPropertyValue value;
    g_stack.hardware->AudioObjectGetPropertyData(
        kAudioObjectSystemObject,
        {kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal, 0}, value);
    for (AudioObjectID id : std::get<std::vector<AudioObjectID>>(value)) {
        if (g_stack.audio->readUID(id) == uid)
            return true;
    }
    return false;
}

bool groupIsDefaultWith(int memberCount) {
    const auto aggregate = g_stack.manager->activeDeviceID();
    return aggregate && g_stack.manager->activeMemberUIDs().size() == memberCount &&
           g_stack.audio->readDefaultOutputID() == *aggregate;
}

void BM_MemberGoneToRebuiltDefault(benchmark::State& state) {
    PrivateSoundServer& server = *g_stack.server;
    double fromPactlTotal = 0;
    double returnTotal = 0;
    int rounds = 0;
    for (auto _ : state) {
        const auto module = server.owningModule(kVictim);
        if (!module || !groupIsDefaultWith(3)) {
            state.SkipWithError("the group is not on with all three members");
            break;
        }
        std::optional<qint64> heardAt;
        AudioObjectPropertyListenerToken token = 0;
        QElapsedTimer clock;
        g_stack.hardware->AudioObjectAddPropertyListenerBlock(
            kAudioObjectSystemObject,
            {kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal, 0},
            [&](const auto&) {
                if (!heardAt && !hardwareLists(kVictim))
                    heardAt = clock.nsecsElapsed();
            },
            token);
        QProcess pactl;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PULSE_SERVER"), server.serverAddress());
        pactl.setProcessEnvironment(environment);
        clock.start();
        pactl.start(QStringLiteral("pactl"),
                    {QStringLiteral("unload-module"), QString::number(module->first)});
        const bool rebuilt = spinUntil([] { return groupIsDefaultWith(2); });
        const qint64 doneAt = clock.nsecsElapsed();
        g_stack.hardware->AudioObjectRemovePropertyListenerBlock(token);
        pactl.waitForFinished(5000);
        if (!rebuilt || !heardAt) {
            state.SkipWithError("the group was not rebuilt without the member");
            break;
        }
        state.SetIterationTime(double(doneAt - *heardAt) / 1e9);
        fromPactlTotal += double(doneAt) / 1e6;

        // The member comes back under the same name; the group takes it in again.
        QElapsedTimer back;
        back.start();
        if (!server.loadNullSink(kVictim, QStringLiteral("Bench Member")) ||
            !spinUntil([] { return groupIsDefaultWith(3); })) {
            state.SkipWithError("the returning member was not taken in");
            break;
        }
        returnTotal += double(back.nsecsElapsed()) / 1e6;
        ++rounds;
    }
    if (rounds > 0) {
        state.counters["from_pactl_start_ms"] = fromPactlTotal / rounds;
        state.counters["member_back_ms"] = returnTotal / rounds;
    }
    state.SetLabel("sink gone heard -> rebuilt group is default; tone playing");
}

// One private server with the whole group stack on it, the group on and a tone playing.
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
    std::unique_ptr<QProcess> tone;

    ~Rig() {
        if (tone) {
            tone->kill();
            tone->waitForFinished();
        }
    }
};

std::unique_ptr<Rig> startRig(PrivateSoundServer::Kind kind) {
    const QString kindName = PrivateSoundServer::kindName(kind);
    auto rig = std::make_unique<Rig>(kind);
    if (!rig->server.start() ||
        !rig->server.loadNullSink(kVictim, QStringLiteral("Bench Member"))) {
        std::fprintf(stderr, "bench_group_rebuild: %s: %s\n", qPrintable(kindName),
                     qPrintable(rig->server.error()));
        return nullptr;
    }
    rig->server.pactl({QStringLiteral("set-default-sink"), QStringLiteral("builtin")});
    // Connects through PULSE_SERVER, which the server's start has just pointed at itself.
    rig->hardware = PulseAudioHardware::connect(5000);
    if (!rig->hardware) {
        std::fprintf(stderr, "bench_group_rebuild: %s: no connection\n", qPrintable(kindName));
        return nullptr;
    }
    rig->defaults =
        std::make_unique<UserDefaults>(rig->directory.filePath(QStringLiteral("defaults.json")));
    rig->settings = std::make_unique<AppSettings>(*rig->defaults, rig->center);
    rig->audio = std::make_unique<AudioDeviceManager>(*rig->hardware);
    rig->manager = std::make_unique<GroupManager>(*rig->audio, *rig->settings, rig->sleepMonitor);

    OutputGroup group;
    group.id = QUuid::createUuid();
    group.name = QStringLiteral("Bench Group");
    group.memberUIDs = {QStringLiteral("studio_left"), QStringLiteral("studio_right"), kVictim};
    group.masterUID = group.memberUIDs.first();
    rig->manager->setGroups({group});
    AudioDeviceManager& audio = *rig->audio;
    if (!spinUntil([&] { return audio.deviceIDForOutputUID(kVictim).has_value(); }) ||
        !rig->manager->activate(group)) {
        std::fprintf(stderr, "bench_group_rebuild: %s: activation failed\n", qPrintable(kindName));
        return nullptr;
    }
    rig->tone = rig->server.playTone({}, QStringLiteral("bench-tone"));
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
            ("BM_MemberGoneToRebuiltDefault/" + PrivateSoundServer::kindName(kind))
                .toUtf8()
                .constData(),
            [raw](benchmark::State& state) {
                g_stack = {&raw->server, raw->hardware.get(), raw->audio.get(), raw->manager.get()};
                BM_MemberGoneToRebuiltDefault(state);
            })
            ->UseManualTime()
            ->Iterations(15)
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
