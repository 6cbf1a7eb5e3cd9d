#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// Process-wide GPU facts read from the GPU driver's nodes under "/sys/class/grax/grax-3d0/":
// the frequency table, a capacity per level (the top level is 1024), the current frequency, the
// busy percentage and a time-weighted average capacity since the previous query.
//
// Errors come back as negated errno values: -5 (EIO) when a node cannot be read or parsed, -22
// (EINVAL) when it holds too few or the wrong number of values. Nothing is logged or thrown.
//
// No lock of its own: the operations that read nodes reuse the object's buffers and
// GetAvgCapacity advances the time-in-state counters, so one thread at a time (the game timer's
// callback, which serialises its ticks) uses the object.
class GraxInfo {
  public:
    // The one instance, built on first use with the device root of that moment and never
    // rebuilt: GPU nodes missing then leave its tables empty for the life of the process.
    static GraxInfo* getInstance();

    // Reads the frequency table, seeds the time-in-state counters and computes the capacities,
    // stopping at the first step that fails; whatever was filled is kept. Public so that tests
    // can build fresh instances against their own fake device trees.
    GraxInfo();
    GraxInfo(const GraxInfo&) = delete;
    GraxInfo& operator=(const GraxInfo&) = delete;

    // Appends the available frequencies and sorts them ascending: 0, -5, or -22 when none.
    int InitFreqs();
    // Seeds the counters from "gpu_clock_stats": 0, -5, or -22 with fewer than two numbers.
    int InitTimeInState();
    // Capacity of each level, (f * 1024) / highest frequency; always 0.
    int InitCapacity();
    // GPU busy percentage from "gpubusy" (busy and total time): 0 when total is 0, -5, -22.
    int GetAvgUtil();
    // Time-weighted average capacity since the previous uncached call (the cached result when
    // `cached`), 0 when no time passed, -5 or -22.
    int GetAvgCapacity(bool cached);
    // Capacity of the top level (1024 once built); 0 without levels.
    int GetMaxCapacity();
    // Current frequency from "gpuclk"; 2^64 - 5 when it cannot be read, 2^64 - 22 when empty.
    uint64_t GetCurFreq();
    // Frequency of a fresh average capacity; the current frequency when that average is 0.
    int64_t GetAvgFreq();
    // Frequency of the lowest level whose capacity is at or above `capacity`, else the highest.
    int64_t ConvertCap2Freq(uint64_t capacity);
    // Level of a capacity; see pwr::freqlevels::levelOf (the scan starts at level 1).
    int GetLevelByCap(int64_t capacity);
    // Level of a frequency; see pwr::freqlevels::levelOf (the scan starts at level 1).
    int GetLevelByFreq(uint64_t frequency);
    // Frequency of a level clamped into the table; 0 without levels.
    int64_t GetFreqByLevel(int level);
    // Capacity of a level clamped into the table; 0 without levels.
    int64_t GetCapByLevel(int level);
    // "freq:cap, freq:cap," for log lines.
    std::string DumpVector2String();
    // `which` "max" or "min" (exactly) selects the limit; any other text changes nothing.
    void SetLimitFreqEnable(bool enable, std::string which);
    void SetLimitFreqPerfCode(int code, std::string which);

    const std::vector<uint64_t>& freqs() const { return mFreqs; }
    const std::vector<uint64_t>& capacities() const { return mCapacities; }
    const std::map<uint64_t, uint64_t>& timeInState() const { return mTimeInState; }
    bool minLimitEnable() const { return mMinLimitEnable; }
    int minLimitPerfCode() const { return mMinLimitPerfCode; }
    bool maxLimitEnable() const { return mMaxLimitEnable; }
    int maxLimitPerfCode() const { return mMaxLimitPerfCode; }

  private:
    std::vector<uint64_t> mFreqs;               // ascending; the index is the level
    std::vector<uint64_t> mCapacities;          // per level
    std::map<uint64_t, uint64_t> mTimeInState;  // frequency -> last cumulative time
    std::map<uint64_t, uint64_t> mCapacityMap;  // frequency -> capacity
    uint64_t mMaxTimeDelta = 10000;  // bound on one frequency's increment within one average
    bool mMinLimitEnable = true;
    int mMinLimitPerfCode = 0;
    bool mMaxLimitEnable = true;
    int mMaxLimitPerfCode = 0;
    int mAvgCapacity = 0;

    // Device paths of the nodes, built once so that sampling builds no strings.
    const std::string mFreqsNode;
    const std::string mClockStatsNode;
    const std::string mBusyNode;
    const std::string mClockNode;
    // The last node text and "gpu_clock_stats" values read, kept to reuse their storage: the
    // game timer's tick then allocates nothing.
    std::string mNodeText;
    std::vector<int64_t> mClockStats;
};
