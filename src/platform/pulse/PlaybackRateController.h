#pragma once

#include <cstdint>

// Keeps a playback stream's buffer level at a target when the device it plays to and the source
// that feeds it run on different clocks (PulseAudio: a real sink against a null sink's monitor).
// The level is read often and averaged, because writes arrive in whole fragments and a single
// reading lies anywhere in that saw-tooth; once a period the stream's sample rate is nudged
// towards the target. A level above it plays the stream faster (it drains), a level below plays
// it slower (it fills), by at most kMaxDeviationPpm (1.7 cents): a correction the ear does not
// notice. The proportional part drains what a stall of the machine left queued (10 s time
// constant); the integral part finds the rate of the device's clock, so that a steady drift
// settles on the target instead of a drift-sized distance below it (3 ms for a device 300 ppm
// fast, which is what made such a device under-run). Its gain keeps the loop overdamped.
//
// The target starts low and learns from under-runs, as the server's own sinks raise their
// watermark: a sink that takes its data in larger blocks than the level holds (a device with a
// fixed latency) runs the stream dry, so each period with an under-run raises the target by
// kUnderrunStepUsec, up to kMaxTargetUsec. It is held there for kQuietPeriodsBeforeLowering,
// then lowered by a millisecond every kQuietPeriodsPerMillisecond, never below where it started:
// the level a device needs is found once and kept, not lost every few steps down and found again
// by another under-run, and an under-run of a moment's load costs its step for a quarter of an
// hour. Plain arithmetic, no server.
class PlaybackRateController {
public:
    // Proportional gain: parts per million of rate for every millisecond off target.
    static constexpr double kPpmPerMs = 100.0;
    // Integral gain: parts per million added each period for every millisecond off target.
    static constexpr double kIntegralPpmPerMs = 2.0;
    static constexpr double kMaxDeviationPpm = 1000.0;
    static constexpr std::int64_t kUnderrunStepUsec = 2000;
    static constexpr std::int64_t kMaxTargetUsec = 40000;
    static constexpr int kQuietPeriodsBeforeLowering = 900;
    static constexpr int kQuietPeriodsPerMillisecond = 15;

    PlaybackRateController(std::uint32_t nominalRate, std::int64_t targetUsec)
        : m_nominalRate(nominalRate)
        , m_floorUsec(targetUsec)
        , m_targetUsec(targetUsec) {}

    // One reading of what the stream holds beyond the sink's own latency.
    void addLevel(std::int64_t bufferedUsec);
    // The end of a period, with the under-runs the server reported during it: the rate to play
    // at during the next one. Without readings the rate stays.
    std::uint32_t adjust(int underruns = 0);
    // A new stream to the same device starts at the nominal rate: the next adjustment sets the
    // learned one on it.
    void restartStream();
    std::uint32_t rate() const { return m_rate; }
    std::int64_t targetUsec() const { return m_targetUsec; }

private:
    void learn(int underruns);

    std::uint32_t m_nominalRate;
    std::int64_t m_floorUsec;
    std::int64_t m_targetUsec;
    std::uint32_t m_rate = m_nominalRate;
    double m_integralPpm = 0;
    std::int64_t m_sumUsec = 0;
    int m_readings = 0;
    int m_quietPeriods = 0;
};
