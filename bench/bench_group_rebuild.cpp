#include "GroupStackRig.h"

#include <QUuid>

// How long an active group takes to heal when one member's sink vanishes (pactl unload-module)
// while a tone plays to it: from the moment the program hears the sink is gone to the rebuilt
// combined sink being the default output, on a private PulseAudio and on a private PipeWire. The
// counters add the time from starting pactl, and the time for the member's return to be taken in.
namespace {

const QString kVictim = QStringLiteral("bench_member");

// As the program reads it: a rebuild sets the members and asks for the default at once, and the
// server confirms the default a round trip later (the combined sink keeps its name, and so its id).
bool groupIsDefaultWith(const GroupStackRig& rig, int memberCount) {
    const auto aggregate = rig.manager->activeDeviceID();
    return aggregate && rig.manager->activeMemberUIDs().size() == memberCount &&
           rig.audio->readDefaultOutputID() == *aggregate;
}

void BM_MemberGoneToRebuiltDefault(benchmark::State& state, GroupStackRig& rig) {
    double fromPactlTotal = 0;
    double returnTotal = 0;
    int rounds = 0;
    for (auto _ : state) {
        const auto module = rig.server.owningModule(kVictim);
        if (!module || !groupIsDefaultWith(rig, 3)) {
            state.SkipWithError("the group is not on with all three members");
            break;
        }
        const auto timing = rig.timeChange(
            {QStringLiteral("unload-module"), QString::number(module->first)},
            [&] { return !rig.lists(kVictim); }, [&] { return groupIsDefaultWith(rig, 2); });
        if (!timing) {
            state.SkipWithError("the group was not rebuilt without the member");
            break;
        }
        state.SetIterationTime(double(timing->doneNs - timing->heardNs) / 1e9);
        fromPactlTotal += double(timing->doneNs) / 1e6;

        // The member comes back under the same name; the group takes it in again.
        QElapsedTimer back;
        back.start();
        if (!rig.server.loadNullSink(kVictim, QStringLiteral("Bench Member")) ||
            !spinUntil([&] { return groupIsDefaultWith(rig, 3); })) {
            state.SkipWithError("the returning member was not taken in");
            break;
        }
        returnTotal += double(back.nsecsElapsed()) / 1e6;
        ++rounds;
        // The server's own hand-over of the default to the clock master and back, still on its
        // way here, must not meet the next round.
        spinUntil([] { return false; }, 500);
    }
    if (rounds > 0) {
        state.counters["from_pactl_start_ms"] = fromPactlTotal / rounds;
        state.counters["member_back_ms"] = returnTotal / rounds;
    }
    state.SetLabel("sink gone heard -> rebuilt group is default; tone playing");
}

// The group of two studio sinks and the one that will vanish, on, with a tone playing.
std::unique_ptr<GroupStackRig> makeRig(PrivateSoundServer::Kind kind) {
    auto rig = std::make_unique<GroupStackRig>(kind);
    if (!rig->start("bench_group_rebuild"))
        return nullptr;
    if (!rig->server.loadNullSink(kVictim, QStringLiteral("Bench Member"))) {
        std::fprintf(stderr, "bench_group_rebuild: %s\n", qPrintable(rig->server.error()));
        return nullptr;
    }
    OutputGroup group;
    group.id = QUuid::createUuid();
    group.name = QStringLiteral("Bench Group");
    group.memberUIDs = {QStringLiteral("studio_left"), QStringLiteral("studio_right"), kVictim};
    group.masterUID = group.memberUIDs.first();
    rig->manager->setGroups({group});
    AudioDeviceManager& audio = *rig->audio;
    if (!spinUntil([&] { return audio.deviceIDForOutputUID(kVictim).has_value(); }) ||
        !rig->manager->activate(group)) {
        std::fprintf(stderr, "bench_group_rebuild: %s: activation failed\n",
                     qPrintable(PrivateSoundServer::kindName(kind)));
        return nullptr;
    }
    rig->tone = rig->server.playTone({}, QStringLiteral("bench-tone"));
    return rig;
}

} // namespace

int main(int argc, char** argv) {
    return runOnBothServers(argc, argv, "BM_MemberGoneToRebuiltDefault", makeRig,
                            BM_MemberGoneToRebuiltDefault, 15);
}
