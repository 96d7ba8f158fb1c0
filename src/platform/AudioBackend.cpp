#include "platform/AudioBackend.h"

#include "platform/pulse/PulseAudioHardware.h"
#include "platform/simulated/SimulatedAudioHardware.h"

namespace {
// How long a sound server has to answer before it counts as absent.
constexpr int kConnectTimeoutMs = 1000;
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
        result.hardware = PulseAudioHardware::connect(kConnectTimeoutMs);
        if (!result.hardware)
            result.error =
                QStringLiteral("no sound server (PulseAudio or PipeWire) answered within 1 s");
        break;
    case Choice::automatic:
        result.hardware = PulseAudioHardware::connect(kConnectTimeoutMs);
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
