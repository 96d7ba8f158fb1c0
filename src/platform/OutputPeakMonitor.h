#pragma once

#include <atomic>
#include <memory>

// What the default output plays, for a service whose process taps cannot tap every process:
// while it runs, each block the output carries raises `peak` to its largest absolute sample, from
// the service's own thread with relaxed atomics only. It follows the default output as that
// changes. The reader clears `peak` itself.
class OutputPeakMonitor {
public:
    virtual ~OutputPeakMonitor() = default;

    // False when nothing can be measured (no output, the server refused).
    virtual bool start(std::shared_ptr<std::atomic<float>> peak) = 0;
    virtual void stop() = 0; // safe in any state, any number of times
};
