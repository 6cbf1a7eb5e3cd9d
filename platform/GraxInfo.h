#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// Process-wide GPU facts read from the GPU driver's nodes under "/sys/class/grax/grax-3d0/":
// the frequency table, a capacity per level (the top level is 1024), the current frequency, the
// busy percentage and a time-weighted average capacity since the previous query.
class GraxInfo {
  public:
    // The one instance, built on first use.
    static GraxInfo* getInstance();

    GraxInfo();

    int InitFreqs();
    int InitTimeInState();
    int InitCapacity();
    int GetAvgUtil();
    int GetAvgCapacity(bool cached);
    int GetMaxCapacity();
    uint64_t GetCurFreq();
    int64_t GetAvgFreq();
    int64_t ConvertCap2Freq(uint64_t capacity);
    int GetLevelByCap(int64_t capacity);
    int GetLevelByFreq(uint64_t frequency);
    int64_t GetFreqByLevel(int level);
    int64_t GetCapByLevel(int level);
    std::string DumpVector2String();
    void SetLimitFreqEnable(bool enable, std::string which);
    void SetLimitFreqPerfCode(int code, std::string which);

    const std::vector<uint64_t>& freqs() const { return mFreqs; }
    const std::vector<uint64_t>& capacities() const { return mCapacities; }

  private:
    std::vector<uint64_t> mFreqs;
    std::vector<uint64_t> mCapacities;
    std::map<uint64_t, uint64_t> mTimeInState;
    std::map<uint64_t, uint64_t> mCapacityMap;
    uint64_t mMaxTimeDelta = 10000;
    bool mMinLimitEnable = true;
    int mMinLimitPerfCode = 0;
    bool mMaxLimitEnable = true;
    int mMaxLimitPerfCode = 0;
    int mAvgCapacity = 0;
};
