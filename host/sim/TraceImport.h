#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/sim/Scenario.h"

namespace pwr::sim {

// Which scenario trace a counter series of a trace file feeds, and the factor that turns its
// values into the trace's unit.
struct TrackMapping {
    enum class Target { GpuFreqMhz, GpuBusy, DrainMa };
    std::string series;  // the counter's name; "<name>.<argument>" for a counter of several
    Target target = Target::GpuFreqMhz;
    double factor = 1;

    // The mappings used when none are given: pwr-sim's own trace.json, and the usual names of
    // GPU frequency and battery current counters in converted system traces (docs/pwr-capture.md).
    static std::vector<TrackMapping> defaults();
    // "<series>=<gpu_freq_mhz|gpu_busy|drain_ma>[*<factor>]"; false with `error` set.
    static bool parse(std::string_view text, TrackMapping* out, std::string* error);
};

// Turns the counter tracks of a Chrome trace-event JSON file ({"traceEvents": [...]} or a bare
// list; counter events have "ph": "C", a "name", "ts" in microseconds and numeric "args") into a
// scenario's GPU and battery traces. Times count from the earliest imported counter point; each
// point holds until the series' next one. Importing the trace.json of a pwr-sim run and running
// the result gives the same device counters again.
class TraceImport {
  public:
    struct Options {
        std::vector<TrackMapping> mappings = TrackMapping::defaults();
        // The GPU's frequency table (MHz); empty: the frequencies the trace shows, which a
        // trace of the device's clock lists only in part.
        std::vector<uint64_t> gpuTableMhz;
    };

    // Fills `out` and appends warnings (series not imported, a table taken from the trace).
    // False, with `error` set to "<file>:<line>:<column>: ..." for text that is not JSON, or
    // "<file>: traceEvents[<i>]...: ..." naming the event, when it cannot make a scenario.
    static bool run(std::string_view text, const std::string& name, const Options& options,
                    Scenario* out, std::vector<std::string>* warnings, std::string* error);
};

}  // namespace pwr::sim
