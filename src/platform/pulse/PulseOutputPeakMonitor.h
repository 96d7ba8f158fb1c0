#pragma once

#include "platform/AudioHardwareTypes.h"
#include "platform/OutputPeakMonitor.h"
#include "platform/pulse/PulsePeakStream.h"

#include <vector>

class AudioHardware;
class PulseConnection;

// Peaks of the default sink's monitor, named explicitly: PipeWire 0.3.65 takes "@DEFAULT_MONITOR@"
// for the default source. A change of the default sink, or of the device list that ended the
// stream, points a new stream at the monitor of whatever sink is then the default.
class PulseOutputPeakMonitor : public OutputPeakMonitor {
public:
    // `hardware` delivers the server's events on the main thread.
    PulseOutputPeakMonitor(PulseConnection& connection, AudioHardware& hardware);
    ~PulseOutputPeakMonitor() override;

    bool start(std::shared_ptr<std::atomic<float>> peak) override;
    void stop() override;

private:
    QString defaultMonitor() const;
    bool follow(); // onto the current default's monitor; false when there is none

    PulseConnection& m_connection;
    AudioHardware& m_hardware;
    std::shared_ptr<std::atomic<float>> m_peak;
    QString m_source;
    std::unique_ptr<PulsePeakStream> m_stream;
    std::vector<AudioObjectPropertyListenerToken> m_listeners;
};
