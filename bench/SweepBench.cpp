// Throughput of pwr-sim's sweep engine: closed-loop runs of the bundled game scenario (20
// simulated minutes each) as pwr-sim processes, one at a time against one per core; the goal on
// two cores is at least 1.8x the runs per second of one.
//
//   pwr_bench_sweep [--benchmark_repetitions=N] [other Google Benchmark flags]

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "host/sim/RunPool.h"
#include "host/sim/TempDir.h"

namespace {

constexpr int kRunsPerIteration = 8;

void BM_SweepRuns(benchmark::State& state) {
    const int jobs =
            state.range(0) == 0 ? pwr::sim::RunPool::cores() : static_cast<int>(state.range(0));
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

// One job, then one per core (0).
BENCHMARK(BM_SweepRuns)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();

// Prints the usual table, then the runs per second of each and their ratio from the medians.
class ThroughputReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        benchmark::ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type != Run::RT_Iteration && !median) continue;
            auto rate = run.counters.find("runs/s");
            if (rate != run.counters.end()) mRates[run.run_name.args].push_back(rate->second.value);
        }
    }
    void Finalize() override {
        benchmark::ConsoleReporter::Finalize();
        const double one = median(mRates["1"]);
        const double all = median(mRates["0"]);
        if (one <= 0 || all <= 0) return;
        printf("\nsweep throughput (median): %.2f runs/s on one core, %.2f on %d cores: %.2fx "
               "(goal on two cores: at least 1.8x)\n",
               one, all, pwr::sim::RunPool::cores(), all / one);
    }

  private:
    static double median(std::vector<double> values) {
        if (values.empty()) return 0;
        std::sort(values.begin(), values.end());
        return values[values.size() / 2];
    }

    std::map<std::string, std::vector<double>> mRates;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    ThroughputReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
