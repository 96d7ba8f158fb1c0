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

OSStatus AudioHardware::AudioObjectGetPropertyDataSize(AudioObjectID objectID,
                                                       const AudioObjectPropertyAddress& address,
                                                       std::uint32_t& outDataSize) const {
    AudioPropertyValue value;
    const OSStatus status = AudioObjectGetPropertyData(objectID, address, value);
    if (status == kAudioHardwareNoError)
        outDataSize = audioPropertyValueByteSize(value);
    return status;
}
