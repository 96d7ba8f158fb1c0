#pragma once

#include "platform/SoundLibrary.h"

class PulseConnection;

// Sounds from the server's sample cache: "Pop" is a short tick of Ondril's own, uploaded when the
// server does not hold it yet (once per server, whichever client connects first) and played by
// the server itself to the named sink, so that nothing waits on the main thread. Files are not
// decoded here: a path gives no sound.
class PulseSoundLibrary : public SoundLibrary {
public:
    static constexpr const char* popSampleName = "com.kestrivane.ondril.pop";

    explicit PulseSoundLibrary(PulseConnection& connection);

    std::shared_ptr<Sound> soundNamed(const QString& name) override;
    std::shared_ptr<Sound> soundWithContentsOfFile(const QString& path) override;

    // The pop at linear `volume` on `sink`, or on the default sink when it is empty; false when
    // there is no connection to ask.
    bool playPop(const QString& sink, float volume);

private:
    PulseConnection& m_connection;
};
