#include "devices/AudioDeviceManager.h"
#include "platform/simulated/SimulatedAudioHardware.h"

#include <QCoreApplication>

#include <benchmark/benchmark.h>

namespace {

// A crowded machine: outputs, inputs and devices with both sides, some with channel-only volume.
std::unique_ptr<SimulatedAudioHardware> crowdedService(int deviceCount) {
    auto hardware = std::make_unique<SimulatedAudioHardware>();
    for (int i = 0; i < deviceCount; ++i) {
        SimulatedAudioHardware::DeviceSpec spec;
        spec.uid = QStringLiteral("alsa_output.usb-Vendor_%1-00.analog-stereo").arg(i);
        spec.name = QStringLiteral("Device %1").arg(deviceCount - i);
        if (i % 4 == 0)
            spec.inputChannels = {2};
        if (i % 5 == 0)
            spec.outputChannels = {};
        if (i % 3 == 0)
            spec.volume = {{1, 0.4f}, {2, 0.6f}};
        hardware->addDevice(spec);
    }
    return hardware;
}

void BM_RefreshAndPublish(benchmark::State& state) {
    auto hardware = crowdedService(int(state.range(0)));
    AudioDeviceManager manager(*hardware);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::MetaCall);
    for (auto _ : state) {
        manager.refresh();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::MetaCall);
        benchmark::DoNotOptimize(manager.outputDevices().size());
    }
    state.SetLabel("ns per refresh, publication included");
}
BENCHMARK(BM_RefreshAndPublish)->Arg(64)->Unit(benchmark::kNanosecond);

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
