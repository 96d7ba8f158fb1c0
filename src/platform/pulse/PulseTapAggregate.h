#pragma once

#include "platform/AudioHardwareTypes.h"

#include "platform/pulse/PlaybackRateController.h"

#include <QString>
#include <QStringList>

#include <sys/types.h>

#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <vector>

class QTimer;

struct pa_mainloop_api;
struct pa_threaded_mainloop;
struct pa_context;
struct pa_stream;

// A private aggregate of a tap and destination sinks, with its IO procedure, on a connection of
// its own whose threaded main loop is the audio thread: a record stream reads the tap sink's
// monitor in small fragments, the IO block turns each into output, and that output is written to
// one playback stream per destination. When a destination holds well above its level, captured
// frames are dropped instead, so that latency cannot creep up.
//
// On PulseAudio the destinations' clocks are not the tap's: each playback stream runs at a variable
// rate that a PlaybackRateController on the main thread adjusts once a second, keeping a level
// small enough for the added latency to go unnoticed (PipeWire matches rates by itself, and
// buffers in its own quanta).
//
// Everything the audio thread uses is made before the streams start; there it allocates, locks,
// logs and waits for nothing of its own, and touches no Qt object.
class PulseTapAggregate {
public:
    static constexpr std::uint32_t kRate = 48000;
    static constexpr std::uint32_t kChannels = 2;

    // How the streams buffer, measured on each server: fragments captured, the playback streams'
    // target length (their prebuffer is one fragment), and the level above which captured
    // fragments are dropped.
    struct Buffering {
        std::uint32_t fragmentMs;
        std::uint32_t targetMs;
        std::uint32_t dropAboveMs;
    };
    // PulseAudio: 5 ms fragments keep the writes' saw-tooth small; the controller holds 12 ms
    // above the sink's own latency at first (more after under-runs), and more than two fragments
    // above its level is dropped.
    static constexpr std::uint32_t kControlledLevelMs = 12;
    static constexpr Buffering kControlledBuffering{5, 20, kControlledLevelMs + 2 * 5};
    // PipeWire: the sizes first measured there; it has no controller to make use of a smaller
    // level. Its level does not drift, so what the start queued stays unless it is dropped: above
    // the target it is.
    static constexpr Buffering kServerBuffering{10, 30, 30};

    // Per sink, what the rate controllers of earlier paths to it learned: its clock's rate and the
    // level it needs. A path starts from there, so that each crossing into boost does not learn
    // the device afresh with under-runs.
    using LearnedRates = std::map<QString, PlaybackRateController>;

    // Reads the monitor of `tapSink`; `learnedRates` (which outlives the aggregate) is set when
    // the destinations run at a controlled rate.
    PulseTapAggregate(AudioObjectID tapID, const QString& tapSink,
                      const QStringList& destinationSinks, LearnedRates* learnedRates);
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
    static void underran(pa_stream* stream, void* counter);
    static void noteAudioThread(pa_mainloop_api* api, void* userdata); // once, at start
    // What a destination holds beyond the sink's own latency, from its last timing reading.
    std::optional<std::int64_t> bufferedUsec(pa_stream* destination) const;

    // Main thread.
    bool connectStreams();
    bool waitUntilReady();
    void restartTapClock();
    void matchClocks();

    const AudioObjectID m_tapID;
    const QString m_tapSink;
    const QStringList m_destinationSinks;
    LearnedRates* const m_learnedRates;
    const bool m_matchClocks;
    const Buffering m_buffering;
    AudioDeviceIOBlock m_block;
    pa_threaded_mainloop* m_mainloop = nullptr;
    pa_context* m_context = nullptr;
    pa_stream* m_record = nullptr;
    std::vector<pa_stream*> m_playback;
    std::vector<float> m_output; // one chunk, interleaved
    double m_sampleTime = 0;
    std::vector<PlaybackRateController> m_rateControllers; // one per destination
    // Per destination, shared with the audio thread: the under-runs the server reported since the
    // controller last looked, and the level above which captured fragments are dropped (it
    // follows the controller's target).
    std::vector<std::atomic<int>> m_underruns;
    std::vector<std::atomic<std::int64_t>> m_dropAboveUsec;
    std::atomic<pid_t> m_audioThreadId{0};
    std::unique_ptr<QTimer> m_rateTimer;
    int m_rateReadings = 0;
};
