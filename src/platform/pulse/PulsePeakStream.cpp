#include "platform/pulse/PulsePeakStream.h"

#include "platform/pulse/PulseConnection.h"

#include <pulse/context.h>
#include <pulse/stream.h>

#include <algorithm>
#include <cmath>

namespace {

constexpr std::uint32_t kPeaksPerSecond = 60; // two for each 1/30 s reading

// Mainloop thread, as real-time as the audio: no allocation, lock, log or Qt object.
void readable(pa_stream* stream, std::size_t, void* userdata) {
    auto& peak = *static_cast<std::atomic<float>*>(userdata);
    float blockPeak = 0.0f;
    while (pa_stream_readable_size(stream) > 0) {
        const void* data = nullptr;
        std::size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0)
            break;
        // No data with a size is a hole in the stream: dropped like the rest.
        const auto* samples = static_cast<const float*>(data);
        for (std::size_t i = 0; samples && i < bytes / sizeof(float); ++i)
            blockPeak = std::max(blockPeak, std::fabs(samples[i]));
        pa_stream_drop(stream);
    }
    if (peak.load(std::memory_order_relaxed) < blockPeak)
        peak.store(blockPeak, std::memory_order_relaxed);
}

// A stream the server has not confirmed yet cannot be disconnected (libpulse refuses until it
// has its channel) and would live on in the server: it is ended as soon as it is ready. The
// context keeps it alive until then.
void disconnectWhenReady(pa_stream* stream, void*) {
    if (pa_stream_get_state(stream) == PA_STREAM_READY)
        pa_stream_disconnect(stream);
}

} // namespace

PulsePeakStream::PulsePeakStream(PulseConnection& connection, const QString& source,
                                 std::optional<std::uint32_t> sinkInput,
                                 std::shared_ptr<std::atomic<float>> peak)
    : m_connection(connection)
    , m_peak(std::move(peak)) {
    m_connection.withContext([&](pa_context* context) {
        if (!context)
            return;
        const pa_sample_spec spec{PA_SAMPLE_FLOAT32NE, kPeaksPerSecond, 1};
        m_stream = pa_stream_new(context, "Ondril level", &spec, nullptr);
        if (!m_stream)
            return;
        if (sinkInput)
            pa_stream_set_monitor_stream(m_stream, *sinkInput);
        pa_stream_set_read_callback(m_stream, &readable, m_peak.get());
        // One peak per fragment, so that each reaches the meter as soon as the server has it.
        pa_buffer_attr attributes{};
        attributes.maxlength = std::uint32_t(-1);
        attributes.fragsize = sizeof(float);
        const auto flags = pa_stream_flags_t(PA_STREAM_PEAK_DETECT | PA_STREAM_ADJUST_LATENCY |
                                             PA_STREAM_DONT_MOVE);
        const QByteArray name = source.toUtf8();
        if (pa_stream_connect_record(m_stream, name.isEmpty() ? nullptr : name.constData(),
                                     &attributes, flags) < 0) {
            pa_stream_set_read_callback(m_stream, nullptr, nullptr);
            pa_stream_unref(m_stream);
            m_stream = nullptr;
        }
    });
}

PulsePeakStream::~PulsePeakStream() {
    if (!m_stream)
        return;
    m_connection.withContext([this](pa_context*) {
        pa_stream_set_read_callback(m_stream, nullptr, nullptr);
        if (pa_stream_get_state(m_stream) == PA_STREAM_CREATING)
            pa_stream_set_state_callback(m_stream, &disconnectWhenReady, nullptr);
        else
            pa_stream_disconnect(m_stream);
        pa_stream_unref(m_stream);
    });
}

bool PulsePeakStream::isAlive() const {
    bool alive = false;
    m_connection.withContext([&](pa_context*) {
        if (!m_stream)
            return;
        const pa_stream_state_t state = pa_stream_get_state(m_stream);
        alive = state != PA_STREAM_FAILED && state != PA_STREAM_TERMINATED;
    });
    return alive;
}
