#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// One CPU frequency policy (a cpufreq policy directory such as "policy0" under
// "/sys/devices/system/cpu/cpufreq"): its CPUs, its frequency table, a capacity per level on the
// scale of the policy's own "cpu_capacity", a time-weighted average capacity, the policy's CPU
// utilisation from "/proc/stat" and its average frequency over time.
//
// The CPU counterpart of GraxInfo, with the same error values (-5 unreadable, -22 too few or the
// wrong number of values), level rules and limit setters. Exported for other components; the
// feature itself builds none. No lock: each object is used from one thread at a time.
//
// Time in state. "stats/time_in_state" holds "<frequency> <time>" pairs with cumulative times
// (in the kernel's clock ticks). InitTimeInState seeds the counters of GetAvgCapacity and of
// GetTimeInState from it, so the first result of either covers the time since construction, not
// since boot. GetTimeInState returns the time-weighted average frequency over the interval since
// its previous call (or the seeding), in the table's unit (kHz), and keeps the per-frequency
// times of that interval for timeInStateDelta(). The two operations keep separate counters, so
// calling one does not shorten the other's interval.
class PolicyInfo {
  public:
    // Reads the frequency table, the CPUs, seeds the time-in-state counters and computes the
    // capacities, stopping at the first step that fails; whatever was filled is kept.
    explicit PolicyInfo(const std::string& policyName);

    // Appends "scaling_available_frequencies" and sorts ascending: 0, -5, or -22 when none.
    int InitFreqs();
    // The policy's CPUs from "related_cpus", ascending, with a zeroed statistics record each:
    // 0, -5, or -22 when none.
    int InitCpus();
    // Seeds both time-in-state counters from the node's pairs: 0, -5, or -22 with fewer than
    // two numbers.
    int InitTimeInState();
    // Capacity of each level, (f * cpu_capacity of the policy's lowest CPU) / highest
    // frequency: 0, -5 when "cpu_capacity" has no value, -22 without CPUs.
    int InitCapacity();
    // Index of `cpu` in the policy's CPU list, or -1.
    int IsCpuInPolicy(unsigned int cpu);
    // The lines of "/proc/stat"; empty when it cannot be read.
    std::vector<std::string> ReadProcStats();
    // Average utilisation in percent of the policy's CPUs since the previous call.
    int GetAvgUtil();
    // Average utilisation in percent of the policy's CPUs in the "/proc/stat" `lines`, against
    // the counters kept from the previous snapshot (which the lines then replace); 0 when no
    // line of a policy CPU is found.
    int GetAvgUtil(std::vector<std::string> lines);
    // Time-weighted average capacity since the previous uncached call (the cached result when
    // `cached`), 0 when no time passed, -5 or -22.
    int GetAvgCapacity(bool cached);
    // Capacity of the top level; 0 without levels.
    int GetMaxCapacity();
    // Current frequency from "scaling_cur_freq"; 2^64 - 5 when it cannot be read, 2^64 - 22
    // when empty.
    uint64_t GetCurFreq();
    // Frequency of a fresh average capacity; the current frequency when that average is 0.
    int64_t GetAvgFreq();
    // Time-weighted average frequency since the previous call (see above); 0.0 when no time
    // passed, -5.0 or -22.0 on the same failures as InitTimeInState.
    double GetTimeInState();
    int64_t ConvertCap2Freq(uint64_t capacity);
    int GetLevelByCap(int64_t capacity);
    int GetLevelByFreq(uint64_t frequency);
    int64_t GetFreqByLevel(int level);
    int64_t GetCapByLevel(int level);
    std::string DumpVector2String();
    void SetLimitFreqEnable(bool enable, std::string which);
    void SetLimitFreqPerfCode(int code, std::string which);

    const std::string& policyName() const { return mPolicyName; }
    const std::vector<uint64_t>& cpus() const { return mCpus; }
    const std::vector<uint64_t>& freqs() const { return mFreqs; }
    const std::vector<uint64_t>& capacities() const { return mCapacities; }
    // Time spent at each frequency during the interval of the last GetTimeInState.
    const std::map<uint64_t, uint64_t>& timeInStateDelta() const { return mTimeInStateDelta; }
    bool minLimitEnable() const { return mMinLimitEnable; }
    int minLimitPerfCode() const { return mMinLimitPerfCode; }
    bool maxLimitEnable() const { return mMaxLimitEnable; }
    int maxLimitPerfCode() const { return mMaxLimitPerfCode; }

  private:
    // The "/proc/stat" counters of one CPU.
    struct CpuStats {
        uint64_t user = 0;
        uint64_t nice = 0;
        uint64_t system = 0;
        uint64_t idle = 0;
        uint64_t iowait = 0;
        uint64_t irq = 0;
        uint64_t softirq = 0;
    };

    // Reads "time_in_state" as frequency/time pairs: -5, -22, or 0 with `pairs` filled.
    int readTimeInState(std::vector<std::pair<uint64_t, uint64_t>>& pairs);
    std::string policyNode(const char* name) const;

    std::string mPolicyName;
    std::vector<uint64_t> mCpus;                     // ascending
    std::vector<CpuStats> mCpuStats;                 // same order as mCpus
    std::vector<uint64_t> mFreqs;                    // ascending; the index is the level
    std::vector<uint64_t> mCapacities;               // per level
    std::map<uint64_t, uint64_t> mTimeInState;       // GetAvgCapacity: last cumulative time
    std::map<uint64_t, uint64_t> mLastTimeInState;   // GetTimeInState: last cumulative time
    std::map<uint64_t, uint64_t> mTimeInStateDelta;  // GetTimeInState: time of last interval
    std::map<uint64_t, uint64_t> mCapacityMap;       // frequency -> capacity
    uint64_t mMaxTimeDelta = 10000;
    bool mMinLimitEnable = true;
    int mMinLimitPerfCode = 0;
    bool mMaxLimitEnable = true;
    int mMaxLimitPerfCode = 0;
    int mAvgCapacity = 0;
};
