#pragma once

#include <QString>
#include <QStringList>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

// One application's playback done with the sound server's own controls: its streams get the gain
// as their stream volume, and are moved to the one destination or to a private combined sink of
// several. Nothing of the audio passes through Ondril. Streams the processes open later get the
// same treatment; stopping puts every stream back where it was, at unity, unmuted.
class AppStreamRouter {
public:
    virtual ~AppStreamRouter() = default;

    // Takes over the streams of `pids`; false when the server refused (the caller then stops).
    virtual bool start(const QString& bundleID, const std::vector<std::int32_t>& pids,
                       const QStringList& destinationUIDs, float gain) = 0;
    // The application's processes changed while the outputs stayed: the streams of new ones are
    // taken, and nothing already taken moves.
    virtual void setProcesses(const std::vector<std::int32_t>& pids) = 0;
    // Linear gain; 0 mutes. The server's controls go no higher than unity.
    virtual void setGain(float gain) = 0;
    // While `peak` is set, each block the application's streams play raises it to its largest
    // absolute sample, from the service's own thread with relaxed atomics only; nullptr stops.
    virtual void meter(std::shared_ptr<std::atomic<float>> peak) = 0;
    virtual void stop() = 0; // safe in any state, any number of times
};
