#include "devices/AudioDeviceManager.h"
#include "platform/pulse/PulseAudioHardware.h"

#include "BenchServer.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QProcessEnvironment>

#include <benchmark/benchmark.h>

#include <cstdio>

// Figures of the libpulse realisation against a private server with 64 null sinks: reads
// answered from the mirror, the round trip of a volume write, and how long a sink loaded with
// pactl takes to reach the program's device list.
namespace {

constexpr int kSinkCount = 64;

PrivateSoundServer* g_server = nullptr;
PulseAudioHardware* g_hardware = nullptr;

AudioObjectID firstSink() {
    AudioPropertyValue value;
    g_hardware->AudioObjectGetPropertyData(
        kAudioObjectSystemObject,
        {kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal, 0}, value);
    return std::get<std::vector<AudioObjectID>>(value).front();
}

// The reads of one enumeration, as the device manager makes them, all from the mirror.
void BM_EnumerateFromMirror(benchmark::State& state) {
    std::size_t outputs = 0;
    for (auto _ : state) {
        AudioPropertyValue devices;
        g_hardware->AudioObjectGetPropertyData(
            kAudioObjectSystemObject,
            {kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal, 0}, devices);
        outputs = 0;
        for (AudioObjectID id : std::get<std::vector<AudioObjectID>>(devices)) {
            AudioPropertyValue configuration, uid, name, volume;
            g_hardware->AudioObjectGetPropertyData(
                id, {kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeOutput, 0},
                configuration);
            g_hardware->AudioObjectGetPropertyData(
                id, {kAudioDevicePropertyDeviceUID, kAudioObjectPropertyScopeGlobal, 0}, uid);
            g_hardware->AudioObjectGetPropertyData(
                id, {kAudioObjectPropertyName, kAudioObjectPropertyScopeGlobal, 0}, name);
            g_hardware->AudioObjectGetPropertyData(
                id, {kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, 0}, volume);
            outputs += std::get<AudioStreamConfiguration>(configuration).totalChannels() > 0;
        }
        benchmark::DoNotOptimize(outputs);
    }
    state.counters["outputs"] = double(outputs);
    state.SetLabel("one enumeration: device list, then configuration, UID, name, volume of each");
}
BENCHMARK(BM_EnumerateFromMirror)->Unit(benchmark::kMicrosecond);

// A write waits for the server's answer and for the re-read object.
void BM_VolumeWriteRoundTrip(benchmark::State& state) {
    const AudioObjectID sink = firstSink();
    float value = 0.3f;
    for (auto _ : state) {
        value = value == 0.3f ? 0.6f : 0.3f;
        const OSStatus status = g_hardware->AudioObjectSetPropertyData(
            sink, {kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, 0}, value);
        if (status != kAudioHardwareNoError) {
            state.SkipWithError("volume write failed");
            break;
        }
    }
    state.SetLabel("write, server acknowledgement, re-read into the mirror");
}
BENCHMARK(BM_VolumeWriteRoundTrip)->Unit(benchmark::kMicrosecond);

// From starting `pactl load-module module-null-sink` to the device manager's new output list.
void BM_HotplugToDeviceList(benchmark::State& state) {
    AudioDeviceManager manager(*g_hardware);
    QCoreApplication::processEvents();
    int round = 0;
    for (auto _ : state) {
        const QString name = QStringLiteral("hotplug_%1").arg(round++);
        auto listed = [&] {
            for (const AudioDevice& device : manager.outputDevices()) {
                if (device.uid == name)
                    return true;
            }
            return false;
        };
        QProcess pactl;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PULSE_SERVER"), g_server->serverAddress());
        pactl.setProcessEnvironment(environment);
        QElapsedTimer timer;
        timer.start();
        pactl.start(QStringLiteral("pactl"),
                    {QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
                     QStringLiteral("sink_name=") + name});
        while (!listed() && timer.elapsed() < 10000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        state.SetIterationTime(double(timer.nsecsElapsed()) / 1e9);
        pactl.waitForFinished(5000);
        if (!listed()) {
            state.SkipWithError("the sink never reached the device list");
            break;
        }
        g_server->pactl({QStringLiteral("unload-module"),
                         QString::fromUtf8(pactl.readAllStandardOutput()).trimmed()});
    }
    state.SetLabel("pactl start included");
}
BENCHMARK(BM_HotplugToDeviceList)->UseManualTime()->Iterations(20)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const auto server = startBenchServer("bench_pulse");
    if (!server)
        return 1;
    for (int i = int(PrivateSoundServer::defaultSinks().size()); i < kSinkCount; ++i) {
        if (!server->loadNullSink(QStringLiteral("bench_%1").arg(i),
                                  QStringLiteral("Bench Sink %1").arg(i))) {
            std::fprintf(stderr, "bench_pulse: could not load sink %d\n", i);
            return 1;
        }
    }
    auto hardware = PulseAudioHardware::connect(5000);
    if (!hardware) {
        std::fprintf(stderr, "bench_pulse: no connection to the private server\n");
        return 1;
    }
    g_server = server.get();
    g_hardware = hardware.get();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
