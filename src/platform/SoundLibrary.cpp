#include "platform/SoundLibrary.h"

#include "platform/simulated/SimulatedSoundLibrary.h"

namespace {
std::unique_ptr<SoundLibrary>& installedLibrary() {
    static std::unique_ptr<SoundLibrary> library;
    return library;
}
} // namespace

SoundLibrary& SoundLibrary::shared() {
    auto& library = installedLibrary();
    if (!library)
        library = std::make_unique<SimulatedSoundLibrary>();
    return *library;
}

void SoundLibrary::install(std::unique_ptr<SoundLibrary> library) {
    installedLibrary() = std::move(library);
}
