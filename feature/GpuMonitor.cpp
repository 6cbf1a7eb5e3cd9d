// GPU stability monitor. Placeholder until the GPU readers land: the game timer exists and can be
// armed, but its ticks sample nothing.

#include "feature/PSMPowerOptFeature.h"

#include "platform/Log.h"

using pwr::kModFeature;

bool PSMPowerOptFeature::initGpuMonitor(PowerOptFeatureInfo& /*info*/) {
    if (mGameTimerStruct == nullptr) {
        mGameTimerStruct = Timer().Timer_create(&PSMPowerOptFeature::gametimerCallBack, this);
        if (mGameTimerStruct == nullptr) {
            PWR_LOG(kModFeature, "initGpuMonitor", 123, "mGameTimerStruct is nullptr !!");
            return false;
        }
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
    pwr::MutexLock stateLock(mStateMutex);
    mGameState = 0;
}

void PSMPowerOptFeature::gametimerCallBack(void* /*feature*/) {}

bool PSMPowerOptFeature::isGpuStable(std::vector<GPUSample>& /*samples*/) {
    return false;
}

void PSMPowerOptFeature::applyGpuProfile(unsigned long long /*avgFreqMhz*/) {}
