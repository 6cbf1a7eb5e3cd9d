#include "feature/GpuStabilityMonitor.h"

#include <algorithm>
#include <climits>

#include "feature/FeatureCodes.h"
#include "feature/FeatureSnapshot.h"
#include "feature/LogSites.h"
#include "platform/GraxInfo.h"

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

}  // namespace

bool GpuStabilityMonitor::createTimer(void (*callback)(void*), void* argument) {
    if (!mGameTimerStruct) mGameTimerStruct = pwr::TimerHandle(callback, argument);
    return static_cast<bool>(mGameTimerStruct);
}

void GpuStabilityMonitor::initGpuSamples() {
    pwr::MutexLock sampleLock(mGpuSampleMutex);
    mGpuCheckingStability = true;
    mGpuEvaluating = false;
    mGpuStableCount = 0;
    mGpuProfileLevel = 0;
    mGpuSamples.clear();
    pwr::MutexLock stateLock(mModeState.mStateMutex);
    mModeState.setGameStateLocked(pwr::codes::kGameStateNone);
}

bool GpuStabilityMonitor::sample(GPUSample* out) {
    uint64_t freqHz = 0;
    int busy = 0;
    {
        pwr::MutexLock readLock(gGpuReadMutex);
        const int capacity = mGraxInfo->GetAvgCapacity(false);
        if (capacity != 0) {
            if (mGraxInfo->capacities().empty()) return false;
            // A negative error code, sign-extended, is above every capacity: the top frequency.
            freqHz = static_cast<uint64_t>(mGraxInfo->ConvertCap2Freq(
                    static_cast<uint64_t>(static_cast<int64_t>(capacity))));
        } else {
            freqHz = mGraxInfo->GetCurFreq();
        }
        if (freqHz == 0) return false;
        // Error codes are non-zero and pass as samples; only 0 means "no information".
        busy = mGraxInfo->GetAvgUtil();
        if (busy == 0) return false;
    }
    *out = GPUSample{freqHz / kHzPerMHz, static_cast<int64_t>(busy)};
    return true;
}

void GpuStabilityMonitor::tick() {
    if (mSettings.mGpuMode == 0) return;
    GPUSample sample{};
    if (!this->sample(&sample)) return;
    // %d reads an int: 64-bit arguments would be undefined (and misprint on 32-bit ARM).
    PWR_LOG_AT(pwr::site::kMeasured, static_cast<int>(sample.freq), static_cast<int>(sample.busy));

    {
        pwr::MutexLock lock(mGpuSampleMutex);
        mGpuSamples.push_back(sample);
        if (static_cast<int64_t>(mGpuSamples.size()) > mSettings.mGpuSampleCount) {
            mGpuSamples.erase(mGpuSamples.begin());
        }
    }

    if (mGpuCheckingStability) {
        if (!isGpuStable(samplesForStabilityCheck())) {
            mGpuStableCount = 0;
            return;
        }
        if (++mGpuStableCount < mSettings.mStabilitySampleCount) return;
        mGpuCheckingStability = false;
        mGpuEvaluating = true;
        PWR_LOG_AT(pwr::site::kGpuStableStartEvaluating);
        return;
    }
    if (!mGpuEvaluating) return;

    uint64_t sum = 0;
    size_t count = 0;
    {
        pwr::MutexLock lock(mGpuSampleMutex);
        count = mGpuSamples.size();
        // An empty list (a sample count of 0 or less keeps none) has nothing to average.
        if (count == 0 || static_cast<int64_t>(count) < mSettings.mGpuSampleCount) return;
        for (const GPUSample& s : mGpuSamples) sum += s.freq;
    }
    applyGpuProfile(sum / count);
}

bool GpuStabilityMonitor::isGpuStable(std::vector<GPUSample>& samples) {
    pwr::MutexLock lock(mGpuSampleMutex);
    if (mSettings.mGpuSampleCount > static_cast<int64_t>(samples.size())) return false;
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
    mLastBusyRange = range;
    if (range > mSettings.mGpuBusyStabilityThreshold) {
        PWR_LOG_AT(pwr::site::kGpuNotStable, range);
        return false;
    }
    PWR_LOG_AT(pwr::site::kGpuStable, range);
    return true;
}

void GpuStabilityMonitor::applyGpuProfile(unsigned long long avgFreqMhz) {
    // %d reads an int: a 64-bit argument would be undefined (and misprint on 32-bit ARM).
    PWR_LOG_AT(pwr::site::kAveragedFreq, static_cast<int>(avgFreqMhz));
    int decision;
    if (avgFreqMhz < static_cast<uint64_t>(static_cast<int64_t>(mSettings.mGpuFreqThresholdLow))) {
        // "Remaining power profile." in both outer cases is the established wording.
        PWR_LOG_AT(pwr::site::kGpuUnderutilized);
        decision = kDecisionLow;
    } else if (avgFreqMhz <=
               static_cast<uint64_t>(static_cast<int64_t>(mSettings.mGpuFreqThresholdHigh))) {
        PWR_LOG_AT(pwr::site::kGpuModerate);
        decision = kDecisionModerate;
    } else {
        PWR_LOG_AT(pwr::site::kGpuVeryHigh);
        decision = kDecisionHigh;
    }

    pwr::MutexLock lock(mGpuSampleMutex);
    mLastAverageMhz = static_cast<int64_t>(std::min<unsigned long long>(avgFreqMhz, INT64_MAX));
    mLastDecision = decision;
    if (decision == mGpuProfileLevel) {
        gGpuProfileChangeCount = 0;
        return;
    }
    // Any three differing decisions in a row switch, to the latest of them.
    if (gGpuProfileChangeCount++ < kChangesBeforeSwitch - 1) return;
    mGpuProfileLevel = decision;
    gGpuProfileChangeCount = 0;
    PWR_LOG_AT(pwr::site::kReadyToChangeProfile);
    {
        pwr::MutexLock profileLock(mProfileLock.profileMutex);
        mProfileLock.releaseLocked();
    }
    if (static_cast<size_t>(mGpuProfileLevel) >= mSettings.mDynamicGpuProfiles.size()) {
        // Fewer than three "DYN_" profiles were configured.
        PWR_LOG_AT(pwr::site::kNoDynamicProfileForLevel, mGpuProfileLevel);
        return;
    }
    ProfileLock::logApplyAttempt();
    pwr::MutexLock profileLock(mProfileLock.profileMutex);
    mProfileLock.applyLocked(mSettings.mDynamicGpuProfiles[mGpuProfileLevel]);
}

std::vector<GPUSample> GpuStabilityMonitor::samples() {
    pwr::MutexLock lock(mGpuSampleMutex);
    return mGpuSamples;
}

void GpuStabilityMonitor::setSamples(std::vector<GPUSample> samples) {
    pwr::MutexLock lock(mGpuSampleMutex);
    mGpuSamples = std::move(samples);
}

void GpuStabilityMonitor::setProfileLevel(int level) {
    pwr::MutexLock lock(mGpuSampleMutex);
    mGpuProfileLevel = level;
}

void GpuStabilityMonitor::setPhase(bool checkingStability, bool evaluating) {
    mGpuCheckingStability = checkingStability;
    mGpuEvaluating = evaluating;
}

void GpuStabilityMonitor::fillSnapshot(PSMFeatureSnapshot* out) {
    {
        pwr::MutexLock lock(mGpuSampleMutex);
        out->gpuProfileLevel = mGpuProfileLevel;
        out->gpuProfileChangeCount = gGpuProfileChangeCount;
        out->gpuSamples = static_cast<int32_t>(mGpuSamples.size());
        out->lastBusyRange = mLastBusyRange;
        out->lastAveragedFreqMhz = mLastAverageMhz;
        out->lastDecision = mLastDecision;
    }
    out->gpuPhase = mGpuCheckingStability ? PSM_GPU_PHASE_CHECKING
                    : mGpuEvaluating      ? PSM_GPU_PHASE_EVALUATING
                                          : PSM_GPU_PHASE_IDLE;
    out->gpuStableCount = mGpuStableCount;
    out->gameTimerExists = mGameTimerStruct ? 1 : 0;
    out->gameTimerArmed = Timer().Timer_isActive(mGameTimerStruct.get()) ? 1 : 0;
}
