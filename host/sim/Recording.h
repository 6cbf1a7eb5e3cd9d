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
    // series that stopped). Thinned out for drawing as the run goes (SeriesSketch): within
    // each slice of the run's time the first, lowest, highest and last points are kept, so a
    // plot of a run of any length shows every spike.
    std::vector<std::pair<int64_t, double>> points;
    // A counter of states (a mode, a level, a count): the exact time each value was in force.
    std::map<double, int64_t> msByValue;
    bool states = false;

    // The value in force at `timeMs` (the first point's before it), or `fallback` when empty.
    double at(int64_t timeMs, double fallback = 0) const;
};

// A perf lock from its acquisition to its release (or the end of the run, still held).
struct LockSlice {
    enum class Kind { Profile, TaskBoost, Other, State };  // State: a lane, not a lock
    Kind kind = Kind::Other;
    int handle = 0;
    std::string name;   // configured profile name(s), "pid 1234 scale -20", or the list
    std::string track;  // "profile lock", "task boost 1234", "other locks"
    std::vector<int> list;
    int64_t startMs = 0;
    std::optional<int64_t> endMs;  // none: held when the run ended
    int boostPid = 0;              // TaskBoost
    int boostValue = 0;            // TaskBoost: the scale carried (0 or negative)
    // A bar that several slices were drawn into: the time they covered within it (0: all of it).
    int64_t coveredMs = 0;

    // The share of the bar's span (to `endMs` of the run for one still open) that it covered.
    double share(int64_t runEndMs) const;
};

// Every lock of one kind and name over the run, for the summary.
struct LockTotal {
    LockSlice::Kind kind = LockSlice::Kind::Other;
    std::string name;
    int boostPid = 0;     // TaskBoost
    bool scaled = false;  // TaskBoost: it carried a scale (a negative value)
    int64_t heldMs = 0;
    int taken = 0;
};

// What happened to one system property the feature wrote.
struct PropertyHistory {
    std::optional<std::string> before;  // none: unset before the feature first wrote it
    std::string first;                  // the first value written
    int writes = 0;
    std::string last;  // the value after the run
};

// A closed loop's running totals at one time.
struct RunningTotals {
    double chargeMah = 0;
    double saturatedMs = 0;
    double demandMc = 0;
    double unservedMc = 0;
};

// A phase of the scenario: from a note (the first of its time) to the next.
struct PhaseMark {
    int64_t startMs = 0;
    std::string name;
    RunningTotals atStart;
};

// What a simulation observed, in a size that does not grow with the run's length: aggregates for
// the summary and thinned-out series for the plots. The timeline itself is streamed to the
// run's observers (RunObserver) as it happens and not kept.
struct Recording {
    std::string scenarioName;
    std::string scenarioFile;
    std::string configFile;
    int64_t durationMs = 0;
    // Counters by key: gpu_freq, gpu_freq_measured, gpu_busy, battery_drain, profile_level,
    // boosted_tasks, psm_mode, game_state, deep_state, the thresholds, and in a closed loop the
    // kCounter* below them; only those that were recorded are present.
    std::map<std::string, CounterTrack> counters;
    // Locks as bars for the plots, in acquisition order; locks taken within one slice of the
    // run's time on the same track are drawn as one bar (named after the first).
    std::vector<LockSlice> locks;
    // Spans of the feature's states and the foreground app as bars for the plots, as `locks`.
    std::vector<LockSlice> lanes;
    std::vector<LockTotal> lockTotals;   // by first acquisition
    int profileSwitches = 0;             // acquisitions of a profile other than the one before
    std::vector<std::string> heldAtEnd;  // "#<handle> <name>" of locks held when the run ended
    std::map<std::string, PropertyHistory> properties;
    // The names of the dynamic GPU profiles in the order the feature indexes them.
    std::vector<std::string> dynamicProfiles;
    // Input traces the feature never read, each as a sentence.
    std::vector<std::string> unreadInputs;
    // Closed loop only: the device model, its battery's capacity, the running totals at the
    // start and end, and the phases.
    std::string deviceModelFile;
    double batteryMah = 0;
    RunningTotals totalsAtStart;
    RunningTotals totalsAtEnd;
    std::vector<PhaseMark> phases;
};

// Receives what a simulation streams as it goes: each timeline line, each counter's change and
// each lock once it ends (or at the end of the run, still held).
class RunObserver {
  public:
    virtual ~RunObserver() = default;
    virtual void timeline(const TimelineEntry& /*entry*/) {}
    virtual void counter(const std::string& /*key*/, const CounterTrack& /*track*/,
                         int64_t /*timeMs*/, double /*value*/) {}
    virtual void lock(const LockSlice& /*slice*/) {}
};

// Tracks of Recording::lanes.
inline constexpr char kLaneGaming[] = "gaming usable mode";
inline constexpr char kLaneDeep[] = "deep mode";
inline constexpr char kLaneForeground[] = "foreground app";

// Keys of Recording::counters.
inline constexpr char kCounterGpuFreq[] = "gpu_freq";
inline constexpr char kCounterGpuFreqMeasured[] = "gpu_freq_measured";
inline constexpr char kCounterGpuBusy[] = "gpu_busy";
inline constexpr char kCounterBatteryDrain[] = "battery_drain";
inline constexpr char kCounterProfileLevel[] = "profile_level";
inline constexpr char kCounterBoostedTasks[] = "boosted_tasks";
inline constexpr char kCounterPsmMode[] = "psm_mode";
inline constexpr char kCounterGameState[] = "game_state";
inline constexpr char kCounterDeepState[] = "deep_state";
// The thresholds in force as the feature reports them: the GPU monitor's frequency thresholds and
// the battery monitor's active pair.
inline constexpr char kCounterFreqLow[] = "gpu_freq_threshold_low";
inline constexpr char kCounterFreqHigh[] = "gpu_freq_threshold_high";
inline constexpr char kCounterScalingUp[] = "battery_scaling_up";
inline constexpr char kCounterScalingDown[] = "battery_scaling_down";
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
