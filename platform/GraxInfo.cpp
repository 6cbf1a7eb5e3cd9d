#include "platform/GraxInfo.h"

#include <errno.h>

#include <algorithm>

#include "platform/DevicePath.h"
#include "platform/FreqLevels.h"
#include "platform/NumberReader.h"

namespace {

constexpr char kGpuDir[] = "/sys/class/grax/grax-3d0/";

std::string gpuNode(const char* name) {
    return pwr::devicePath(std::string(kGpuDir) + name);
}

}  // namespace

GraxInfo* GraxInfo::getInstance() {
    static GraxInfo instance;
    return &instance;
}

GraxInfo::GraxInfo()
    : mFreqsNode(gpuNode("gpu_available_frequencies")),
      mClockStatsNode(gpuNode("gpu_clock_stats")),
      mBusyNode(gpuNode("gpubusy")),
      mClockNode(gpuNode("gpuclk")) {
    if (InitFreqs() < 0) return;
    if (InitTimeInState() < 0) return;
    InitCapacity();
}

int GraxInfo::InitFreqs() {
    const auto values = readNumbersFromFile(mFreqsNode);
    if (!values) return -EIO;
    mFreqs.insert(mFreqs.end(), values->begin(), values->end());
    if (mFreqs.empty()) return -EINVAL;
    std::sort(mFreqs.begin(), mFreqs.end());
    return 0;
}

int GraxInfo::InitTimeInState() {
    const auto values = readNumbersFromFile(mClockStatsNode);
    if (!values) return -EIO;
    if (values->size() < 2) return -EINVAL;
    // The node lists the highest frequency first and in another unit than the averaging reads,
    // yet the seed pairs it with ascending frequencies as read: the first average depends on
    // this, so it stays. The last number is not used; levels the table lacks are not seeded.
    const size_t seeded = std::min(values->size() - 1, mFreqs.size());
    for (size_t i = 0; i < seeded; ++i) mTimeInState[mFreqs[i]] = (*values)[i];
    return 0;
}

int GraxInfo::InitCapacity() {
    if (mFreqs.empty()) return 0;
    const uint64_t max = mFreqs.back();
    for (const uint64_t f : mFreqs) {
        // An all-zero table has no scale; its levels get capacity 0 instead of a division by 0.
        mCapacityMap[f] = max == 0 ? 0 : (f << 10) / max;
        mCapacities.push_back(mCapacityMap[f]);
    }
    return 0;
}

int GraxInfo::GetAvgUtil() {
    uint32_t count = 0;
    int64_t busy = 0;
    int64_t total = 0;
    const bool read = pwr::forEachNumberInFile(mBusyNode, pwr::NumberWidth::kUint32, mNodeText,
                                               [&](int64_t value) {
                                                   if (count == 0) busy = value;
                                                   if (count == 1) total = value;
                                                   ++count;
                                               });
    if (!read) return -EIO;
    if (count != 2) return -EINVAL;
    if (total == 0) return 0;
    return static_cast<int>(busy * 100 / total);
}

int GraxInfo::GetAvgCapacity(bool cached) {
    if (cached) return mAvgCapacity;
    if (!pwr::readNumbersInto(mClockStatsNode, mNodeText, mClockStats)) return -EIO;
    const size_t n = mClockStats.size();
    if (n < 2) return -EINVAL;
    // One value per level is expected; more values than levels have no frequency to count for.
    if (n > mFreqs.size()) return -EINVAL;

    uint64_t total = 0;
    uint64_t weighted = 0;
    for (size_t i = 0; i < n; ++i) {
        const uint64_t f = mFreqs[n - 1 - i];  // highest frequency first
        const uint64_t current = static_cast<uint64_t>(mClockStats[i] / 1000);
        uint64_t& previous = mTimeInState[f];
        uint64_t delta = pwr::freqlevels::counterDelta(current, previous);
        previous = current;
        const uint64_t capacity = mCapacityMap[f];
        delta = std::min(delta, mMaxTimeDelta);
        total += delta;
        weighted += capacity * delta;
    }
    mAvgCapacity = total == 0 ? 0
                              : static_cast<int>(static_cast<int64_t>(weighted) /
                                                 static_cast<int64_t>(total));
    return mAvgCapacity;
}

int GraxInfo::GetMaxCapacity() {
    return mCapacities.empty() ? 0 : static_cast<int>(mCapacities.back());
}

uint64_t GraxInfo::GetCurFreq() {
    uint32_t count = 0;
    uint64_t first = 0;
    const bool read = pwr::forEachNumberInFile(mClockNode, pwr::NumberWidth::kUint32, mNodeText,
                                               [&](int64_t value) {
                                                   if (count++ == 0) {
                                                       first = static_cast<uint64_t>(value);
                                                   }
                                               });
    if (!read) return static_cast<uint64_t>(-EIO);
    if (count == 0) return static_cast<uint64_t>(-EINVAL);
    return first;
}

int64_t GraxInfo::GetAvgFreq() {
    const int capacity = GetAvgCapacity(false);
    if (capacity == 0) return static_cast<int64_t>(GetCurFreq());
    if (mCapacities.empty()) return 0;
    // A negative error code, sign-extended, is above every capacity: the highest frequency.
    return ConvertCap2Freq(static_cast<uint64_t>(static_cast<int64_t>(capacity)));
}

int64_t GraxInfo::ConvertCap2Freq(uint64_t capacity) {
    return pwr::freqlevels::freqForCapacity(mFreqs, mCapacities, capacity);
}

int GraxInfo::GetLevelByCap(int64_t capacity) {
    return pwr::freqlevels::levelOf(mCapacities,
                                    capacity < 0 ? 0 : static_cast<uint64_t>(capacity));
}

int GraxInfo::GetLevelByFreq(uint64_t frequency) {
    return pwr::freqlevels::levelOf(mFreqs, frequency);
}

int64_t GraxInfo::GetFreqByLevel(int level) {
    return pwr::freqlevels::entryAt(mFreqs, level);
}

int64_t GraxInfo::GetCapByLevel(int level) {
    return pwr::freqlevels::entryAt(mCapacities, level);
}

std::string GraxInfo::DumpVector2String() {
    return pwr::freqlevels::dumpLevels(mFreqs, mCapacities);
}

void GraxInfo::SetLimitFreqEnable(bool enable, std::string which) {
    if (which == "max") {
        mMaxLimitEnable = enable;
    } else if (which == "min") {
        mMinLimitEnable = enable;
    }
}

void GraxInfo::SetLimitFreqPerfCode(int code, std::string which) {
    if (which == "max") {
        mMaxLimitPerfCode = code;
    } else if (which == "min") {
        mMinLimitPerfCode = code;
    }
}
