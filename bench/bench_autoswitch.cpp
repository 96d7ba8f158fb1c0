#include "GroupStackRig.h"

// How fast a rule reacts: with "when the headphones are connected use them" on, from the moment
// the program's audio service lists the arriving sink (pactl load-module module-null-sink) to the
// default output being that sink, on a private PulseAudio and on a private PipeWire. The counter
// adds the time from starting pactl.
namespace {

const QString kArriving = QStringLiteral("bench_headphones");

bool defaultIs(const GroupStackRig& rig, const QString& uid) {
    return rig.audio->readUID(rig.audio->readDefaultOutputID()) == uid;
}

void BM_SinkArrivalToRuleDefault(benchmark::State& state, GroupStackRig& rig) {
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
        const auto timing = rig.timeChange(
            {QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
             QStringLiteral("sink_name=") + kArriving},
            [&] { return rig.lists(kArriving); }, [&] { return defaultIs(rig, kArriving); });
        if (!timing) {
            state.SkipWithError("the rule did not make the arriving sink the default");
            break;
        }
        state.SetIterationTime(double(timing->doneNs - timing->heardNs) / 1e9);
        fromPactlTotal += double(timing->doneNs) / 1e6;
        ++rounds;
    }
    if (rounds > 0)
        state.counters["from_pactl_start_ms"] = fromPactlTotal / rounds;
    state.SetLabel("sink listed -> rule-made default");
}

std::unique_ptr<GroupStackRig> makeRig(PrivateSoundServer::Kind kind) {
    auto rig = std::make_unique<GroupStackRig>(kind);
    if (!rig->start("bench_autoswitch", [](UserDefaults& defaults) {
            defaults.setBool(true, SettingsKeys::autoSwitchGroups);
        }))
        return nullptr;
    rig->manager->setDevicePriority({QStringLiteral("builtin")});
    rig->manager->saveDevicePriority();
    rig->manager->addRule({kArriving}, RuleAction::device(kArriving));
    return rig;
}

} // namespace

int main(int argc, char** argv) {
    return runOnBothServers(argc, argv, "BM_SinkArrivalToRuleDefault", makeRig,
                            BM_SinkArrivalToRuleDefault, 20);
}
