#include "appaudio/SwitchSound.h"

#include "app/AppSettings.h"
#include "platform/SoundLibrary.h"

#include <QCoreApplication>
#include <QList>
#include <QTimer>

#include <memory>

namespace {

constexpr int releaseDelayMs = 2000;
constexpr float switchSoundVolume = 0.35f;

// Touched on the main thread only.
QList<std::shared_ptr<Sound>>& activeSounds() {
    static QList<std::shared_ptr<Sound>> sounds;
    return sounds;
}

} // namespace

void playSwitchSound(const std::optional<QString>& deviceUID) {
    playSwitchSound(deviceUID, AppSettings::shared(), SoundLibrary::shared());
}

void playSwitchSound(const std::optional<QString>& deviceUID, AppSettings& settings,
                     SoundLibrary& library) {
    if (!settings.switchSound())
        return;
    std::shared_ptr<Sound> sound = library.soundNamed(QStringLiteral("Pop"));
    if (!sound)
        sound = library.soundWithContentsOfFile(
            QStringLiteral("/usr/share/sounds/freedesktop/stereo/audio-volume-change.oga"));
    if (!sound)
        return;
    sound->setVolume(switchSoundVolume);
    if (deviceUID)
        sound->setPlaybackDeviceIdentifier(*deviceUID);
    activeSounds().append(sound);
    sound->play();
    QTimer::singleShot(releaseDelayMs, QCoreApplication::instance(), [weak = std::weak_ptr(sound)] {
        // Compared by identity; a sound no longer listed is left alone.
        if (const auto held = weak.lock())
            activeSounds().removeOne(held);
    });
}

int activeSwitchSoundCount() {
    return int(activeSounds().size());
}
