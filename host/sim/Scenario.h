#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/tools/EventScript.h"

namespace pwr::sim {

// The GPU from one time on (until the next point): the frequency it runs at and how busy it is.
struct GpuPoint {
    int64_t timeMs = 0;
    double freqMhz = 0;  // time-weighted average frequency over the period
    double busy = 0;     // percent
    // Share of time at each table frequency (MHz) for the clock statistics; empty: split
    // between the two table frequencies around freqMhz so that their mean is freqMhz.
    std::map<uint64_t, double> residency;
    double busySwing = 0;  // amplitude (percentage points) of a sine added to busy
    int64_t swingPeriodMs = 0;

    // The busy percentage at `ms` (at or after timeMs), swing included, within 0 to 100.
    double busyAt(int64_t ms) const;
};

// The battery from one time on: discharge current in mA (negative while charging).
struct BatteryPoint {
    int64_t timeMs = 0;
    double drainMa = 0;
    double drainSwing = 0;  // amplitude (mA) of a sine added to the drain
    int64_t swingPeriodMs = 0;

    // The drain at `ms` (at or after timeMs), swing included.
    double drainAt(int64_t ms) const;
};

// A process of the foreground cpuset: its id and program name (empty for a kernel thread).
struct ForegroundProcess {
    int pid = 0;
    std::string cmdline;
};

// The foreground cpuset from one time on.
struct ForegroundPoint {
    int64_t timeMs = 0;
    std::vector<ForegroundProcess> processes;
};

// A timed event for the feature, or a note for the reader of the timeline.
struct ScenarioEvent {
    int64_t timeMs = 0;
    bool hasEvent = false;
    tools::ScriptEvent event;  // when hasEvent
    std::string note;          // shown in the timeline; may accompany an event
};

// The application type a catalogue word names: "game" 2, "browser" 3, "video" 5, "other" 0, or
// a decimal number. False, with `type` untouched, for any other word.
bool appTypeFromWord(std::string_view word, int* type);
// The word for an application type: its name for 2, 3, 5 and 0, else the number.
std::string appTypeWord(int type);

// A simulation scenario (docs/pwr-sim.md): the application catalogue of the fake performance
// library, the device's traces and the events, over a fixed duration. Times are in milliseconds
// from the start; every list is in time order.
struct Scenario {
    std::string file;
    std::string name;
    std::string description;
    std::string configPath;  // the XML configuration, resolved against the scenario's folder
    int64_t durationMs = 0;
    bool debug = false;  // "vendor.debug.trace.power" set before the feature is built
    std::vector<tools::ScriptApp> apps;
    std::map<std::string, std::string> properties;  // property store before the run
    std::vector<uint64_t> gpuFrequenciesMhz;        // ascending; empty: no GPU nodes
    std::vector<GpuPoint> gpu;
    std::vector<BatteryPoint> battery;  // empty: no battery node
    std::vector<ForegroundPoint> foreground;
    // The events, when they were kept (the parse's `keepEvents`); else they are read again from
    // the source, one at a time, by forEachEvent.
    std::vector<ScenarioEvent> events;
    size_t eventCount = 0;

    // False, with `error` set to one line "<file>:<line>:<column>: <what>" for text that is not
    // JSON, or "<file>: <key path>: <what>" for a scenario that is not valid; nothing throws.
    // Every event is checked; with `keepEvents` false none is kept, so that a scenario of any
    // length costs the same memory, and forEachEvent reads them again.
    static bool parseText(std::string_view text, const std::string& name, Scenario* out,
                          std::string* error, bool keepEvents = true);
    // The same for a file ("-": standard input), read as it is parsed.
    static bool parseFile(const std::string& path, Scenario* out, std::string* error,
                          bool keepEvents = true);

    // Hands every event to `deliver` in time order, from `events` or by reading the source again;
    // stops when `deliver` returns false. False when `deliver` did, or (with `error` set) when
    // the source no longer reads as it did.
    bool forEachEvent(const std::function<bool(const ScenarioEvent&)>& deliver,
                      std::string* error) const;

  private:
    // Where events that were not kept are read again: the file, or the text itself.
    std::string mSourcePath;
    std::shared_ptr<const std::string> mSourceText;
};

}  // namespace pwr::sim
