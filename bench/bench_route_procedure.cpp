#include "appaudio/RouteSession.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

// One IO cycle of a stereo tap into a stereo device, 512 frames, as the real-time thread runs it.
void BM_RouteProcedure(benchmark::State& state) {
    constexpr std::uint32_t frames = 512;
    std::vector<float> input(2 * frames);
    for (std::size_t i = 0; i < input.size(); ++i)
        input[i] = float(i % 97) / 97.0f - 0.5f;
    std::vector<float> output(2 * frames);
    AudioBuffer in{2, std::uint32_t(input.size() * 4), input.data()};
    AudioBuffer out{2, std::uint32_t(output.size() * 4), output.data()};
    const AudioBufferList inputList{1, &in};
    AudioBufferList outputList{1, &out};

    GainBox gain;
    gain.value = state.range(0) ? 2.5f : 0.5f;
    gain.boost = state.range(0) != 0;
    for (auto _ : state) {
        RouteSession::process(gain, inputList, outputList);
        benchmark::DoNotOptimize(output.data());
        benchmark::ClobberMemory();
    }
    state.counters["ns_per_frame"] =
        benchmark::Counter(double(frames) * double(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.SetLabel(state.range(0) ? "boost (tanhf)" : "gain only");
}
BENCHMARK(BM_RouteProcedure)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
