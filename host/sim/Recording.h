#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace pwr::sim {

// One line of the timeline.
struct TimelineEntry {
    int64_t timeMs = 0;
    std::string kind;  // event, note, device, query, lock, boost, prop, mode, game, log, ...
    std::string text;
};

// A counter that steps to each point's value at its time and holds it until the next point.
struct CounterTrack {
    std::string name;
    std::string unit;
    // Time order, one point per time; a NaN value means no value from then on (a sampled
    // series that stopped).
    std::vector<std::pair<int64_t, double>> points;

    // Records `value` at `timeMs`: replaces a point of the same time, skips a repeat of the
    // value in force.
    void set(int64_t timeMs, double value);
    // The value in force at `timeMs` (the first point's before it), or `fallback` when empty.
    double at(int64_t timeMs, double fallback = 0) const;
};

// A perf lock from its acquisition to its release (or the end of the run, still held).
struct LockSlice {
    enum class Kind { Profile, TaskBoost, Other };
    Kind kind = Kind::Other;
    int handle = 0;
    std::string name;   // configured profile name(s), "pid 1234 scale -20", or the list
    std::string track;  // "profile lock", "task boost 1234", "other locks"
    std::vector<int> list;
    int64_t startMs = 0;
    std::optional<int64_t> endMs;  // none: held when the run ended
    int boostPid = 0;              // TaskBoost
    int boostValue = 0;            // TaskBoost: the scale carried (0 or negative)
};

// What happened to one system property the feature wrote.
struct PropertyHistory {
    std::optional<std::string> before;  // none: unset before the feature first wrote it
    std::vector<std::pair<int64_t, std::string>> writes;
    std::string last;  // the value after the run
};

// Everything a simulation observed, for the timeline, summary, trace and plot writers.
struct Recording {
    std::string scenarioName;
    std::string scenarioFile;
    std::string configFile;
    int64_t durationMs = 0;
    std::vector<TimelineEntry> timeline;
    // Counters by key: gpu_freq, gpu_freq_measured, gpu_busy, battery_drain, profile_level,
    // boosted_tasks, psm_mode, game_state, and in a closed loop the kCounter* below them; only
    // those that were recorded are present.
    std::map<std::string, CounterTrack> counters;
    std::vector<LockSlice> locks;  // in acquisition order
    std::map<std::string, PropertyHistory> properties;
    // The names of the dynamic GPU profiles in the order the feature indexes them.
    std::vector<std::string> dynamicProfiles;
    // Closed loop only: the device model, and its battery's capacity.
    std::string deviceModelFile;
    double batteryMah = 0;
};

// Keys of Recording::counters.
inline constexpr char kCounterGpuFreq[] = "gpu_freq";
inline constexpr char kCounterGpuFreqMeasured[] = "gpu_freq_measured";
inline constexpr char kCounterGpuBusy[] = "gpu_busy";
inline constexpr char kCounterBatteryDrain[] = "battery_drain";
inline constexpr char kCounterProfileLevel[] = "profile_level";
inline constexpr char kCounterBoostedTasks[] = "boosted_tasks";
inline constexpr char kCounterPsmMode[] = "psm_mode";
inline constexpr char kCounterGameState[] = "game_state";
// Closed loop: the GPU work asked for (MHz of a fully busy GPU), and running totals since the
// start (the difference of two points is the figure between them).
inline constexpr char kCounterGpuDemand[] = "gpu_demand";
inline constexpr char kCounterChargeMah[] = "charge_mah";
inline constexpr char kCounterSaturatedMs[] = "gpu_saturated_ms";
// Closed loop: the share of each span between two device updates with the GPU saturated.
inline constexpr char kCounterGpuSaturated[] = "gpu_saturated";
inline constexpr char kCounterDemandMc[] = "gpu_demand_mc";
inline constexpr char kCounterUnservedMc[] = "gpu_unserved_mc";

}  // namespace pwr::sim
