#pragma once

// What every benchmark program here shares: Google Benchmark's flags with the program's own
// defaults, and a console reporter that keeps the medians of the runs for the ratio lines each
// program prints against the floor it measures in the same run.

#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace pwr::bench {

// The usual console table; besides, for each benchmark (by its name, "BM_PmDbWrite/tmpfs"), the
// times and counters of the runs reported: every repetition, or the median aggregate alone when
// only aggregates are reported. The machine is shared, so a median, not a minimum or a mean.
class MedianReporter : public benchmark::ConsoleReporter {
  public:
    MedianReporter();

    void ReportRuns(const std::vector<Run>& runs) override;

    // Median real or CPU time of `name` in nanoseconds, and of one of its counters; 0 when it
    // did not run.
    double realNs(const std::string& name) const;
    double cpuNs(const std::string& name) const;
    double counter(const std::string& name, const std::string& counter) const;

    // Prints "ratio <label> (medians): real A / B ns = R.RRx, cpu C / D ns = S.SSx" of `name`
    // over `floor`, with " (goal: <goal>)" when one is given; nothing when either did not run.
    void printRatio(const std::string& label, const std::string& name, const std::string& floor,
                    const char* goal = nullptr) const;

  private:
    struct Samples {
        std::vector<double> realNs;
        std::vector<double> cpuNs;
        std::map<std::string, std::vector<double>> counters;
    };
    const Samples* find(const std::string& name) const;

    std::map<std::string, Samples> mSamples;
};

// Parses Google Benchmark's flags: `defaults` first, then the command line's, which win. False
// once an unrecognised argument has been reported.
bool initialize(int argc, char** argv, const std::vector<std::string>& defaults = {});

// Runs the selected benchmarks into `reporter`.
void run(MedianReporter& reporter);

}  // namespace pwr::bench
