#pragma once

#include <algorithm>
#include <cmath>

// The scale and ballistics shared by the system level and the per-application levels: -60 dB at
// 0 to -12 dB at 1, an instant rise and a fall of 0.28 of the distance per tick.
namespace LevelBallistics {

inline double target(float peak) {
    if (!(peak > 0.00005f))
        return 0.0;
    return std::clamp((20.0 * std::log10(double(peak)) + 60.0) / 48.0, 0.0, 1.0);
}

inline double next(double previous, double target) {
    if (previous < target)
        return target;
    return previous + (target - previous) * 0.28;
}

} // namespace LevelBallistics
