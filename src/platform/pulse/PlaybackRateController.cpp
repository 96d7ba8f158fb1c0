#include "platform/pulse/PlaybackRateController.h"

#include <algorithm>
#include <cmath>

void PlaybackRateController::addLevel(std::int64_t bufferedUsec) {
    m_sumUsec += bufferedUsec;
    ++m_readings;
}

void PlaybackRateController::restartStream() {
    m_rate = m_nominalRate;
    m_sumUsec = 0;
    m_readings = 0;
}

std::uint32_t PlaybackRateController::adjust(int underruns) {
    learn(underruns);
    if (m_readings == 0)
        return m_rate;
    const double errorMs = double(m_sumUsec / m_readings - m_targetUsec) / 1000.0;
    m_sumUsec = 0;
    m_readings = 0;
    // Bounded like the rate, so that a long stall cannot wind it up beyond what it can correct.
    m_integralPpm = std::clamp(m_integralPpm + errorMs * kIntegralPpmPerMs, -kMaxDeviationPpm,
                               kMaxDeviationPpm);
    const double ppm =
        std::clamp(errorMs * kPpmPerMs + m_integralPpm, -kMaxDeviationPpm, kMaxDeviationPpm);
    m_rate = std::uint32_t(std::lround(m_nominalRate * (1.0 + ppm / 1e6)));
    return m_rate;
}

void PlaybackRateController::learn(int underruns) {
    if (underruns > 0) {
        m_targetUsec = std::min(m_targetUsec + kUnderrunStepUsec, kMaxTargetUsec);
        m_quietPeriods = 0;
        return;
    }
    ++m_quietPeriods;
    if (m_quietPeriods >= kQuietPeriodsBeforeLowering &&
        m_quietPeriods % kQuietPeriodsPerMillisecond == 0)
        m_targetUsec = std::max(m_targetUsec - 1000, m_floorUsec);
}
