#include "feature/PSMPowerOptFeature.h"

#include "feature/FeatureSnapshot.h"
#include "feature/LogSites.h"
#include "platform/GraxInfo.h"
#include "platform/PowerHelper.h"
#include "platform/PowerOptClassifier.h"

namespace settings = pwr::settings;

FeatureInstance<PSMPowerOptFeature> PSMPowerOptFeature::featureInstance(
        PSMPowerOptFeature::kFeatureName);

PSMPowerOptFeature::PSMPowerOptFeature(PowerOptFeatureInfo info)
    : PowerOptFeature(info),
      mGpuMonitor(mSettings, mProfileLock, mModeState, GraxInfo::getInstance()) {
    powerHelper = std::make_unique<PowerHelper>();

    mPowerOptClassifier = PowerOptClassifier::Create();
    if (mPowerOptClassifier == nullptr) {
        PWR_LOG_AT(pwr::site::kClassifierMissing);
        return;
    }
    debugEnabled = powerHelper->debugEnabled != 0;

    // An unparsable number throws out of here; the parts' timers go with the parts.
    if (!initAnalyzeConfigs(info)) {
        PWR_LOG_AT(pwr::site::kMissingConfigs);
        return;
    }
    mModeState.setPsmMode(mSettings.mPsmState);
    PWR_LOG_AT(pwr::site::kConstructor, kFeatureName);
    mReady = true;
}

bool PSMPowerOptFeature::initAnalyzeConfigs(PowerOptFeatureInfo& info) {
    for (const settings::Key& key : settings::kKeys) {
        if (key.group != settings::Group::Core) continue;
        if (!settings::read(key, info, mSettings)) return false;
        // A switch turns its part's set-up on right where it stands.
        if (key.enables == settings::Group::DeepMode && mSettings.mDeepMode != 0 &&
            !initDeepMode(info)) {
            return false;
        }
        if (key.enables == settings::Group::GpuMonitor && mSettings.mGpuMode != 0 &&
            !initGpuMonitor(info)) {
            return false;
        }
    }
    return true;
}

PSMPowerOptFeature::~PSMPowerOptFeature() {
    PWR_LOG_AT(pwr::site::kDestructor, kFeatureName);
    mDeepMode.releaseTimer();
    mGpuMonitor.releaseTimer();
    mBatteryMonitor.releaseTimer();
    // The helper goes before the remaining members; the database flushes its cache as it closes.
    powerHelper.reset();
}

bool PSMPowerOptFeature::initGpuMonitor(PowerOptFeatureInfo& info) {
    if (!mGpuMonitor.createTimer(&PSMPowerOptFeature::gametimerCallBack, this)) {
        PWR_LOG_AT(pwr::site::kGameTimerMissing);
        return false;
    }
    return settings::readGroup(settings::Group::GpuMonitor, info, mSettings);
}

bool PSMPowerOptFeature::initDeepMode(PowerOptFeatureInfo& info) {
    if (!mBatteryMonitor.createTimer(&PSMPowerOptFeature::batterytimerCallBack, this)) {
        PWR_LOG_AT(pwr::site::kBatteryTimerMissing);
        return false;
    }
    return settings::readGroup(settings::Group::DeepMode, info, mSettings) &&
           mDeepMode.configure(info, mIgnoredApps);
}

// --- Timer callbacks: the argument is the feature, which outlives every callback of its timers.

void PSMPowerOptFeature::gametimerCallBack(void* feature) {
    if (feature == nullptr) return;
    static_cast<PSMPowerOptFeature*>(feature)->mGpuMonitor.tick();
}

void PSMPowerOptFeature::batterytimerCallBack(void* feature) {
    if (feature == nullptr) return;
    static_cast<PSMPowerOptFeature*>(feature)->mBatteryMonitor.tick();
}

void PSMPowerOptFeature::deeptimerCallBack(void* feature) {
    if (feature == nullptr) return;
    static_cast<PSMPowerOptFeature*>(feature)->mDeepMode.onTimer();
}

// --- Operations that the parts carry out.

int PSMPowerOptFeature::applyProfile(int* list, int count, int duration) {
    return mProfileLock.applyProfile(list, count, duration);
}
void PSMPowerOptFeature::releaseProfile(int handle) {
    mProfileLock.releaseProfile(handle);
}
int PSMPowerOptFeature::readAndApplyProfile(Profile& profile, int duration) {
    return mProfileLock.readAndApplyProfile(profile, duration);
}
void PSMPowerOptFeature::applyProfileLock(Profile& profile) {
    mProfileLock.applyProfileLock(profile);
}
void PSMPowerOptFeature::releaseProfileLock() {
    mProfileLock.releaseProfileLock();
}

void PSMPowerOptFeature::ConvertToStringArray(const char* text, std::vector<std::string>& out) {
    mProperties.ConvertToStringArray(text, out);
}
int PSMPowerOptFeature::applyProp(std::string* list, int count, int /*duration*/) {
    return mProperties.applyProp(list, count);
}
int PSMPowerOptFeature::readAndApplyProp(std::vector<std::string> list, int /*duration*/) {
    return mProperties.readAndApplyProp(list);
}
void PSMPowerOptFeature::releaseProp(std::vector<std::string> list) {
    mProperties.releaseProp(list);
}

bool PSMPowerOptFeature::getTopTask() {
    return mBatteryMonitor.getTopTask();
}
void PSMPowerOptFeature::updateTaskloadboost(std::string pid, int maxNumTask, int value) {
    mBatteryMonitor.updateTaskloadboost(pid, maxNumTask, value);
}
void PSMPowerOptFeature::getBatteryStatus() {
    mBatteryMonitor.getBatteryStatus();
}
void PSMPowerOptFeature::ResetBattery() {
    mBatteryMonitor.ResetBattery();
}

void PSMPowerOptFeature::initGpuSamples() {
    mGpuMonitor.initGpuSamples();
}
bool PSMPowerOptFeature::isGpuStable(std::vector<GPUSample>& samples) {
    return mGpuMonitor.isGpuStable(samples);
}
void PSMPowerOptFeature::applyGpuProfile(unsigned long long avgFreqMhz) {
    mGpuMonitor.applyGpuProfile(avgFreqMhz);
}

void PSMPowerOptFeature::pmDbInit() {
    mStateStore.pmDbInit();
}
void PSMPowerOptFeature::pmDbWrite(std::string key, char value) {
    mStateStore.pmDbWrite(key, value);
}
char PSMPowerOptFeature::pmDbRead(std::string key) {
    return mStateStore.pmDbRead(key);
}

void PSMPowerOptFeature::lowPowerInit() {
    mDeepMode.lowPowerInit(&PSMPowerOptFeature::deeptimerCallBack, this);
}
void PSMPowerOptFeature::resetDeepMode() {
    mDeepMode.resetDeepMode();
}

// --- Snapshot for tools.

void PSMPowerOptFeature::snapshot(PSMFeatureSnapshot* out) const {
    *out = PSMFeatureSnapshot{};
    out->version = PSM_FEATURE_SNAPSHOT_VERSION;
    out->size = sizeof(PSMFeatureSnapshot);
    out->ready = mReady ? 1 : 0;
    out->psmState = mSettings.mPsmState;
    out->psmMode = mModeState.psmMode();
    out->gameState = mModeState.gameState();
    out->heldProfileHandle = mProfileLock.held();
    mGpuMonitor.fillSnapshot(out);
    mBatteryMonitor.fillSnapshot(out);
    mDeepMode.fillSnapshot(out);
    out->gameTimerMs = mSettings.mGameTimerMs;
    out->gpuSampleCount = mSettings.mGpuSampleCount;
    out->stabilitySampleCount = mSettings.mStabilitySampleCount;
    out->gpuBusyStabilityThreshold = mSettings.mGpuBusyStabilityThreshold;
    out->gpuFreqThresholdLow = mSettings.mGpuFreqThresholdLow;
    out->gpuFreqThresholdHigh = mSettings.mGpuFreqThresholdHigh;
    out->maxSampleNum = mSettings.mMaxSampleNum;
    out->gameScalingUp = mSettings.mGameScalingUp;
    out->gameScalingDown = mSettings.mGameScalingDown;
    out->browserScalingUp = mSettings.mBrowserScalingUp;
    out->browserScalingDown = mSettings.mBrowserScalingDown;
    out->videoScalingUp = mSettings.mVideoScalingUp;
    out->videoScalingDown = mSettings.mVideoScalingDown;
}

extern "C" __attribute__((visibility("default"))) int pwr_psm_snapshot(
        const PowerOptFeature* feature, PSMFeatureSnapshot* out) {
    if (feature == nullptr || out == nullptr) return -1;
    const auto* psm = dynamic_cast<const PSMPowerOptFeature*>(feature);
    if (psm == nullptr) return -1;
    psm->snapshot(out);
    return 0;
}
