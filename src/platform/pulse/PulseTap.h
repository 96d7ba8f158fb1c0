#pragma once

#include "platform/AudioHardwareTypes.h"

#include <QString>
#include <QUuid>

#include <map>
#include <optional>
#include <set>
#include <vector>

class AudioHardware;
class PulseConnection;
class PulseStreamHomes;
class PulseTapGuard;

// A process tap on a PulseAudio or PipeWire server, muted while tapped: a private null sink
// ("com.kestrivane.ondril.tap." + UUID, float32 stereo 48 kHz) that the processes' streams are
// moved into once the tap is read, so that they are heard only through whoever records its
// monitor. Streams the processes open later follow. Destroying the tap sends each stream still in
// it back where it played before, at unity, then unloads the sink. The sink carries Ondril's pid,
// so that the run's guard, or else a later start, clears what a run that died left behind.
class PulseTap {
public:
    static inline const QString sinkPrefix = QStringLiteral("com.kestrivane.ondril.tap.");

    // Sink-input index -> the sink the stream played on before a tap took it.
    using Homes = std::map<std::uint32_t, QString>;

    // `guard`, when there is one, is told where each stream it takes played before.
    PulseTap(PulseConnection& connection, AudioHardware& hardware, PulseStreamHomes& homes,
             PulseTapGuard* guard, const QUuid& uuid, std::vector<std::int32_t> pids);
    ~PulseTap();
    PulseTap(const PulseTap&) = delete;
    PulseTap& operator=(const PulseTap&) = delete;

    // Loads the sink and waits for it (at most the connection's bound).
    OSStatus create();
    const QUuid& uuid() const { return m_uuid; }
    const QString& sinkName() const { return m_sinkName; }
    // Takes the processes' streams now and whenever new ones appear.
    void engage();

    // Moves streams out of the tap sinks of Ondril runs that are gone, and unloads those sinks:
    // each stream to its home in `homes` if that sink is there, else to the default. `goneOwner`
    // is a run known to be over, which may still be listed as a process (a zombie).
    static void clearLeftovers(PulseConnection& connection, std::int32_t goneOwner = 0,
                               const Homes& homes = {});

private:
    void takeNewStreams();
    void release();

    PulseConnection& m_connection;
    AudioHardware& m_hardware;
    PulseStreamHomes& m_homes;
    PulseTapGuard* const m_guard;
    const QUuid m_uuid;
    const QString m_sinkName;
    const std::vector<std::int32_t> m_pids;
    std::optional<std::uint32_t> m_module;
    std::set<std::uint32_t> m_taken; // sink-input indices
    std::optional<AudioObjectPropertyListenerToken> m_listener;
};
