#pragma once

#include <QString>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

struct pa_stream;
class PulseConnection;

// A record stream that only measures: the server reduces what it carries to peaks (about 60 a
// second, one float each), and each one raises `peak`. Either a whole source (a sink's monitor),
// or the one sink-input `sinkInput` on the monitor of the sink it plays to. The stream goes when
// the object does; no callback runs after that.
class PulsePeakStream {
public:
    PulsePeakStream(PulseConnection& connection, const QString& source,
                    std::optional<std::uint32_t> sinkInput,
                    std::shared_ptr<std::atomic<float>> peak);
    ~PulsePeakStream();
    PulsePeakStream(const PulsePeakStream&) = delete;
    PulsePeakStream& operator=(const PulsePeakStream&) = delete;

    // False once the server refused or ended the stream (its sink or sink-input went away).
    bool isAlive() const;

private:
    PulseConnection& m_connection;
    const std::shared_ptr<std::atomic<float>> m_peak;
    pa_stream* m_stream = nullptr;
};
