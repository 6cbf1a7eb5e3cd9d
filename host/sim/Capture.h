#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pwr::sim {

// Keys of the nodes every sample of a capture reads (docs/pwr-capture.md).
inline constexpr const char* kCaptureNodeKeys[] = {"gpuclk", "gpubusy", "gpu_clock_stats",
                                                   "current_now", "top"};

// One sample of a capture: what each node held at `timeMs` (the phone's uptime), and where it
// was written. A node is absent when the phone could not read it ("missing") or the capture
// has no line for it; `lines` tells the two apart.
struct CaptureSample {
    int line = 0;
    int64_t timeMs = 0;
    std::optional<uint64_t> gpuclkHz;
    std::optional<std::pair<uint64_t, uint64_t>> gpubusy;  // busy, total time
    std::optional<std::vector<uint64_t>> clockStats;       // time per level, highest first
    std::optional<int64_t> currentUa;                      // negative while discharging
    std::optional<std::vector<int>> top;                   // the foreground cpuset, in order
    // Program names of processes that joined the cpuset in this sample; none when the phone
    // could not read the command line (the process had gone).
    std::map<int, std::optional<std::string>> cmdlines;
    std::optional<std::string> activity;  // on samples that read it; empty: none resumed
    std::map<std::string, int> lines;     // key -> line of its value or its "missing"
    std::set<std::string> missing;        // keys the phone could not read
};

// A capture written by scripts/device/pwr-capture.sh, read line by line and checked for form;
// what the values mean is the importer's business.
struct Capture {
    struct Property {
        std::string name;
        std::string value;  // empty: unset on the phone
        int line = 0;
    };

    std::string file;
    int64_t periodMs = 0;
    int activityEvery = 0;
    std::string model;
    std::vector<Property> properties;
    std::vector<uint64_t> frequenciesHz;  // as the node lists them; empty when not read
    int frequenciesLine = 0;
    std::vector<CaptureSample> samples;  // a sample cut off at the end is left out
    bool ended = false;                  // the capture has its "end" line
    std::vector<std::string> warnings;   // "<file>:<line>: <what>", in line order

    // False, with `error` set to "<file>:<line>: <what is wrong>", when the text is not a
    // capture; a capture cut off at its end (no "end" line, a last line without its line end)
    // is read up to its last whole sample, with a warning. Nothing throws.
    static bool parseText(std::string_view text, const std::string& name, Capture* out,
                          std::string* error);
    static bool parseFile(const std::string& path, Capture* out, std::string* error);
};

}  // namespace pwr::sim
