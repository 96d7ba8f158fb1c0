#include "appaudio/RouteSession.h"
#include "platform/pulse/PulseAudioHardware.h"

#include "BenchServer.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QLoggingCategory>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <benchmark/benchmark.h>
#include <pulse/simple.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <thread>
#include <utility>

// A boosted session against a private server (ONDRIL_TEST_SERVER=pipewire for PipeWire): what the
// default's monitor hears while the slider crosses unity, the CPU time of the process while one
// session plays, and the latency the path adds, at the start and after a long play
// (ONDRIL_BENCH_BOOST_SECONDS, 600 unless set).
namespace {

constexpr int kRate = 48000;
const QString kSink = QStringLiteral("studio_left");

PrivateSoundServer* g_server = nullptr;
PulseAudioHardware* g_hardware = nullptr;
QTemporaryDir* g_directory = nullptr;

// Runs the event loop for `ms`, or until `done` holds.
bool runFor(
    int ms, const std::function<bool()>& done = [] { return false; }) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms) {
        if (done())
            return true;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(5);
    }
    return done();
}

double monotonicSeconds() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return double(time.tv_sec) + double(time.tv_nsec) / 1e9;
}

// Seconds in which the path's destination stream under-ran, as the aggregate logs them on
// PulseAudio (under-runs too short to leave a 5 ms silence included). Counted on the main thread,
// and each printed with the time since the session started, since when the level learned matters
// as much as how often.
int g_secondsWithUnderruns = 0;
std::atomic<double> g_countingSince{0};
constexpr const char* kAggregateCategory = "com.kestrivane.ondril.PulseTapAggregate";

double sessionSeconds() {
    return monotonicSeconds() - g_countingSince.load(std::memory_order_relaxed);
}

void countUnderruns(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    if (qstrcmp(context.category, kAggregateCategory) == 0) {
        if (!message.contains(QLatin1String("under-ran")))
            return;
        ++g_secondsWithUnderruns;
        std::fprintf(stderr, "  %6.1f s: %s\n", sessionSeconds(), qPrintable(message));
    } else {
        std::fprintf(stderr, "%s\n", qPrintable(qFormatLogMessage(type, context, message)));
    }
}

void startCountingUnderruns() {
    g_secondsWithUnderruns = 0;
    g_countingSince.store(monotonicSeconds(), std::memory_order_relaxed);
}

// Tells the machine's stalls from the path's own under-runs: a thread of ordinary priority, as the
// audio thread is, that sleeps 2 ms at a time prints each wake-up more than kLateMs late on the
// same timeline. A stall of a few milliseconds at the wrong moment of a 5 ms write cycle is enough
// to run a 12 ms level dry.
class StallWatch {
public:
    StallWatch()
        : m_thread([this] { watch(); }) {}
    ~StallWatch() {
        m_stop = true;
        m_thread.join();
    }
    static constexpr double kLateMs = 4;

    int stalls() const { return m_stalls; }

private:
    void watch() {
        double before = monotonicSeconds();
        while (!m_stop) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            const double now = monotonicSeconds();
            if (const double lateMs = (now - before) * 1000 - 2; lateMs > kLateMs) {
                ++m_stalls;
                std::fprintf(stderr, "  %6.1f s: the machine stalled %.0f ms\n", sessionSeconds(),
                             lateMs);
            }
            before = now;
        }
    }

    std::atomic<bool> m_stop{false};
    std::atomic<int> m_stalls{0};
    std::thread m_thread;
};

// Stops a parecord and returns what it wrote.
QByteArray finishRecording(QProcess& recorder, const QString& path) {
    ::kill(pid_t(recorder.processId()), SIGTERM);
    recorder.waitForFinished(3000);
    QFile file(path);
    file.open(QIODevice::ReadOnly);
    return file.readAll();
}

// How long the long plays last: ONDRIL_BENCH_BOOST_SECONDS, 600 unless set.
int playSeconds() {
    return qEnvironmentVariableIsSet("ONDRIL_BENCH_BOOST_SECONDS")
               ? qEnvironmentVariableIntValue("ONDRIL_BENCH_BOOST_SECONDS")
               : 600;
}

// Silences in what a sink played, in 5 ms windows: a window under 1% of full scale (RMS) is
// silent, and more than two in a row (over 10 ms) are a gap, an under-run or a dropped fragment.
class SilenceCounter {
public:
    static constexpr int kWindow = kRate / 200;

    // One window, as the sum of its samples' squares; true when it makes a new gap.
    bool addWindow(double energy) {
        m_silentWindows = std::sqrt(energy / kWindow) < 0.01 ? m_silentWindows + 1 : 0;
        m_longestMs = std::max(m_longestMs, currentMs());
        m_gaps += m_silentWindows == 3 ? 1 : 0;
        return m_silentWindows == 3;
    }
    // The silence the last window ends, in ms.
    double currentMs() const { return m_silentWindows * 5.0; }
    int gaps() const { return m_gaps; }
    double longestMs() const { return m_longestMs; }

private:
    int m_silentWindows = 0;
    int m_gaps = 0;
    double m_longestMs = 0;
};

// The clicks in a signal of a tone at 0.2 or less: one per rising edge above the threshold, and
// the next may come a tenth of a second later.
class ClickDetector {
public:
    static constexpr float kThreshold = 0.5f; // above the tone, below a click even unboosted

    bool isClick(float sample, std::int64_t frame) {
        if (sample <= kThreshold || frame - m_lastClick <= kRate / 10)
            return false;
        m_lastClick = frame;
        return true;
    }

private:
    std::int64_t m_lastClick = -kRate;
};

QProcessEnvironment serverEnvironment() {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PULSE_SERVER"), g_server->serverAddress());
    return environment;
}

std::unique_ptr<QProcess> start(const QString& program, const QStringList& arguments) {
    auto process = std::make_unique<QProcess>();
    process->setProcessEnvironment(serverEnvironment());
    process->start(program, arguments);
    process->waitForStarted(3000);
    return process;
}

std::unique_ptr<QProcess> play(const QString& file, const QStringList& format) {
    return start(QStringLiteral("paplay"),
                 QStringList{QStringLiteral("--property=application.id=org.example.Bench")} +
                     format + QStringList{file});
}

// A boosted session of the process that `player` runs, to `destination`.
std::unique_ptr<RouteSession> boost(const QProcess& player, const QString& destination = kSink) {
    std::vector<AudioObjectID> objects;
    runFor(5000, [&] {
        AudioPropertyValue value;
        g_hardware->AudioObjectGetPropertyData(
            kAudioObjectSystemObject,
            {kAudioHardwarePropertyProcessObjectList, kAudioObjectPropertyScopeGlobal, 0}, value);
        for (AudioObjectID object : std::get<std::vector<AudioObjectID>>(value)) {
            AudioPropertyValue pid;
            g_hardware->AudioObjectGetPropertyData(
                object, {kAudioProcessPropertyPID, kAudioObjectPropertyScopeGlobal, 0}, pid);
            if (std::get<std::int32_t>(pid) == std::int32_t(player.processId()))
                objects.push_back(object);
        }
        return !objects.empty();
    });
    auto session = std::make_unique<RouteSession>(*g_hardware, QStringLiteral("org.example.Bench"),
                                                  objects, QStringList{destination});
    session->setGain(1.5f, true);
    return session->start() ? std::move(session) : nullptr;
}

// 440 Hz at half scale, the tone the tests play, as raw stereo s16 at 48 kHz.
QString tone() {
    const QString path = g_directory->filePath(QStringLiteral("tone.raw"));
    QByteArray data(kRate * 30 * 4, '\0');
    auto* samples = reinterpret_cast<std::int16_t*>(data.data());
    for (int frame = 0; frame < kRate * 30; ++frame)
        samples[2 * frame] = samples[2 * frame + 1] =
            std::int16_t(16384 * std::sin(2 * M_PI * 440.0 * frame / kRate));
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(data);
    return path;
}

// The slider crossing unity both ways while a tone plays: the longest stretch of silence (5 ms
// windows below 1% of full scale) and the loudest sample, which the limiter at 1.5 holds at
// tanh(0.75) = 0.635; a doubled signal would go above it.
void BM_SliderSweep(benchmark::State& state) {
    const QString recordingPath = g_directory->filePath(QStringLiteral("sweep.raw"));
    double longestGapMs = 0;
    double loudest = 0;
    for (auto _ : state) {
        auto player = play(tone(), {"--raw", "--format=s16le", "--channels=2", "--rate=48000"});
        auto session = boost(*player);
        if (!session) {
            state.SkipWithError("no session");
            return;
        }
        session->setGain(0.8f, false);
        runFor(1000);
        auto recorder =
            start(QStringLiteral("parecord"),
                  {QStringLiteral("--device=") + kSink + QStringLiteral(".monitor"), "--raw",
                   "--format=s16le", "--channels=1", "--channel-map=front-left", "--rate=48000",
                   "--latency-msec=5", recordingPath});
        runFor(700);
        for (const auto& [gain, boosted] : {std::pair{1.5f, true}, std::pair{0.8f, false},
                                            std::pair{1.5f, true}, std::pair{0.8f, false}}) {
            session->setGain(gain, boosted);
            runFor(700);
        }
        const QByteArray recording = finishRecording(*recorder, recordingPath);
        session.reset();
        player->kill();
        player->waitForFinished(3000);
        const auto* samples = reinterpret_cast<const std::int16_t*>(recording.constData());
        const int count = int(recording.size() / 2);
        constexpr int kWindow = SilenceCounter::kWindow;
        SilenceCounter silences;
        // The recording's first and last 100 ms are its own start and end.
        for (int start = kRate / 10; start + kWindow < count - kRate / 10; start += kWindow) {
            double energy = 0;
            for (int i = start; i < start + kWindow; ++i) {
                const double x = samples[i] / 32768.0;
                energy += x * x;
                loudest = std::max(loudest, std::abs(x));
            }
            silences.addWindow(energy);
        }
        longestGapMs = std::max(longestGapMs, silences.longestMs());
    }
    state.counters["longest_gap_ms"] = longestGapMs;
    state.counters["loudest"] = loudest;
    state.SetLabel("slider 0.8 -> 1.5 -> 0.8 -> 1.5 -> 0.8 while playing");
}
BENCHMARK(BM_SliderSweep)->Iterations(1)->Unit(benchmark::kMillisecond);

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void BM_BoostedSessionCpu(benchmark::State& state) {
    auto player = play(tone(), {"--raw", "--format=s16le", "--channels=2", "--rate=48000"});
    auto session = boost(*player);
    if (!session) {
        state.SkipWithError("no session");
        return;
    }
    constexpr int kSeconds = 10;
    double used = 0;
    for (auto _ : state) {
        const double before = cpuSeconds();
        runFor(kSeconds * 1000);
        used = cpuSeconds() - before;
    }
    state.counters["cpu_percent_of_one_core"] = 100.0 * used / kSeconds;
    state.SetLabel("CPU of the process while one boosted session plays");
    session.reset();
    player->kill();
    player->waitForFinished(3000);
}
BENCHMARK(BM_BoostedSessionCpu)->Iterations(1)->Unit(benchmark::kMillisecond);

// The instants at which clicks were rendered into one sink, found on its monitor by a record
// stream on a thread of its own. Data cannot arrive before it is rendered, so the smallest
// (arrival time - frames read / rate) over the recording is when its first frame was rendered;
// that maps each click's frame to a time on the monotonic clock, whatever the stream's buffering.
class ClickRecorder {
public:
    explicit ClickRecorder(const QString& monitor)
        : m_monitor(monitor.toUtf8())
        , m_server(g_server->serverAddress().toUtf8())
        , m_thread([this] { run(); }) {}
    ~ClickRecorder() { stop(); }

    // Stops recording; the clicks' times in seconds.
    std::vector<double> stop() {
        m_stop.store(true, std::memory_order_relaxed);
        if (m_thread.joinable())
            m_thread.join();
        std::vector<double> times;
        for (std::int64_t frame : m_clickFrames)
            times.push_back(m_firstFrameTime + double(frame) / kRate);
        return times;
    }

private:
    void run() {
        const pa_sample_spec spec{PA_SAMPLE_FLOAT32NE, kRate, 1};
        const auto unset = std::uint32_t(-1);
        const pa_buffer_attr attributes{unset, unset, unset, unset, kRate / 200 * 4};
        int error = 0;
        pa_simple* stream =
            pa_simple_new(m_server.constData(), "Ondril bench", PA_STREAM_RECORD,
                          m_monitor.constData(), "clicks", &spec, nullptr, &attributes, &error);
        if (!stream)
            return;
        std::array<float, kRate / 1000> chunk{};
        std::int64_t frames = 0;
        ClickDetector clicks;
        while (!m_stop.load(std::memory_order_relaxed) &&
               pa_simple_read(stream, chunk.data(), sizeof chunk, &error) == 0) {
            const double now = monotonicSeconds();
            for (std::size_t i = 0; i < chunk.size(); ++i, ++frames)
                if (clicks.isClick(chunk[i], frames))
                    m_clickFrames.push_back(frames);
            m_firstFrameTime = std::min(m_firstFrameTime, now - double(frames) / kRate);
        }
        pa_simple_free(stream);
    }

    const QByteArray m_monitor;
    const QByteArray m_server;
    std::atomic<bool> m_stop{false};
    std::vector<std::int64_t> m_clickFrames;
    double m_firstFrameTime = 1e300;
    std::thread m_thread; // last: it runs as soon as it is made
};

struct ClickLatency {
    double medianMs = -1;
    int clicks = 0;
};

// The median delay from each click sent to the first heard after it, with how many were paired.
ClickLatency medianDelay(const std::vector<double>& sentTimes,
                         const std::vector<double>& heardTimes) {
    std::vector<double> delays;
    for (double time : sentTimes) {
        const auto match = std::find_if(heardTimes.begin(), heardTimes.end(), [&](double heard) {
            return heard > time - 0.002 && heard < time + 0.2;
        });
        if (match != heardTimes.end())
            delays.push_back((*match - time) * 1000.0);
    }
    if (delays.empty())
        return {};
    std::nth_element(delays.begin(), delays.begin() + qsizetype(delays.size() / 2), delays.end());
    return {delays[delays.size() / 2], int(delays.size())};
}

// The private sink of the running session's tap, empty if there is none.
QString tapSink() {
    for (const QString& sink : g_server->sinkNames())
        if (sink.startsWith(QStringLiteral("com.kestrivane.ondril.tap.")))
            return sink;
    return {};
}

// The latency the path adds, found with the clicks of the boosted application: each click as the
// application's stream renders it into the tap's sink (where it would be rendered on its own sink
// unrouted), and again as the path renders it into the destination, both recorded at once for
// `seconds` on one clock. Neither player nor recorder start-up enters.
ClickLatency clickLatency(int seconds) {
    const QString tap = tapSink();
    if (tap.isEmpty())
        return {};
    ClickRecorder sent(tap + QStringLiteral(".monitor"));
    ClickRecorder heard(kSink + QStringLiteral(".monitor"));
    runFor(seconds * 1000);
    const std::vector<double> sentTimes = sent.stop();
    const std::vector<double> heardTimes = heard.stop();
    return medianDelay(sentTimes, heardTimes);
}

// 480 Hz at 0.2, mono, for `seconds`, with a 1 ms click at 0.7 every half second: a file rather
// than a pipe, which the blocking pactl calls would leave unfed.
QString clickedTone(int seconds) {
    const QString path = g_directory->filePath(QStringLiteral("long-tone.raw"));
    QByteArray data(qsizetype(kRate) * seconds * 2, '\0');
    auto* samples = reinterpret_cast<std::int16_t*>(data.data());
    for (qsizetype frame = 0; frame < qsizetype(kRate) * seconds; ++frame)
        samples[frame] =
            frame % (kRate / 2) < kRate / 1000
                ? std::int16_t(32768 * 0.7)
                : std::int16_t(32768 * 0.2 * std::sin(2 * M_PI * 480.0 * double(frame) / kRate));
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(data);
    return path;
}

// Latency at the start and after a long play of one boosted session, and what the destination's
// monitor heard meanwhile: any silence longer than 10 ms is an underrun (or a dropped fragment).
// The tone's silence test is not disturbed by its clicks, which are louder.
void BM_LongPlay(benchmark::State& state) {
    const int seconds = playSeconds();
    auto player = play(clickedTone(seconds + 60),
                       {"--raw", "--format=s16le", "--channels=1", "--rate=48000"});
    auto session = boost(*player);
    if (!session) {
        state.SkipWithError("no session");
        return;
    }
    startCountingUnderruns();
    const StallWatch stalls;
    int settlingUnderruns = 0;
    const QString recordingPath = g_directory->filePath(QStringLiteral("long.raw"));
    auto recorder = start(QStringLiteral("parecord"),
                          {QStringLiteral("--device=") + kSink + QStringLiteral(".monitor"),
                           "--raw", "--format=s16le", "--channels=1", "--channel-map=front-left",
                           "--rate=48000", recordingPath});
    ClickLatency first;
    ClickLatency last;
    for (auto _ : state) {
        runFor(5000);
        settlingUnderruns = std::exchange(g_secondsWithUnderruns, 0);
        first = clickLatency(10);
        runFor(seconds * 1000);
        last = clickLatency(10);
    }
    const QByteArray recording = finishRecording(*recorder, recordingPath);
    session.reset();
    player->kill();
    player->waitForFinished(3000);
    const auto* samples = reinterpret_cast<const std::int16_t*>(recording.constData());
    const qsizetype count = recording.size() / 2;
    constexpr int kWindow = SilenceCounter::kWindow;
    SilenceCounter silences;
    // Past the first 2 s: the recorder and the session's start.
    for (qsizetype start = 2 * kRate; start + kWindow < count - kRate / 10; start += kWindow) {
        double energy = 0;
        for (qsizetype i = start; i < start + kWindow; ++i)
            energy += double(samples[i]) * samples[i] / (32768.0 * 32768.0);
        silences.addWindow(energy);
    }
    state.counters["added_latency_start_ms"] = first.medianMs;
    state.counters["added_latency_end_ms"] = last.medianMs;
    state.counters["clicks_matched"] = first.clicks + last.clicks;
    state.counters["gaps_over_10ms"] = silences.gaps();
    if (g_server->kind() == PrivateSoundServer::Kind::PulseAudio) {
        state.counters["seconds_with_underruns_first_5s"] = settlingUnderruns;
        state.counters["seconds_with_underruns"] = g_secondsWithUnderruns;
    }
    state.counters["machine_stalls_over_4ms"] = stalls.stalls();
    state.counters["longest_gap_ms"] = silences.longestMs();
    state.counters["recorded_s"] = double(count) / kRate;
    state.SetLabel(QStringLiteral("one boosted session playing %1 s").arg(seconds).toStdString());
}
BENCHMARK(BM_LongPlay)->Iterations(1)->Unit(benchmark::kMillisecond);

// A sound card whose clock is not the system's: a pipe sink, which the server refills as fast as
// it is emptied, emptied by a thread of this process at 48 kHz scaled by `ppm`, in 5 ms steps. What
// it plays is kept on its own timeline: when each click was played, and where it had nothing to
// play (the server gave it silence, or the pipe ran empty).
class DriftingDevice {
public:
    static constexpr const char* kName = "drifting_device";

    explicit DriftingDevice(int ppm)
        : m_framesPerSecond(kRate * (1.0 + ppm / 1e6)) {}
    ~DriftingDevice() {
        m_stop.store(true, std::memory_order_relaxed);
        if (m_thread.joinable())
            m_thread.join();
        if (m_fd >= 0)
            ::close(m_fd);
        if (m_module)
            g_server->pactl({"unload-module", QString::number(*m_module)});
    }

    // Loads the sink and starts playing; false when the server has no pipe sink.
    bool start() {
        const QString fifo = g_directory->filePath(QStringLiteral("device.fifo"));
        const std::optional<QString> module = g_server->pactl(
            {"load-module", "module-pipe-sink", QStringLiteral("file=") + fifo,
             QStringLiteral("sink_name=") + kName, "format=float32le", "rate=48000", "channels=2"});
        if (!module)
            return false;
        m_module = module->trimmed().toUInt();
        m_fd = ::open(fifo.toUtf8().constData(), O_RDONLY | O_NONBLOCK);
        // The sink refills the pipe a page at a time: with two pages (21 ms) it fell behind now and
        // then and the card played silence, slower than its clock. Eight pages (85 ms) keep up; the
        // latency they add is constant, and what is measured is how the latency moves.
        if (m_fd < 0 || ::fcntl(m_fd, F_SETPIPE_SZ, 32768) < 0)
            return false;
        m_thread = std::thread([this] { run(); });
        return true;
    }

    double timeOfFrame(std::int64_t frame) const { return m_startTime + frame / m_framesPerSecond; }

    // The clicks played so far, in seconds on the monotonic clock.
    std::vector<double> clickTimes() {
        std::lock_guard lock(m_mutex);
        std::vector<double> times;
        for (std::int64_t frame : m_clickFrames)
            times.push_back(timeOfFrame(frame));
        return times;
    }
    // Silences over 10 ms played after `from` (seconds on the monotonic clock), and the longest.
    std::pair<int, double> gapsSince(double from) {
        std::lock_guard lock(m_mutex);
        int gaps = 0;
        double longestMs = 0;
        for (const auto& [startFrame, ms] : m_gaps)
            if (timeOfFrame(startFrame) >= from) {
                ++gaps;
                longestMs = std::max(longestMs, ms);
            }
        return {gaps, longestMs};
    }

    // Frames the device played as silence because the pipe did not hold them when due, from now
    // on: the card then ran slower than its clock.
    void countMissingFramesFromNow() {
        std::lock_guard lock(m_mutex);
        m_missingFrames = 0;
    }
    std::int64_t missingFrames() {
        std::lock_guard lock(m_mutex);
        return m_missingFrames;
    }

private:
    void run() {
        constexpr int kWindow = SilenceCounter::kWindow;
        constexpr int kMaxWindows = 20;
        std::vector<float> frames(std::size_t(kWindow) * kMaxWindows * 2);
        // A card plays on time whatever the machine does: the reader must not be what runs late.
        sched_param priority{};
        priority.sched_priority = 10;
        pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority);
        std::int64_t played = 0;
        SilenceCounter silences;
        ClickDetector clicks;
        m_startTime = monotonicSeconds();
        timespec tick{};
        clock_gettime(CLOCK_MONOTONIC, &tick);
        while (!m_stop.load(std::memory_order_relaxed)) {
            tick.tv_nsec += 5'000'000;
            if (tick.tv_nsec >= 1'000'000'000) {
                tick.tv_nsec -= 1'000'000'000;
                ++tick.tv_sec;
            }
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &tick, nullptr);
            const auto due = std::int64_t((monotonicSeconds() - m_startTime) * m_framesPerSecond);
            const auto wanted = std::size_t(
                std::min<std::int64_t>((due - played) / kWindow, kMaxWindows) * kWindow);
            // What the pipe does not hold is played as silence, as a card that ran dry would.
            std::fill(frames.begin(), frames.end(), 0.0f);
            const ssize_t bytes = ::read(m_fd, frames.data(), wanted * 2 * sizeof(float));
            if (bytes < 0 && errno != EAGAIN)
                return;
            std::lock_guard lock(m_mutex);
            m_missingFrames += std::int64_t(wanted) - std::max<std::int64_t>(bytes, 0) / 8;
            for (std::size_t window = 0; window < wanted; window += kWindow) {
                double energy = 0;
                for (std::size_t i = window; i < window + kWindow; ++i) {
                    const float left = frames[2 * i];
                    energy += double(left) * left;
                    if (clicks.isClick(left, played + std::int64_t(i)))
                        m_clickFrames.push_back(played + std::int64_t(i));
                }
                if (silences.addWindow(energy))
                    m_gaps.emplace_back(played + std::int64_t(window) - 2 * kWindow, 15.0);
                else if (silences.currentMs() > 15.0)
                    m_gaps.back().second = silences.currentMs();
            }
            played += std::int64_t(wanted);
        }
    }

    const double m_framesPerSecond;
    std::optional<quint32> m_module;
    int m_fd = -1;
    double m_startTime = 0;
    std::atomic<bool> m_stop{false};
    std::mutex m_mutex;
    std::vector<std::int64_t> m_clickFrames;
    std::int64_t m_missingFrames = 0;
    std::vector<std::pair<std::int64_t, double>> m_gaps; // first frame, length in ms
    std::thread m_thread;
};
// The rate at which the server plays the path's stream now, in ppm off nominal.
std::optional<double> destinationRatePpm() {
    const QString inputs = g_server->pactl({"list", "sink-inputs"}).value_or(QString());
    for (const QString& block : inputs.split(QStringLiteral("Sink Input #")))
        if (block.contains(QStringLiteral("media.name = \"Ondril boost\""))) {
            static const QRegularExpression rate(
                QStringLiteral("Sample Specification: \\S+ \\S+ (\\d+)Hz"));
            if (const QRegularExpressionMatch match = rate.match(block); match.hasMatch())
                return (match.captured(1).toDouble() / kRate - 1.0) * 1e6;
        }
    return std::nullopt;
}

// Median delay, in ms, from each click the tap sink rendered to the same click played by the
// device, over `seconds`: the device's timeline has its own clock, so this holds the pipe's
// buffering too, and what matters is how it moves over a long play.
ClickLatency deviceClickLatency(DriftingDevice& device, const QString& tap, int seconds) {
    ClickRecorder sent(tap + QStringLiteral(".monitor"));
    runFor(seconds * 1000);
    const std::vector<double> sentTimes = sent.stop();
    runFor(500);
    const std::vector<double> heardTimes = device.clickTimes();
    return medianDelay(sentTimes, heardTimes);
}

// One boosted session playing to a device whose clock runs `ppm` off the tap's, for as long as
// the long play: where the rate controller settles, whether the latency stays where it started,
// and what the device played without sound. PulseAudio only: PipeWire matches the clocks itself.
void BM_DeviceClockDrift(benchmark::State& state) {
    const int ppm = int(state.range(0));
    const int seconds = playSeconds();
    DriftingDevice device(ppm);
    if (!device.start()) {
        state.SkipWithError("no pipe sink");
        return;
    }
    auto player = play(clickedTone(seconds + 60),
                       {"--raw", "--format=s16le", "--channels=1", "--rate=48000"});
    auto session = boost(*player, QString::fromLatin1(DriftingDevice::kName));
    const QString tap = tapSink();
    if (!session || tap.isEmpty()) {
        state.SkipWithError("no session");
        return;
    }
    startCountingUnderruns();
    const StallWatch stalls;
    int settlingUnderruns = 0;
    ClickLatency first;
    ClickLatency last;
    double meanPpm = 0;
    double from = 0;
    for (auto _ : state) {
        runFor(5000);
        from = monotonicSeconds();
        device.countMissingFramesFromNow();
        settlingUnderruns = std::exchange(g_secondsWithUnderruns, 0);
        first = deviceClickLatency(device, tap, 10);
        // The controller corrects every second around the device's rate: its mean is the rate.
        double sum = 0;
        int readings = 0;
        for (int second = 0; second < seconds; second += 5) {
            runFor(5000);
            if (const std::optional<double> ppm = destinationRatePpm()) {
                sum += *ppm;
                ++readings;
            }
        }
        meanPpm = readings > 0 ? sum / readings : 0;
        last = deviceClickLatency(device, tap, 10);
    }
    const auto [gaps, longestGapMs] = device.gapsSince(from);
    session.reset();
    player->kill();
    player->waitForFinished(3000);
    state.counters["latency_start_ms"] = first.medianMs;
    state.counters["latency_end_ms"] = last.medianMs;
    state.counters["clicks_matched"] = first.clicks + last.clicks;
    state.counters["mean_stream_rate_ppm"] = meanPpm;
    state.counters["gaps_over_10ms"] = gaps;
    state.counters["longest_gap_ms"] = longestGapMs;
    state.counters["frames_missing"] = double(device.missingFrames());
    state.counters["seconds_with_underruns_first_5s"] = settlingUnderruns;
    state.counters["seconds_with_underruns"] = g_secondsWithUnderruns;
    state.counters["machine_stalls_over_4ms"] = stalls.stalls();
    state.SetLabel(QStringLiteral("device clock %1 ppm, %2 s").arg(ppm).arg(seconds).toStdString());
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const auto server = startBenchServer("bench_boost");
    if (!server)
        return 1;
    auto hardware = PulseAudioHardware::connect(5000);
    if (!hardware) {
        std::fprintf(stderr, "bench_boost: no connection to the private server\n");
        return 1;
    }
    QTemporaryDir directory;
    g_server = server.get();
    g_hardware = hardware.get();
    g_directory = &directory;
    QLoggingCategory::setFilterRules(QStringLiteral("%1.debug=true").arg(kAggregateCategory));
    qInstallMessageHandler(countUnderruns);
    if (server->kind() == PrivateSoundServer::Kind::PulseAudio)
        for (int ppm : {300, -300})
            benchmark::RegisterBenchmark("BM_DeviceClockDrift", BM_DeviceClockDrift)
                ->Arg(ppm)
                ->Iterations(1)
                ->Unit(benchmark::kMillisecond);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
