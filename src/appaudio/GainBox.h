#pragma once

#include <atomic>

// The values one route session shares with its real-time procedure. Each field is one lock-free
// word, read and written with relaxed order: a change takes hold at the next IO cycle, and a peak
// raised between the main thread's read and its clear is lost to the meter, which is harmless.
struct GainBox {
    std::atomic<float> value{1.0f}; // linear gain; 0 when muted
    std::atomic<bool> boost{false}; // apply the soft limiter after the gain
    std::atomic<float> peak{0.0f};  // largest absolute output sample since the last clear

    static_assert(std::atomic<float>::is_always_lock_free);
    static_assert(std::atomic<bool>::is_always_lock_free);
};
