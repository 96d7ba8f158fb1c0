#pragma once

#include <QString>

#include <optional>

class AppSettings;
class SoundLibrary;

// A short pop through the output just chosen, so the user hears where sound now goes. Nothing
// plays when "ondril.switchSound" is false or no sound can be found. Each sound is kept alive
// for 2 s after it starts.
void playSwitchSound(const std::optional<QString>& deviceUID);
void playSwitchSound(const std::optional<QString>& deviceUID, AppSettings& settings,
                     SoundLibrary& library);

// Sounds started in the last 2 s.
int activeSwitchSoundCount();
