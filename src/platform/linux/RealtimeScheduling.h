#pragma once

#include <sys/types.h>

// Round-robin real-time scheduling for one thread of this process, as the sound servers give their
// own threads: a thread of ordinary priority on a busy desktop misses its wake-up by several
// milliseconds now and then, which is enough to run a buffer of a few milliseconds dry. Directly
// when the process may (root, or a realtime limit that allows it), otherwise through RealtimeKit
// on the system bus, asynchronously. Without either the thread keeps ordinary scheduling, and
// Ondril says so once.
class RealtimeScheduling {
public:
    // Below the servers' own threads (PulseAudio's default is 5), which feed and drain ours.
    static constexpr int kPriority = 4;

    static void promote(pid_t threadId);
};
