// Throughput of pwr-sim's sweep engine: closed-loop runs of the bundled game scenario (20
// simulated minutes each) as pwr-sim processes, one at a time against one per core; the goal on
// two cores is at least 1.8x the runs per second of one.
//
//   pwr_bench_sweep [--benchmark_repetitions=N] [other Google Benchmark flags]

#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/BenchSupport.h"
#include "host/sim/RunPool.h"
#include "host/sim/TempDir.h"

namespace {

constexpr int kRunsPerIteration = 8;

// `jobs` runs at once, kRunsPerIteration per iteration.
void sweepRuns(benchmark::State& state, int jobs) {
    pwr::sim::TempDir temp;
    std::string error;
    if (!temp.create("pwr-bench-sweep", &error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    std::vector<pwr::sim::RunPool::Run> runs(kRunsPerIteration);
    for (int i = 0; i < kRunsPerIteration; ++i) {
        const std::string base = temp.path() + "/run-" + std::to_string(i);
        runs[i].args = {std::string(PWR_SOURCE_DIR) + "/configs/sim/game-climb.json",
                        "--device",
                        std::string(PWR_SOURCE_DIR) + "/configs/sim/phone.json",
                        "--quiet",
                        "--json",
                        base + ".json",
                        "--plugin",
                        PWR_PLUGIN_PATH};
        runs[i].outPath = base + ".out";
        runs[i].errPath = base + ".err";
    }
    pwr::sim::RunPool pool(PWR_SIM_PATH, jobs);
    int64_t done = 0;
    for (auto _ : state) {
        if (!pool.runAll(runs, nullptr)) {
            state.SkipWithError("interrupted");
            return;
        }
        for (const auto& run : runs) {
            if (run.status != 0) {
                state.SkipWithError("a run failed");
                return;
            }
        }
        done += kRunsPerIteration;
    }
    state.counters["jobs"] = jobs;
    state.counters["runs/s"] =
            benchmark::Counter(static_cast<double>(done), benchmark::Counter::kIsRate);
}

void BM_SweepOneJob(benchmark::State& state) {
    sweepRuns(state, 1);
}

void BM_SweepEveryCore(benchmark::State& state) {
    sweepRuns(state, pwr::sim::RunPool::cores());
}

BENCHMARK(BM_SweepOneJob)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SweepEveryCore)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    if (!pwr::bench::initialize(argc, argv)) return 1;
    pwr::bench::MedianReporter reporter;
    pwr::bench::run(reporter);
    const double one = reporter.counter("BM_SweepOneJob", "runs/s");
    const double all = reporter.counter("BM_SweepEveryCore", "runs/s");
    if (one > 0 && all > 0) {
        printf("sweep throughput (median): %.2f runs/s with one job, %.2f with %d: %.2fx (goal on "
               "two cores: at least 1.8x)\n",
               one, all, pwr::sim::RunPool::cores(), all / one);
    }
    return 0;
}
