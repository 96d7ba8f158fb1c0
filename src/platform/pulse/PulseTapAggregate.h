#pragma once

#include "platform/AudioHardwareTypes.h"

#include "platform/pulse/PlaybackRateController.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <optional>
#include <vector>

class QTimer;

struct pa_threaded_mainloop;
struct pa_context;
struct pa_stream;

// A private aggregate of a tap and destination sinks, with its IO procedure, on a connection of
// its own whose threaded main loop is the audio thread: a record stream reads the tap sink's
// monitor in fragments of 10 ms, the IO block turns each into output, and that output is written
// to one playback stream per destination (30 ms target). When a destination's buffer holds more
// than twice its target, captured frames are dropped instead, so that latency cannot creep up.
//
// On PulseAudio the destinations' clocks are not the tap's: each playback stream runs at a variable
// rate that a PlaybackRateController on the main thread adjusts once a second (PipeWire matches
// rates by itself).
//
// Everything the audio thread uses is made before the streams start; there it allocates, locks,
// logs and waits for nothing of its own, and touches no Qt object.
class PulseTapAggregate {
public:
    static constexpr std::uint32_t kRate = 48000;
    static constexpr std::uint32_t kChannels = 2;
    static constexpr std::uint32_t kFragmentMs = 10;
    static constexpr std::uint32_t kTargetMs = 30;
    // The level the rate controllers keep on PulseAudio: the 10 ms saw-tooth of the writes with
    // room below it for the audio thread waking late.
    static constexpr std::uint32_t kControlledLevelMs = 25;

    // Reads the monitor of `tapSink`; `matchClocks` runs the destinations at a controlled rate.
    PulseTapAggregate(AudioObjectID tapID, const QString& tapSink,
                      const QStringList& destinationSinks, bool matchClocks);
    ~PulseTapAggregate();
    PulseTapAggregate(const PulseTapAggregate&) = delete;
    PulseTapAggregate& operator=(const PulseTapAggregate&) = delete;

    AudioObjectID tapID() const { return m_tapID; }
    // One IO procedure; set and cleared while stopped.
    bool hasBlock() const { return bool(m_block); }
    void setBlock(AudioDeviceIOBlock block) { m_block = std::move(block); }

    // Connects and waits (at most 2 s) until every stream runs.
    OSStatus start();
    void stop(); // safe in any state

private:
    // Audio thread.
    static void captured(pa_stream* stream, std::size_t bytes, void* userdata);
    void play(const float* frames, std::size_t frameCount);
    bool playbackOverfull() const;
    // What a destination holds beyond the sink's own latency, from the interpolated timing.
    static std::optional<std::int64_t> bufferedUsec(pa_stream* destination);

    // Main thread.
    bool connectStreams();
    bool waitUntilReady();
    void restartTapClock();
    void matchClocks();

    const AudioObjectID m_tapID;
    const QString m_tapSink;
    const QStringList m_destinationSinks;
    const bool m_matchClocks;
    AudioDeviceIOBlock m_block;
    pa_threaded_mainloop* m_mainloop = nullptr;
    pa_context* m_context = nullptr;
    pa_stream* m_record = nullptr;
    std::vector<pa_stream*> m_playback;
    std::vector<float> m_output; // one chunk, interleaved
    double m_sampleTime = 0;
    std::vector<PlaybackRateController> m_rateControllers; // one per destination
    // Captured fragments are dropped while a destination holds more than this.
    const std::int64_t m_dropAboveUsec;
    std::unique_ptr<QTimer> m_rateTimer;
    int m_rateReadings = 0;
};
