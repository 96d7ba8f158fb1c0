#pragma once

#include <QString>

#include <memory>

// A short sound that plays once through a chosen output. Playing returns at once; the sound
// keeps playing for as long as the object lives or until it ends.
class Sound {
public:
    virtual ~Sound() = default;
    virtual void setVolume(float volume) = 0; // the sound's own volume, apart from the device's
    virtual void setPlaybackDeviceIdentifier(const QString& deviceUID) = 0;
    virtual bool play() = 0;
};

// Where sounds come from: the desktop's named sounds, or a file.
class SoundLibrary {
public:
    virtual ~SoundLibrary() = default;

    // The realisation the running program uses; asking before main() installs one gives a silent
    // in-memory library.
    static SoundLibrary& shared();
    static void install(std::unique_ptr<SoundLibrary> library);

    virtual std::shared_ptr<Sound> soundNamed(const QString& name) = 0;
    virtual std::shared_ptr<Sound> soundWithContentsOfFile(const QString& path) = 0;
};
