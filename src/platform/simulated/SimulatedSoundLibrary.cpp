#include "platform/simulated/SimulatedSoundLibrary.h"

namespace {

class SimulatedSound : public Sound {
public:
    SimulatedSound(const QString& sound, QList<SimulatedSoundLibrary::Played>& log)
        : m_played{sound, 1.0f, {}}
        , m_log(log) {}

    void setVolume(float volume) override { m_played.volume = volume; }
    void setPlaybackDeviceIdentifier(const QString& deviceUID) override {
        m_played.deviceUID = deviceUID;
    }
    bool play() override {
        m_log.append(m_played);
        return true;
    }

private:
    SimulatedSoundLibrary::Played m_played;
    QList<SimulatedSoundLibrary::Played>& m_log;
};

} // namespace

std::shared_ptr<Sound> SimulatedSoundLibrary::soundNamed(const QString& name) {
    if (!m_known.contains(name))
        return nullptr;
    return std::make_shared<SimulatedSound>(name, m_played);
}

std::shared_ptr<Sound> SimulatedSoundLibrary::soundWithContentsOfFile(const QString& path) {
    return soundNamed(path);
}
