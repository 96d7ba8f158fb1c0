#pragma once

#include <cstdint>
#include <optional>

// Keeps a playback stream's buffer level steady when the device it plays to and the source that
// feeds it run on different clocks (PulseAudio: a real sink against a null sink's monitor). The
// level is read often and averaged, because writes arrive in whole fragments and a single reading
// lies anywhere in that saw-tooth; once a period the stream's sample rate is nudged towards the
// level the first period settled at. A level above it plays the stream faster (it drains), a
// level below plays it slower (it fills), by at most kMaxDeviationPpm (1.7 cents): a correction
// the ear does not notice, fast enough to drain what a stall of the machine left queued (10 s
// time constant), and slow enough that the loop cannot oscillate. Plain arithmetic, no server.
class PlaybackRateController {
public:
    // Proportional gain: parts per million of rate for every millisecond off target.
    static constexpr double kPpmPerMs = 100.0;
    static constexpr double kMaxDeviationPpm = 1000.0;

    explicit PlaybackRateController(std::uint32_t nominalRate)
        : m_nominalRate(nominalRate) {}

    // One reading of what the stream holds beyond the sink's own latency.
    void addLevel(std::int64_t bufferedUsec);
    // The end of a period: the rate to play at during the next one. Without readings, or in the
    // first period (which fixes the target), the rate stays.
    std::uint32_t adjust();
    std::uint32_t rate() const { return m_rate; }
    // The level the first period settled at, once it has.
    std::optional<std::int64_t> targetUsec() const {
        return m_hasTarget ? std::optional(m_targetUsec) : std::nullopt;
    }

private:
    std::uint32_t m_nominalRate;
    std::uint32_t m_rate = m_nominalRate;
    std::int64_t m_sumUsec = 0;
    int m_readings = 0;
    bool m_hasTarget = false;
    std::int64_t m_targetUsec = 0;
};
