#include "platform/AudioHardware.h"

#include "platform/simulated/SimulatedAudioHardware.h"

namespace {
std::unique_ptr<AudioHardware>& installedHardware() {
    static std::unique_ptr<AudioHardware> hardware;
    return hardware;
}
} // namespace

AudioHardware& AudioHardware::shared() {
    auto& hardware = installedHardware();
    if (!hardware)
        hardware = SimulatedAudioHardware::withDemoDevices();
    return *hardware;
}

void AudioHardware::install(std::unique_ptr<AudioHardware> hardware) {
    installedHardware() = std::move(hardware);
}
