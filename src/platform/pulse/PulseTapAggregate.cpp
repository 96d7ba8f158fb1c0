#include "platform/pulse/PulseTapAggregate.h"

#include "platform/linux/RealtimeScheduling.h"
#include "platform/pulse/PulseConnection.h"

#include <pulse/context.h>
#include <pulse/introspect.h>
#include <pulse/mainloop-api.h>
#include <pulse/proplist.h>
#include <pulse/stream.h>
#include <pulse/thread-mainloop.h>
#include <pulse/timeval.h>

#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QThread>
#include <QTimer>

#include <unistd.h>

#include <algorithm>

// Off unless asked for (QT_LOGGING_RULES="com.kestrivane.ondril.PulseTapAggregate.debug=true"):
// a line for each second in which a destination under-ran, with the level it keeps from then on.
Q_LOGGING_CATEGORY(lcPulseTapAggregate, "com.kestrivane.ondril.PulseTapAggregate", QtInfoMsg)

namespace {

// Larger than any fragment either server hands out for the fragments asked for.
constexpr std::size_t kChunkFrames = 16384;

const pa_sample_spec kSpec{PA_SAMPLE_FLOAT32LE, PulseTapAggregate::kRate,
                           PulseTapAggregate::kChannels};

enum class Readiness { Pending, Ready, Failed };

Readiness readinessOf(pa_context* context) {
    switch (pa_context_get_state(context)) {
    case PA_CONTEXT_READY:
        return Readiness::Ready;
    case PA_CONTEXT_FAILED:
    case PA_CONTEXT_TERMINATED:
        return Readiness::Failed;
    default:
        return Readiness::Pending;
    }
}

Readiness readinessOf(pa_stream* stream) {
    switch (pa_stream_get_state(stream)) {
    case PA_STREAM_READY:
        return Readiness::Ready;
    case PA_STREAM_FAILED:
    case PA_STREAM_TERMINATED:
        return Readiness::Failed;
    default:
        return Readiness::Pending;
    }
}

// Readings of the destinations' levels, and how many make one adjustment of their rates.
constexpr int kRateReadingMs = 100;
constexpr int kReadingsPerAdjustment = 10;

std::uint32_t bytesOf(std::uint32_t milliseconds) {
    return std::uint32_t(pa_usec_to_bytes(pa_usec_t(milliseconds) * 1000, &kSpec));
}

} // namespace

PulseTapAggregate::PulseTapAggregate(AudioObjectID tapID, const QString& tapSink,
                                     const QStringList& destinationSinks,
                                     LearnedRates* learnedRates)
    : m_tapID(tapID)
    , m_tapSink(tapSink)
    , m_destinationSinks(destinationSinks)
    , m_learnedRates(learnedRates)
    , m_matchClocks(learnedRates != nullptr)
    , m_buffering(m_matchClocks ? kControlledBuffering : kServerBuffering) {}

PulseTapAggregate::~PulseTapAggregate() {
    stop();
}

OSStatus PulseTapAggregate::start() {
    if (!m_block || m_mainloop)
        return kAudioHardwareIllegalOperationError;
    m_output.assign(kChunkFrames * kChannels, 0.0f);
    m_sampleTime = 0;
    m_underruns = std::vector<std::atomic<int>>(std::size_t(m_destinationSinks.size()));
    m_dropAboveUsec =
        std::vector<std::atomic<std::int64_t>>(std::size_t(m_destinationSinks.size()));
    for (std::atomic<std::int64_t>& bound : m_dropAboveUsec)
        bound.store(std::int64_t(m_buffering.dropAboveMs) * 1000, std::memory_order_relaxed);
    m_mainloop = pa_threaded_mainloop_new();
    pa_proplist* properties = pa_proplist_new();
    pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, "Ondril");
    m_context = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(m_mainloop), "Ondril",
                                             properties);
    pa_proplist_free(properties);
    if (pa_context_connect(m_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0 ||
        pa_threaded_mainloop_start(m_mainloop) < 0 || !waitUntilReady() || !connectStreams() ||
        !waitUntilReady()) {
        stop();
        return kAudioHardwareNotRunningError;
    }
    if (const pid_t audioThread = m_audioThreadId.load(std::memory_order_relaxed))
        RealtimeScheduling::promote(audioThread);
    restartTapClock();
    if (m_matchClocks)
        matchClocks();
    return kAudioHardwareNoError;
}

// The controller runs on the main thread, under the loop's lock, not in a time event of the
// aggregate's own loop: that loop is the audio thread, and pa_stream_update_sample_rate builds a
// command packet and an operation (allocations). The lock is held for a few readings only, so the
// audio thread waits no longer for it than for any other libpulse call of the main thread.
void PulseTapAggregate::matchClocks() {
    m_rateControllers.clear();
    for (std::size_t i = 0; i < m_playback.size(); ++i) {
        PlaybackRateController controller =
            m_learnedRates
                ->try_emplace(m_destinationSinks[int(i)], kRate, kControlledLevelMs * 1000)
                .first->second;
        controller.restartStream();
        m_dropAboveUsec[i].store(controller.targetUsec() + 2 * m_buffering.fragmentMs * 1000,
                                 std::memory_order_relaxed);
        m_rateControllers.push_back(controller);
        qCDebug(lcPulseTapAggregate, "destination %zu starts at a %lld ms level", i,
                static_cast<long long>(controller.targetUsec() / 1000));
    }
    m_rateReadings = 0;
    m_rateTimer = std::make_unique<QTimer>();
    m_rateTimer->setInterval(kRateReadingMs);
    QObject::connect(m_rateTimer.get(), &QTimer::timeout, [this] {
        const bool adjust = ++m_rateReadings % kReadingsPerAdjustment == 0;
        std::vector<std::pair<std::size_t, int>> underran; // logged once the audio thread may run
        pa_threaded_mainloop_lock(m_mainloop);
        for (std::size_t i = 0; i < m_playback.size(); ++i) {
            // Fresh timing for the next readings here and on the audio thread: libpulse asks for
            // it only every 1.5 s on its own.
            if (pa_operation* operation =
                    pa_stream_update_timing_info(m_playback[i], nullptr, nullptr))
                pa_operation_unref(operation);
            PlaybackRateController& controller = m_rateControllers[i];
            // A stream that has not started or ran dry says nothing about the clocks.
            const pa_timing_info* timing = pa_stream_get_timing_info(m_playback[i]);
            if (timing && timing->playing)
                if (const auto level = bufferedUsec(m_playback[i]))
                    controller.addLevel(*level);
            if (!adjust)
                continue;
            const std::uint32_t before = controller.rate();
            const int underruns = m_underruns[i].exchange(0, std::memory_order_relaxed);
            if (underruns > 0)
                underran.emplace_back(i, underruns);
            const std::uint32_t rate = controller.adjust(underruns);
            if (rate != before)
                if (pa_operation* operation =
                        pa_stream_update_sample_rate(m_playback[i], rate, nullptr, nullptr))
                    pa_operation_unref(operation);
            m_dropAboveUsec[i].store(controller.targetUsec() + 2 * m_buffering.fragmentMs * 1000,
                                     std::memory_order_relaxed);
        }
        pa_threaded_mainloop_unlock(m_mainloop);
        for (const auto& [destination, count] : underran)
            qCDebug(lcPulseTapAggregate, "destination %zu under-ran %d times; level now %lld ms",
                    destination, count,
                    static_cast<long long>(m_rateControllers[destination].targetUsec() / 1000));
    });
    m_rateTimer->start();
}

// A null sink nobody asked for low latency renders up to 2 s ahead as soon as it exists, and its
// monitor then stays silent for that long even once the record stream asks for a few ms. Resuming
// from a suspend starts its clock afresh, at the latency asked for now.
void PulseTapAggregate::restartTapClock() {
    const QByteArray sink = m_tapSink.toUtf8();
    pa_threaded_mainloop_lock(m_mainloop);
    for (int suspend : {1, 0})
        if (pa_operation* operation = pa_context_suspend_sink_by_name(m_context, sink.constData(),
                                                                      suspend, nullptr, nullptr))
            pa_operation_unref(operation);
    pa_threaded_mainloop_unlock(m_mainloop);
}

bool PulseTapAggregate::connectStreams() {
    pa_threaded_mainloop_lock(m_mainloop);
    // The loop runs this before the streams can be ready, so start() finds the thread to promote.
    pa_mainloop_api_once(pa_threaded_mainloop_get_api(m_mainloop),
                         &PulseTapAggregate::noteAudioThread, this);
    bool connected = true;
    // Playback first: the first captured fragment finds the destinations there.
    for (const QString& sink : m_destinationSinks) {
        pa_stream* stream = pa_stream_new(m_context, "Ondril boost", &kSpec, nullptr);
        if (!stream) {
            connected = false;
            break;
        }
        pa_stream_set_underflow_callback(stream, &PulseTapAggregate::underran,
                                         &m_underruns[m_playback.size()]);
        m_playback.push_back(stream);
        // Playback starts with the first fragment (0 would never start it): a switch into boost
        // is then silent for little more than one fragment.
        const pa_buffer_attr attributes{std::uint32_t(-1), bytesOf(m_buffering.targetMs),
                                        bytesOf(m_buffering.fragmentMs), std::uint32_t(-1),
                                        std::uint32_t(-1)};
        connected =
            connected &&
            pa_stream_connect_playback(
                stream, sink.toUtf8().constData(), &attributes,
                pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_INTERPOLATE_TIMING |
                                  PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_DONT_MOVE |
                                  (m_matchClocks ? PA_STREAM_VARIABLE_RATE : PA_STREAM_NOFLAGS)),
                nullptr, nullptr) == 0;
    }
    m_record = connected ? pa_stream_new(m_context, "Ondril tap", &kSpec, nullptr) : nullptr;
    if (m_record) {
        pa_stream_set_read_callback(m_record, &PulseTapAggregate::captured, this);
        const pa_buffer_attr attributes{std::uint32_t(-1), std::uint32_t(-1), std::uint32_t(-1),
                                        std::uint32_t(-1), bytesOf(m_buffering.fragmentMs)};
        connected = pa_stream_connect_record(
                        m_record, (m_tapSink + QStringLiteral(".monitor")).toUtf8().constData(),
                        &attributes,
                        pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE)) == 0;
    }
    pa_threaded_mainloop_unlock(m_mainloop);
    return connected && m_record;
}

// Polls the context's and the streams' states under the loop's lock, at most the connection's
// bound: the main thread never waits longer for one action.
bool PulseTapAggregate::waitUntilReady() {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < PulseConnection::kOperationTimeoutMs) {
        pa_threaded_mainloop_lock(m_mainloop);
        Readiness readiness = readinessOf(m_context);
        std::vector<pa_stream*> streams = m_playback;
        if (m_record)
            streams.push_back(m_record);
        for (pa_stream* stream : streams)
            if (readiness == Readiness::Ready)
                readiness = readinessOf(stream);
        pa_threaded_mainloop_unlock(m_mainloop);
        if (readiness != Readiness::Pending)
            return readiness == Readiness::Ready;
        QThread::msleep(2);
    }
    return false;
}

void PulseTapAggregate::stop() {
    if (!m_mainloop)
        return;
    m_rateTimer.reset();
    for (std::size_t i = 0; i < m_rateControllers.size(); ++i)
        m_learnedRates->insert_or_assign(m_destinationSinks[int(i)], m_rateControllers[i]);
    m_rateControllers.clear();
    pa_threaded_mainloop_lock(m_mainloop);
    if (m_record) {
        pa_stream_set_read_callback(m_record, nullptr, nullptr);
        pa_stream_disconnect(m_record);
        pa_stream_unref(m_record);
        m_record = nullptr;
    }
    for (pa_stream* stream : m_playback) {
        pa_stream_disconnect(stream);
        pa_stream_unref(stream);
    }
    m_playback.clear();
    if (m_context) {
        pa_context_disconnect(m_context);
        pa_context_unref(m_context);
        m_context = nullptr;
    }
    pa_threaded_mainloop_unlock(m_mainloop);
    pa_threaded_mainloop_stop(m_mainloop);
    pa_threaded_mainloop_free(m_mainloop);
    m_mainloop = nullptr;
}

void PulseTapAggregate::captured(pa_stream* stream, std::size_t, void* userdata) {
    auto* self = static_cast<PulseTapAggregate*>(userdata);
    while (pa_stream_readable_size(stream) > 0) {
        const void* data = nullptr;
        std::size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0)
            return;
        // No data with a length is a hole in the capture: nothing to play.
        if (data && !self->playbackOverfull())
            self->play(static_cast<const float*>(data), bytes / (sizeof(float) * kChannels));
        pa_stream_drop(stream);
    }
}

void PulseTapAggregate::play(const float* frames, std::size_t frameCount) {
    while (frameCount > 0) {
        const std::size_t chunk = std::min(frameCount, kChunkFrames);
        const auto bytes = std::uint32_t(chunk * kChannels * sizeof(float));
        AudioBuffer input{kChannels, bytes, const_cast<float*>(frames)};
        AudioBuffer output{kChannels, bytes, m_output.data()};
        const AudioBufferList inputList{1, &input};
        AudioBufferList outputList{1, &output};
        m_block(AudioTimeStamp{m_sampleTime, 0}, inputList, outputList);
        // libpulse copies the chunk into its own shared-memory pool.
        for (pa_stream* destination : m_playback)
            if (pa_stream_get_state(destination) == PA_STREAM_READY)
                pa_stream_write(destination, m_output.data(), bytes, nullptr, 0, PA_SEEK_RELATIVE);
        m_sampleTime += double(chunk);
        frames += chunk * kChannels;
        frameCount -= chunk;
    }
}

bool PulseTapAggregate::playbackOverfull() const {
    for (std::size_t i = 0; i < m_playback.size(); ++i)
        if (const auto level = bufferedUsec(m_playback[i]);
            level && *level > m_dropAboveUsec[i].load(std::memory_order_relaxed))
            return true;
    return false;
}

void PulseTapAggregate::noteAudioThread(pa_mainloop_api*, void* userdata) {
    static_cast<PulseTapAggregate*>(userdata)->m_audioThreadId.store(gettid(),
                                                                     std::memory_order_relaxed);
}

void PulseTapAggregate::underran(pa_stream*, void* counter) {
    static_cast<std::atomic<int>*>(counter)->fetch_add(1, std::memory_order_relaxed);
}

std::optional<std::int64_t> PulseTapAggregate::bufferedUsec(pa_stream* destination) const {
    const pa_timing_info* timing = pa_stream_get_timing_info(destination);
    if (!timing || timing->write_index_corrupt || timing->read_index_corrupt)
        return std::nullopt;
    // What was written and not yet read when the timing was current. A stream that ran dry waits
    // for its prebuffer and reads nothing meanwhile, so that is all it holds.
    const std::int64_t queued = timing->write_index - timing->read_index;
    const std::int64_t queuedUsec =
        queued > 0 ? std::int64_t(pa_bytes_to_usec(std::uint64_t(queued),
                                                   pa_stream_get_sample_spec(destination)))
                   : 0;
    if (!timing->playing)
        return queuedUsec;
    if (m_matchClocks) {
        // Less what the sink has read since. Not pa_stream_get_latency: its clock never runs
        // backwards, and it converts the stream's whole read index at the current rate, so each
        // rise of the controlled rate stood it still for as long as the stream had played times
        // the change (20 ms after 20 s at 1000 ppm). The level then seemed to grow with every
        // write, and real audio was dropped.
        timeval now{};
        pa_gettimeofday(&now);
        const std::int64_t read =
            std::int64_t(pa_timeval_diff(&now, &timing->timestamp) + timing->transport_usec);
        return std::max<std::int64_t>(queuedUsec - read, 0);
    }
    // The rate never changes on PipeWire, so libpulse's interpolated latency has none of that
    // fault there, and it is kept: the estimate above read lower there, and left more queued.
    pa_usec_t latency = 0;
    int negative = 0;
    if (pa_stream_get_latency(destination, &latency, &negative) < 0 || negative)
        return std::nullopt;
    return latency > timing->sink_usec ? std::int64_t(latency - timing->sink_usec) : 0;
}
