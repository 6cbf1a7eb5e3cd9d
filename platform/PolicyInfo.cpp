#include "platform/PolicyInfo.h"

#include <errno.h>
#include <inttypes.h>

#include <algorithm>
#include <cstdio>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "platform/DevicePath.h"
#include "platform/FreqLevels.h"
#include "platform/NumberReader.h"

using android::base::StringPrintf;

namespace {

constexpr char kCpuDir[] = "/sys/devices/system/cpu";
constexpr char kProcStat[] = "/proc/stat";

// new - old, or 0 for a counter that went backwards.
uint64_t forwardDelta(uint64_t current, uint64_t previous) {
    return current >= previous ? current - previous : 0;
}

}  // namespace

PolicyInfo::PolicyInfo(const std::string& policyName) : mPolicyName(policyName) {
    if (InitFreqs() < 0) return;
    if (InitCpus() < 0) return;
    if (InitTimeInState() < 0) return;
    InitCapacity();
}

std::string PolicyInfo::policyNode(const char* name) const {
    return pwr::devicePath(StringPrintf("%s/cpufreq/%s/%s", kCpuDir, mPolicyName.c_str(), name));
}

int PolicyInfo::InitFreqs() {
    const auto values = readNumbersFromFile(pwr::devicePath(StringPrintf(
            "%s/cpufreq/%s/scaling_available_frequencies", kCpuDir, mPolicyName.c_str())));
    if (!values) return -EIO;
    mFreqs.insert(mFreqs.end(), values->begin(), values->end());
    if (mFreqs.empty()) return -EINVAL;
    std::sort(mFreqs.begin(), mFreqs.end());
    return 0;
}

int PolicyInfo::InitCpus() {
    const auto values = readNumbersFromFile(policyNode("related_cpus"));
    if (!values) return -EIO;
    mCpus.insert(mCpus.end(), values->begin(), values->end());
    std::sort(mCpus.begin(), mCpus.end());
    if (mCpus.empty()) return -EINVAL;
    mCpuStats.resize(mCpuStats.size() + values->size());
    return 0;
}

int PolicyInfo::readTimeInState(std::vector<std::pair<uint64_t, uint64_t>>& pairs) {
    const auto values = readNumbersFromFile(pwr::devicePath(
            StringPrintf("%s/cpufreq/%s/stats/%s", kCpuDir, mPolicyName.c_str(), "time_in_state")));
    if (!values) return -EIO;
    const size_t n = values->size();
    if (n < 2) return -EINVAL;
    // "<frequency> <time>" per line; a lone trailing number has no pair and is ignored.
    for (size_t i = 0; i + 1 < n; i += 2) pairs.emplace_back((*values)[i], (*values)[i + 1]);
    return 0;
}

int PolicyInfo::InitTimeInState() {
    std::vector<std::pair<uint64_t, uint64_t>> pairs;
    const int result = readTimeInState(pairs);
    if (result < 0) return result;
    for (const auto& [freq, time] : pairs) {
        mTimeInState[freq] = time;
        mLastTimeInState[freq] = time;
    }
    return 0;
}

int PolicyInfo::InitCapacity() {
    if (mCpus.empty()) return -EINVAL;
    const auto values = readNumbersFromFile(pwr::devicePath(
            StringPrintf("%s/cpu%d/%s", kCpuDir, static_cast<int>(mCpus.front()), "cpu_capacity")));
    if (!values || values->empty()) return -EIO;
    if (mFreqs.empty()) return 0;
    const uint64_t cpuCapacity = values->front();
    const uint64_t max = mFreqs.back();
    for (const uint64_t f : mFreqs) {
        // An all-zero table has no scale; its levels get capacity 0 instead of a division by 0.
        mCapacityMap[f] = max == 0 ? 0 : (f * cpuCapacity) / max;
        mCapacities.push_back(mCapacityMap[f]);
    }
    return 0;
}

int PolicyInfo::IsCpuInPolicy(unsigned int cpu) {
    for (size_t i = 0; i < mCpus.size(); ++i) {
        if (mCpus[i] == cpu) return static_cast<int>(i);
    }
    return -1;
}

std::vector<std::string> PolicyInfo::ReadProcStats() {
    std::string text;
    if (!android::base::ReadFileToString(pwr::devicePath(kProcStat), &text)) return {};
    return android::base::Split(text, "\n");
}

int PolicyInfo::GetAvgUtil() {
    return GetAvgUtil(ReadProcStats());
}

int PolicyInfo::GetAvgUtil(std::vector<std::string> lines) {
    uint64_t sum = 0;
    uint64_t count = 0;
    for (const std::string& line : lines) {
        if (line.empty() || android::base::StartsWith(line, "cpu ") ||
            !android::base::StartsWith(line, "cpu")) {
            continue;
        }
        unsigned int cpu = 0;
        CpuStats now;
        const int fields = sscanf(line.c_str(),
                                  "cpu%u %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64
                                  " %" SCNu64 " %" SCNu64,
                                  &cpu, &now.user, &now.nice, &now.system, &now.idle, &now.iowait,
                                  &now.irq, &now.softirq);
        if (fields != 8) continue;
        const int index = IsCpuInPolicy(cpu);
        if (index < 0) continue;

        CpuStats& before = mCpuStats[static_cast<size_t>(index)];
        const uint64_t busy =
                forwardDelta(now.user, before.user) + forwardDelta(now.nice, before.nice) +
                forwardDelta(now.system, before.system) + forwardDelta(now.irq, before.irq) +
                forwardDelta(now.softirq, before.softirq);
        const uint64_t total = busy + forwardDelta(now.idle, before.idle) +
                               forwardDelta(now.iowait, before.iowait);
        before = now;
        sum += busy == 0 ? 0 : busy * 100 / total;
        ++count;
    }
    return count == 0 ? 0 : static_cast<int>(sum / count);
}

int PolicyInfo::GetAvgCapacity(bool cached) {
    if (cached) return mAvgCapacity;
    std::vector<std::pair<uint64_t, uint64_t>> pairs;
    const int result = readTimeInState(pairs);
    if (result < 0) return result;

    uint64_t total = 0;
    uint64_t weighted = 0;
    for (const auto& [freq, time] : pairs) {
        uint64_t& previous = mTimeInState[freq];
        uint64_t delta = pwr::freqlevels::counterDelta(time, previous);
        previous = time;
        const uint64_t capacity = mCapacityMap[freq];
        delta = std::min(delta, mMaxTimeDelta);
        total += delta;
        weighted += capacity * delta;
    }
    mAvgCapacity = total == 0 ? 0 : static_cast<int>(weighted / total);
    return mAvgCapacity;
}

int PolicyInfo::GetMaxCapacity() {
    return mCapacities.empty() ? 0 : static_cast<int>(mCapacities.back());
}

uint64_t PolicyInfo::GetCurFreq() {
    const auto values = readNumbersFromFile(policyNode("scaling_cur_freq"));
    if (!values) return static_cast<uint64_t>(-EIO);
    if (values->empty()) return static_cast<uint64_t>(-EINVAL);
    return values->front();
}

int64_t PolicyInfo::GetAvgFreq() {
    const int capacity = GetAvgCapacity(false);
    if (capacity == 0) return static_cast<int64_t>(GetCurFreq());
    if (mCapacities.empty()) return 0;
    return ConvertCap2Freq(static_cast<uint64_t>(static_cast<int64_t>(capacity)));
}

double PolicyInfo::GetTimeInState() {
    std::vector<std::pair<uint64_t, uint64_t>> pairs;
    const int result = readTimeInState(pairs);
    if (result < 0) return static_cast<double>(result);

    mTimeInStateDelta.clear();
    double totalTime = 0;
    double weightedFreq = 0;
    for (const auto& [freq, time] : pairs) {
        uint64_t& previous = mLastTimeInState[freq];
        const uint64_t delta = pwr::freqlevels::counterDelta(time, previous);
        previous = time;
        mTimeInStateDelta[freq] = delta;
        totalTime += static_cast<double>(delta);
        weightedFreq += static_cast<double>(freq) * static_cast<double>(delta);
    }
    return totalTime == 0 ? 0.0 : weightedFreq / totalTime;
}

int64_t PolicyInfo::ConvertCap2Freq(uint64_t capacity) {
    return pwr::freqlevels::freqForCapacity(mFreqs, mCapacities, capacity);
}

int PolicyInfo::GetLevelByCap(int64_t capacity) {
    return pwr::freqlevels::levelOf(mCapacities,
                                    capacity < 0 ? 0 : static_cast<uint64_t>(capacity));
}

int PolicyInfo::GetLevelByFreq(uint64_t frequency) {
    return pwr::freqlevels::levelOf(mFreqs, frequency);
}

int64_t PolicyInfo::GetFreqByLevel(int level) {
    return pwr::freqlevels::entryAt(mFreqs, level);
}

int64_t PolicyInfo::GetCapByLevel(int level) {
    return pwr::freqlevels::entryAt(mCapacities, level);
}

std::string PolicyInfo::DumpVector2String() {
    return pwr::freqlevels::dumpLevels(mFreqs, mCapacities);
}

void PolicyInfo::SetLimitFreqEnable(bool enable, std::string which) {
    if (which == "max") {
        mMaxLimitEnable = enable;
    } else if (which == "min") {
        mMinLimitEnable = enable;
    }
}

void PolicyInfo::SetLimitFreqPerfCode(int code, std::string which) {
    if (which == "max") {
        mMaxLimitPerfCode = code;
    } else if (which == "min") {
        mMinLimitPerfCode = code;
    }
}
