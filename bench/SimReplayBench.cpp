// Replay speed of the device simulator on the bundled game scenario (configs/sim/game-climb.json,
// 20 simulated minutes with a 500 ms game timer): simulated seconds per wall-clock second, the
// goal being at least 10,000. Beside it, the floor any simulation of the scenario pays: bringing
// the fake device's nodes up to each tick's time and reading the two GPU nodes a tick reads,
// as many times as the scenario ticks, with no plug-in.
//
//   pwr_bench_sim [--benchmark_repetitions=N] [other Google Benchmark flags]

#include <cstdio>
#include <sstream>
#include <string>

#include <android-base/file.h>
#include <benchmark/benchmark.h>

#include "bench/BenchSupport.h"
#include "host/sim/FakeDevice.h"
#include "host/sim/Scenario.h"
#include "host/sim/Simulator.h"
#include "host/sim/Summary.h"
#include "host/tools/DeviceRootSession.h"
#include "platform/DevicePath.h"

namespace {

const std::string kScenario = std::string(PWR_SOURCE_DIR) + "/configs/sim/game-climb.json";
constexpr int64_t kTickMs = 500;  // GAME_TIMER of configs/game.xml

void BM_SimulateGameScenario(benchmark::State& state) {
    pwr::sim::SimOptions options;
    options.pluginPath = PWR_PLUGIN_PATH;
    options.scenarioPath = kScenario;
    int64_t simulatedMs = 0;
    for (auto _ : state) {
        pwr::sim::Recording recording;
        std::ostringstream err;
        if (pwr::sim::runSimulation(options, &recording, {}, err) != 0) {
            state.SkipWithError(err.str().c_str());
            return;
        }
        benchmark::DoNotOptimize(pwr::sim::Summary::of(recording));
        simulatedMs += recording.durationMs;
    }
    state.counters["sim_s/wall_s"] = benchmark::Counter(static_cast<double>(simulatedMs) / 1000.0,
                                                        benchmark::Counter::kIsRate);
}

void BM_DeviceNodesFloor(benchmark::State& state) {
    pwr::sim::Scenario scenario;
    std::string error;
    if (!pwr::sim::Scenario::parseFile(kScenario, &scenario, &error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    // The nodes a tick reads once the clock statistics move ("gpuclk" only when they do not).
    const char* const nodes[] = {"gpu_clock_stats", "gpubusy"};
    int64_t simulatedMs = 0;
    for (auto _ : state) {
        pwr::tools::DeviceRootSession root;
        if (!root.open("", "pwr-bench-sim", &error)) {
            state.SkipWithError(error.c_str());
            return;
        }
        pwr::sim::FakeDevice device(scenario);
        if (!device.create(&error)) {
            state.SkipWithError(error.c_str());
            return;
        }
        std::string content;
        for (int64_t t = kTickMs; t <= scenario.durationMs; t += kTickMs) {
            device.update(t, &error);
            for (const char* node : nodes) {
                android::base::ReadFileToString(
                        pwr::devicePath(std::string("/sys/class/grax/grax-3d0/") + node), &content);
            }
        }
        simulatedMs += scenario.durationMs;
    }
    state.counters["sim_s/wall_s"] = benchmark::Counter(static_cast<double>(simulatedMs) / 1000.0,
                                                        benchmark::Counter::kIsRate);
}

BENCHMARK(BM_SimulateGameScenario)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DeviceNodesFloor)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    if (!pwr::bench::initialize(argc, argv)) return 1;
    pwr::bench::MedianReporter reporter;
    pwr::bench::run(reporter);
    printf("replay speed (median): %.0fx real time (goal: at least 10000x)\n",
           reporter.counter("BM_SimulateGameScenario", "sim_s/wall_s"));
    reporter.printRatio("scenario / device-node floor", "BM_SimulateGameScenario",
                        "BM_DeviceNodesFloor");
    return 0;
}
