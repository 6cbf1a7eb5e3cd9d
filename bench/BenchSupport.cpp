#include "bench/BenchSupport.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace pwr::bench {
namespace {

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

MedianReporter::MedianReporter()
    : benchmark::ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}

void MedianReporter::ReportRuns(const std::vector<Run>& runs) {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
        if (run.error_occurred) continue;
        const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
        if (run.run_type != Run::RT_Iteration && !median) continue;
        const double toNs = benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
                            benchmark::GetTimeUnitMultiplier(run.time_unit);
        Samples& samples = mSamples[run.run_name.function_name];
        samples.realNs.push_back(run.GetAdjustedRealTime() * toNs);
        samples.cpuNs.push_back(run.GetAdjustedCPUTime() * toNs);
        for (const auto& [name, counter] : run.counters) {
            samples.counters[name].push_back(counter.value);
        }
    }
}

const MedianReporter::Samples* MedianReporter::find(const std::string& name) const {
    auto it = mSamples.find(name);
    return it == mSamples.end() ? nullptr : &it->second;
}

double MedianReporter::realNs(const std::string& name) const {
    const Samples* samples = find(name);
    return samples != nullptr ? median(samples->realNs) : 0;
}

double MedianReporter::cpuNs(const std::string& name) const {
    const Samples* samples = find(name);
    return samples != nullptr ? median(samples->cpuNs) : 0;
}

double MedianReporter::counter(const std::string& name, const std::string& counter) const {
    const Samples* samples = find(name);
    if (samples == nullptr) return 0;
    auto it = samples->counters.find(counter);
    return it != samples->counters.end() ? median(it->second) : 0;
}

void MedianReporter::printRatio(const std::string& label, const std::string& name,
                                const std::string& floor, const char* goal) const {
    const double real = realNs(name);
    const double cpu = cpuNs(name);
    const double floorReal = realNs(floor);
    const double floorCpu = cpuNs(floor);
    if (real <= 0 || floorReal <= 0 || floorCpu <= 0) return;
    printf("ratio %s (medians): real %.0f / %.0f ns = %.2fx, cpu %.0f / %.0f ns = %.2fx%s%s%s\n",
           label.c_str(), real, floorReal, real / floorReal, cpu, floorCpu, cpu / floorCpu,
           goal != nullptr ? " (goal: " : "", goal != nullptr ? goal : "",
           goal != nullptr ? ")" : "");
}

bool initialize(int argc, char** argv, const std::vector<std::string>& defaults) {
    // Google Benchmark may keep pointers into argv, so the combined list lives on.
    static std::vector<std::string> storage;
    static std::vector<char*> args;
    storage.assign(defaults.begin(), defaults.end());
    args.assign(1, argv[0]);
    for (std::string& flag : storage) args.push_back(flag.data());
    args.insert(args.end(), argv + 1, argv + argc);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    return !benchmark::ReportUnrecognizedArguments(count, args.data());
}

void run(MedianReporter& reporter) {
    benchmark::RunSpecifiedBenchmarks(&reporter);
    fflush(stdout);
    benchmark::Shutdown();
}

}  // namespace pwr::bench
