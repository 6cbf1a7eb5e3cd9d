// GPU stability monitor. While a game is in the foreground the game timer samples the GPU's
// frequency and busy percentage, waits until the busy percentage has settled over a full sample
// list, then picks one of the dynamic GPU profiles from the averaged frequency, switching the
// held profile only after the decision has differed from the one in force three times in a row.
//
// Ticks run on timer threads while events run on the host's thread. mGpuSampleMutex orders the
// sample list, the profile level and the switch; it is taken before profileMutex (inside
// releaseProfileLock/applyProfileLock) and before mStateMutex, never after them. The phase flags
// and the stable count are atomics that ticks read and write outside it.

#include <algorithm>
#include <climits>
#include <map>
#include <stdexcept>

#include "feature/PSMPowerOptFeature.h"

#include "platform/GraxInfo.h"
#include "platform/Log.h"

using pwr::kModFeature;

std::atomic<int> gGpuProfileChangeCount{0};

namespace {

// Decisions index the dynamic profiles: the first in key order serves a very highly utilised
// GPU, the second a moderately utilised one, the third an underutilised one.
constexpr int kDecisionHigh = 0;
constexpr int kDecisionModerate = 1;
constexpr int kDecisionLow = 2;

// A decision must differ from the level in force this many times in a row before it switches.
constexpr int kChangesBeforeSwitch = 3;

constexpr uint64_t kHzPerMHz = 1000000;

// GraxInfo has no lock of its own and reuses its read buffers. Ticks can overlap (the C library
// may start a new thread for an expiry while the previous callback still runs) and every feature
// shares the one instance, so the reads of one tick are serialised here. Nothing else is taken
// while it is held.
pwr::Mutex gGpuReadMutex;

// A setting is decimal text, read with std::stod and truncated toward zero. A value beyond int's
// range throws like an unparsable one instead of overflowing the conversion.
int settingValue(const std::string& key, const std::string& text) {
    const double value = std::stod(text);
    if (!(value > static_cast<double>(INT_MIN) - 1.0 &&
          value < static_cast<double>(INT_MAX) + 1.0)) {
        throw std::out_of_range(key + " is out of range: " + text);
    }
    return static_cast<int>(value);
}

}  // namespace

bool PSMPowerOptFeature::initGpuMonitor(PowerOptFeatureInfo& info) {
    Timer_s* createdHere = nullptr;
    if (mGameTimerStruct == nullptr) {
        mGameTimerStruct = Timer().Timer_create(&PSMPowerOptFeature::gametimerCallBack, this);
        if (mGameTimerStruct == nullptr) {
            PWR_LOG(kModFeature, "initGpuMonitor", 123, "mGameTimerStruct is nullptr !!");
            return false;
        }
        createdHere = mGameTimerStruct;
    }

    struct Setting {
        const char* key;
        int* member;
        int line;
    };
    const Setting settings[] = {
            {"GAME_TIMER", &mGameTimerMs, 130},
            {"GPU_SAMPLE_COUNT", &mGpuSampleCount, 137},
            {"STABILITY_SAMPLE_COUNT", &mStabilitySampleCount, 144},
            {"GPU_BUSY_STABILITY_THRESHOLD", &mGpuBusyStabilityThreshold, 151},
            {"GPU_Freq_THRESHOLD_LOW", &mGpuFreqThresholdLow, 158},
            {"GPU_Freq_THRESHOLD_HIGH", &mGpuFreqThresholdHigh, 165},
    };
    for (const Setting& setting : settings) {
        const auto it = info.configs.find(setting.key);
        if (it == info.configs.end()) {
            PWR_LOG(kModFeature, "initGpuMonitor", setting.line, "miss %s", setting.key);
            return false;
        }
        try {
            *setting.member = settingValue(setting.key, it->second);
        } catch (...) {
            // The exception leaves the constructor, so the destructor will not delete the timer.
            if (createdHere != nullptr) {
                Timer().Timer_destroy(createdHere);
                mGameTimerStruct = nullptr;
            }
            throw;
        }
    }

    // The host's profile map is unordered; the dynamic profiles are taken in ascending key order.
    const std::map<std::string, Profile> ordered(info.profiles.begin(), info.profiles.end());
    for (const auto& [name, profile] : ordered) {
        if (name.find("DYN_") != std::string::npos) mDynamicGpuProfiles.push_back(profile);
    }
    if (mDynamicGpuProfiles.empty()) {
        PWR_LOG(kModFeature, "initGpuMonitor", 176, "miss Dynamic GPU profile");
        return false;
    }
    return true;
}

void PSMPowerOptFeature::initGpuSamples() {
    pwr::MutexLock sampleLock(mGpuSampleMutex);
    mGpuCheckingStability = true;
    mGpuEvaluating = false;
    mGpuStableCount = 0;
    mGpuProfileLevel = 0;
    mGpuSamples.clear();
    // Event dispatch sets the gaming state to 1 right afterwards.
    pwr::MutexLock stateLock(mStateMutex);
    mGameState = 0;
}

void PSMPowerOptFeature::gametimerCallBack(void* feature) {
    if (feature == nullptr) return;
    static_cast<PSMPowerOptFeature*>(feature)->gameTimerTick();
}

void PSMPowerOptFeature::gameTimerTick() {
    if (mGpuMode == 0) return;

    uint64_t freqHz = 0;
    int busy = 0;
    {
        pwr::MutexLock readLock(gGpuReadMutex);
        const int capacity = mGraxInfo->GetAvgCapacity(false);
        if (capacity != 0) {
            if (mGraxInfo->capacities().empty()) return;
            // A negative error code, sign-extended, is above every capacity: the top frequency.
            freqHz = static_cast<uint64_t>(mGraxInfo->ConvertCap2Freq(
                    static_cast<uint64_t>(static_cast<int64_t>(capacity))));
        } else {
            freqHz = mGraxInfo->GetCurFreq();
        }
        if (freqHz == 0) return;
        // Error codes are non-zero and pass as samples; only 0 means "no information".
        busy = mGraxInfo->GetAvgUtil();
        if (busy == 0) return;
    }

    const GPUSample sample{freqHz / kHzPerMHz, static_cast<int64_t>(busy)};
    // %d reads an int: 64-bit arguments would be undefined (and misprint on 32-bit ARM).
    PWR_LOG(kModFeature, "gametimerCallBack", 500, "Meastured freq:%d, busy:%d",
            static_cast<int>(sample.freq), static_cast<int>(sample.busy));

    {
        pwr::MutexLock lock(mGpuSampleMutex);
        mGpuSamples.push_back(sample);
        if (static_cast<int64_t>(mGpuSamples.size()) > mGpuSampleCount) {
            mGpuSamples.erase(mGpuSamples.begin());
        }
    }

    if (mGpuCheckingStability) {
        if (!isGpuStable(samplesForStabilityCheck())) {
            mGpuStableCount = 0;
            return;
        }
        if (++mGpuStableCount < mStabilitySampleCount) return;
        mGpuCheckingStability = false;
        mGpuEvaluating = true;
        PWR_LOG(kModFeature, "gametimerCallBack", 517,
                "GPU behavior is stable. Start evaluating GPU status.");
        return;
    }
    if (!mGpuEvaluating) return;

    uint64_t sum = 0;
    size_t count = 0;
    {
        pwr::MutexLock lock(mGpuSampleMutex);
        count = mGpuSamples.size();
        // An empty list (a sample count of 0 or less keeps none) has nothing to average.
        if (count == 0 || static_cast<int64_t>(count) < mGpuSampleCount) return;
        for (const GPUSample& s : mGpuSamples) sum += s.freq;
    }
    applyGpuProfile(sum / count);
}

bool PSMPowerOptFeature::isGpuStable(std::vector<GPUSample>& samples) {
    pwr::MutexLock lock(mGpuSampleMutex);
    if (mGpuSampleCount > static_cast<int64_t>(samples.size())) return false;
    int range = 0;
    if (!samples.empty()) {
        uint64_t lowest = UINT64_MAX;
        uint64_t highest = 0;
        for (const GPUSample& s : samples) {
            const uint64_t busy = static_cast<uint64_t>(s.busy);
            lowest = std::min(lowest, busy);
            highest = std::max(highest, busy);
        }
        range = static_cast<int>(highest - lowest);
    }
    if (range > mGpuBusyStabilityThreshold) {
        PWR_LOG(kModFeature, "isGpuStable", 561, "GPU is not stable yet. Busy range:%d", range);
        return false;
    }
    PWR_LOG(kModFeature, "isGpuStable", 557, "GPU is stable. Busy range:%d", range);
    return true;
}

void PSMPowerOptFeature::applyGpuProfile(unsigned long long avgFreqMhz) {
    // %d reads an int: a 64-bit argument would be undefined (and misprint on 32-bit ARM).
    PWR_LOG(kModFeature, "applyGpuProfile", 569, "Averaged freq:%d", static_cast<int>(avgFreqMhz));
    int decision;
    if (avgFreqMhz < static_cast<uint64_t>(static_cast<int64_t>(mGpuFreqThresholdLow))) {
        // "Remaining power profile." in both outer cases is the established wording.
        PWR_LOG(kModFeature, "applyGpuProfile", 575,
                "GPU is underutilized. Remaining power profile.");
        decision = kDecisionLow;
    } else if (avgFreqMhz <= static_cast<uint64_t>(static_cast<int64_t>(mGpuFreqThresholdHigh))) {
        PWR_LOG(kModFeature, "applyGpuProfile", 578,
                "GPU is moderately utilized. Applying balanced profile.");
        decision = kDecisionModerate;
    } else {
        PWR_LOG(kModFeature, "applyGpuProfile", 581,
                "GPU is very highly utilized. Remaining power profile.");
        decision = kDecisionHigh;
    }

    pwr::MutexLock lock(mGpuSampleMutex);
    if (decision == mGpuProfileLevel) {
        gGpuProfileChangeCount = 0;
        return;
    }
    // Any three differing decisions in a row switch, to the latest of them.
    if (gGpuProfileChangeCount++ < kChangesBeforeSwitch - 1) return;
    mGpuProfileLevel = decision;
    gGpuProfileChangeCount = 0;
    PWR_LOG(kModFeature, "applyGpuProfile", 593, "Ready to change the profile.");
    releaseProfileLock();
    if (static_cast<size_t>(mGpuProfileLevel) >= mDynamicGpuProfiles.size()) {
        // Fewer than three "DYN_" profiles were configured.
        PWR_LOG(kModFeature, "applyGpuProfile", 596, "No dynamic GPU profile for level %d",
                mGpuProfileLevel);
        return;
    }
    applyProfileLock(mDynamicGpuProfiles[mGpuProfileLevel]);
}
