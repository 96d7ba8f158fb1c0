#include "platform/AudioBackend.h"

#include "platform/simulated/SimulatedAudioHardware.h"

namespace AudioBackend {

std::optional<Choice> parseChoice(const QString& text)
{
    if (text == QLatin1String("auto"))
        return Choice::automatic;
    if (text == QLatin1String("pulse"))
        return Choice::pulse;
    if (text == QLatin1String("simulated"))
        return Choice::simulated;
    return std::nullopt;
}

Result make(Choice choice)
{
    Result result;
    switch (choice) {
    case Choice::simulated:
        result.hardware = SimulatedAudioHardware::withDemoDevices();
        break;
    case Choice::pulse:
        result.error = QStringLiteral("the pulse backend is not available in this build");
        break;
    case Choice::automatic:
        result.notice = QStringLiteral("no sound server support in this build; using the simulated audio service");
        result.hardware = SimulatedAudioHardware::withDemoDevices();
        break;
    }
    return result;
}

} // namespace AudioBackend
