#include "feature/PSMPowerOptFeature.h"

#include <climits>
#include <stdexcept>

#include "platform/GraxInfo.h"
#include "platform/Log.h"
#include "platform/PowerHelper.h"
#include "platform/PowerOptClassifier.h"
#include "pmdb/PMDatabase.h"
#include "pmdb/PSMReferenceOutput.h"

using pwr::kModFeature;

namespace {

// std::stod truncated toward zero. A value that no int can hold (beyond the int range, infinite
// or not a number) is refused the way std::stoi refuses one, with std::out_of_range, instead of
// being converted with undefined behaviour.
int truncatedInt(const std::string& text) {
    const double value = std::stod(text);
    if (!(value > static_cast<double>(INT_MIN) - 1.0 &&
          value < static_cast<double>(INT_MAX) + 1.0)) {
        throw std::out_of_range("stod: \"" + text + "\" does not fit an int");
    }
    return static_cast<int>(value);
}

}  // namespace

FeatureInstance<PSMPowerOptFeature> PSMPowerOptFeature::featureInstance(
        PSMPowerOptFeature::kFeatureName);

PSMPowerOptFeature::PSMPowerOptFeature(PowerOptFeatureInfo info) : PowerOptFeature(info) {
    mGraxInfo = GraxInfo::getInstance();
    powerHelper = std::make_unique<PowerHelper>();

    mPowerOptClassifier = PowerOptClassifier::Create();
    if (mPowerOptClassifier == nullptr) {
        PWR_LOG(kModFeature, "PSMPowerOptFeature", 62, "mPowerOptClassifier is nullptr !!");
        return;
    }
    debugEnabled = powerHelper->debugEnabled != 0;

    if (!initAnalyzeConfigs(info)) {
        PWR_LOG(kModFeature, "PSMPowerOptFeature", 70, "Missing feature configs, return !!");
        return;
    }
    {
        pwr::MutexLock lock(mStateMutex);
        mPsmMode = mPsmState;
    }
    PWR_LOG(kModFeature, "PSMPowerOptFeature", 75, "Constructor %s", kFeatureName);
    mReady = true;
}

bool PSMPowerOptFeature::initAnalyzeConfigs(PowerOptFeatureInfo& info) {
    auto psmState = info.configs.find("PSM_STATE");
    if (psmState == info.configs.end()) {
        PWR_LOG(kModFeature, "initAnalyzeConfigs", 84, "miss PSM_STATE");
        return false;
    }
    mPsmState = truncatedInt(psmState->second);

    // operator[] on purpose: an absent profile is entered as empty, as the host's own lookups do.
    mLightModeProfile = info.profiles["PROFILE_LIGHT_MODE"];
    if (mLightModeProfile.empty()) {
        PWR_LOG(kModFeature, "initAnalyzeConfigs", 90, "No  Default Profile specified\n");
        return false;
    }

    auto deepMode = info.configs.find("DEEP_MODE");
    if (deepMode == info.configs.end()) return false;
    mDeepMode = std::stoi(deepMode->second);
    if (mDeepMode != 0 && !initDeepMode(info)) return false;

    auto gpuMode = info.configs.find("GPUMode");
    if (gpuMode == info.configs.end()) {
        PWR_LOG(kModFeature, "initAnalyzeConfigs", 107, "miss GPUMode");
        return false;
    }
    mGpuMode = std::stoi(gpuMode->second);
    if (mGpuMode == 0) return true;
    return initGpuMonitor(info);
}

PSMPowerOptFeature::~PSMPowerOptFeature() {
    PWR_LOG(kModFeature, "~PSMPowerOptFeature", 292, "Destructor %s", kFeatureName);
    Timer timer;
    timer.Timer_destroy(mDeepTimerStruct.load());
    timer.Timer_destroy(mGameTimerStruct);
    timer.Timer_destroy(mBatteryTimerStruct);
    // The helper goes before the remaining members; the database flushes its cache as it closes.
    powerHelper.reset();
}
