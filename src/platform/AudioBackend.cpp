#include "platform/AudioBackend.h"

#include "platform/RunningApplications.h"
#include "platform/linux/ProcRunningApplications.h"
#include "platform/pulse/PulseAudioHardware.h"
#include "platform/simulated/SimulatedAudioHardware.h"

#include <QPointer>

namespace {
// How long a sound server has to answer before it counts as absent.
constexpr int kConnectTimeoutMs = 1000;
// The server's realisation, with the desktop's running applications told what its streams say
// of their processes.
std::unique_ptr<AudioHardware> connectToServer() {
    std::unique_ptr<PulseAudioHardware> pulse = PulseAudioHardware::connect(kConnectTimeoutMs);
    if (!pulse)
        return nullptr;
    auto applications = std::make_unique<ProcRunningApplications>();
    applications->setStreamIdentities(
        [server = QPointer<PulseAudioHardware>(pulse.get())](std::int32_t pid) {
            return server ? server->streamIdentity(pid) : std::nullopt;
        });
    RunningApplications::install(std::move(applications));
    return pulse;
}

} // namespace

namespace AudioBackend {

std::optional<Choice> parseChoice(const QString& text) {
    if (text == QLatin1String("auto"))
        return Choice::automatic;
    if (text == QLatin1String("pulse"))
        return Choice::pulse;
    if (text == QLatin1String("simulated"))
        return Choice::simulated;
    return std::nullopt;
}

Result make(Choice choice) {
    Result result;
    switch (choice) {
    case Choice::simulated:
        result.hardware = SimulatedAudioHardware::withDemoDevices();
        break;
    case Choice::pulse:
        result.hardware = connectToServer();
        if (!result.hardware)
            result.error =
                QStringLiteral("no sound server (PulseAudio or PipeWire) answered within 1 s");
        break;
    case Choice::automatic:
        result.hardware = connectToServer();
        if (!result.hardware) {
            result.notice = QStringLiteral(
                "no sound server answered within 1 s; using the simulated audio service");
            result.hardware = SimulatedAudioHardware::withDemoDevices();
        }
        break;
    }
    return result;
}

} // namespace AudioBackend
