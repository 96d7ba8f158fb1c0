#include "platform/pulse/PulseSoundLibrary.h"

#include "platform/pulse/PulseConnection.h"

#include <pulse/context.h>
#include <pulse/error.h>
#include <pulse/scache.h>
#include <pulse/stream.h>
#include <pulse/volume.h>

#include <cmath>
#include <numbers>
#include <vector>

namespace {

constexpr std::uint32_t kPopRate = 48000;

// 40 ms of a 1.2 kHz tone that dies away, with a 1 ms fade-in so that it does not click.
const std::vector<float>& popSamples() {
    static const std::vector<float> samples = [] {
        std::vector<float> pop(kPopRate * 40 / 1000);
        for (std::size_t i = 0; i < pop.size(); ++i) {
            const double t = double(i) / kPopRate;
            const double envelope = std::min(1.0, t / 0.001) * std::exp(-t / 0.010);
            pop[i] = float(0.9 * envelope * std::sin(2 * std::numbers::pi * 1200.0 * t));
        }
        return pop;
    }();
    return samples;
}

// One play on the mainloop thread: played at once, or after an upload when the server lacks
// the sample.
struct Play {
    QByteArray sink; // empty: the default
    pa_volume_t volume;
    const std::vector<float>* samples;

    const char* device() const { return sink.isEmpty() ? nullptr : sink.constData(); }
};

void playedAfterUpload(pa_context*, int, void* userdata) {
    delete static_cast<Play*>(userdata);
}

void uploadChanged(pa_stream* stream, void* userdata) {
    auto* play = static_cast<Play*>(userdata);
    switch (pa_stream_get_state(stream)) {
    case PA_STREAM_READY:
        pa_stream_write(stream, play->samples->data(), play->samples->size() * sizeof(float),
                        nullptr, 0, PA_SEEK_RELATIVE);
        pa_stream_finish_upload(stream);
        return;
    case PA_STREAM_TERMINATED: // the sample is in the cache
        if (pa_operation* operation = pa_context_play_sample(
                pa_stream_get_context(stream), PulseSoundLibrary::popSampleName, play->device(),
                play->volume, &playedAfterUpload, play))
            pa_operation_unref(operation);
        else
            delete play;
        break;
    case PA_STREAM_FAILED:
        delete play;
        break;
    default:
        return;
    }
    pa_stream_set_state_callback(stream, nullptr, nullptr);
    pa_stream_unref(stream);
}

void upload(pa_context* context, Play* play) {
    const pa_sample_spec spec{PA_SAMPLE_FLOAT32NE, kPopRate, 1};
    pa_stream* stream = pa_stream_new(context, PulseSoundLibrary::popSampleName, &spec, nullptr);
    if (!stream) {
        delete play;
        return;
    }
    pa_stream_set_state_callback(stream, &uploadChanged, play);
    if (pa_stream_connect_upload(stream, play->samples->size() * sizeof(float)) < 0) {
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_unref(stream);
        delete play;
    }
}

void played(pa_context* context, int success, void* userdata) {
    auto* play = static_cast<Play*>(userdata);
    if (!success && pa_context_errno(context) == PA_ERR_NOENTITY)
        return upload(context, play);
    delete play;
}

class PulsePop : public Sound {
public:
    explicit PulsePop(PulseSoundLibrary& library)
        : m_library(library) {}

    void setVolume(float volume) override { m_volume = volume; }
    void setPlaybackDeviceIdentifier(const QString& deviceUID) override { m_sink = deviceUID; }
    bool play() override { return m_library.playPop(m_sink, m_volume); }

private:
    PulseSoundLibrary& m_library;
    float m_volume = 1.0f;
    QString m_sink;
};

} // namespace

PulseSoundLibrary::PulseSoundLibrary(PulseConnection& connection)
    : m_connection(connection) {}

std::shared_ptr<Sound> PulseSoundLibrary::soundNamed(const QString& name) {
    if (name != QLatin1String("Pop"))
        return nullptr;
    return std::make_shared<PulsePop>(*this);
}

std::shared_ptr<Sound> PulseSoundLibrary::soundWithContentsOfFile(const QString&) {
    return nullptr;
}

bool PulseSoundLibrary::playPop(const QString& sink, float volume) {
    auto* play = new Play{sink.toUtf8(), pa_sw_volume_from_linear(volume), &popSamples()};
    bool issued = false;
    m_connection.withContext([&](pa_context* context) {
        if (!context)
            return;
        if (pa_operation* operation = pa_context_play_sample(context, popSampleName, play->device(),
                                                             play->volume, &played, play)) {
            pa_operation_unref(operation);
            issued = true;
        }
    });
    if (!issued)
        delete play;
    return issued;
}
