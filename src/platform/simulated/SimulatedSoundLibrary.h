#pragma once

#include "platform/SoundLibrary.h"

#include <QList>
#include <QSet>

// Sounds a test names; each play is recorded with its volume and device.
class SimulatedSoundLibrary : public SoundLibrary {
public:
    struct Played {
        QString sound;
        float volume = 1.0f;
        QString deviceUID; // empty: the default output
    };

    void addSound(const QString& nameOrPath) { m_known.insert(nameOrPath); }
    const QList<Played>& played() const { return m_played; }

    std::shared_ptr<Sound> soundNamed(const QString& name) override;
    std::shared_ptr<Sound> soundWithContentsOfFile(const QString& path) override;

private:
    QSet<QString> m_known;
    QList<Played> m_played;
};
