#include "platform/pulse/PlaybackRateController.h"

#include <algorithm>
#include <cmath>

void PlaybackRateController::addLevel(std::int64_t bufferedUsec) {
    m_sumUsec += bufferedUsec;
    ++m_readings;
}

std::uint32_t PlaybackRateController::adjust(int underruns) {
    if (underruns > 0) {
        m_targetUsec = std::min(m_targetUsec + kUnderrunStepUsec, kMaxTargetUsec);
        m_quietPeriods = 0;
    } else if (++m_quietPeriods >= kQuietPeriodsBeforeLowering) {
        m_targetUsec = std::max(m_targetUsec - 1000, m_floorUsec);
        m_quietPeriods = 0;
    }
    if (m_readings == 0)
        return m_rate;
    const std::int64_t level = m_sumUsec / m_readings;
    m_sumUsec = 0;
    m_readings = 0;
    const double ppm = std::clamp(double(level - m_targetUsec) / 1000.0 * kPpmPerMs,
                                  -kMaxDeviationPpm, kMaxDeviationPpm);
    m_rate = std::uint32_t(std::lround(m_nominalRate * (1.0 + ppm / 1e6)));
    return m_rate;
}
