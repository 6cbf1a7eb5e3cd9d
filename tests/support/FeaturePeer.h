#pragma once

// Test access to the feature's private state. Suites add accessors here as they need them.

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "feature/PSMPowerOptFeature.h"

class PSMPowerOptFeatureTestPeer {
  public:
    explicit PSMPowerOptFeatureTestPeer(PSMPowerOptFeature& feature) : f(feature) {}

    bool ready() const { return f.mReady; }
    bool debugEnabled() const { return f.debugEnabled; }
    void setDebugEnabled(bool on) { f.debugEnabled = on; }
    int psmState() const { return f.mPsmState; }
    int psmMode() { return f.psmMode(); }
    int gameState() { return f.gameState(); }
    int deepMode() const { return f.mDeepMode; }
    int gpuMode() const { return f.mGpuMode; }
    int psmAppType() const { return f.mPsmAppType; }
    int ignoredIndex() const { return f.mIgnoredIndex; }
    std::vector<std::string>& ignoredApps() { return f.mIgnoredApps; }
    const Profile& lightModeProfile() const { return f.mLightModeProfile; }
    int heldProfileHandle() {
        pwr::MutexLock lock(f.profileMutex);
        return f.heldProfileHandle;
    }
    // Hands the feature a lock taken elsewhere as its held profile, as the GPU monitor's switch
    // would leave it, without the switch's own work.
    void setHeldProfileHandle(int handle) {
        pwr::MutexLock lock(f.profileMutex);
        f.heldProfileHandle = handle;
    }
    // Runs fn(heldProfileHandle) under profileMutex, so that what the performance library holds
    // can be compared with the handle without a profile switch in between.
    template <typename Fn>
    void withHeldProfileHandle(Fn&& fn) {
        pwr::MutexLock lock(f.profileMutex);
        fn(f.heldProfileHandle);
    }
    Timer_s* gameTimer() const { return f.mGameTimerStruct; }
    Timer_s* batteryTimer() const { return f.mBatteryTimerStruct; }
    Timer_s* deepTimer() const { return f.mDeepTimerStruct.load(); }
    int gameTimerMs() const { return f.mGameTimerMs; }
    // Low-power entry creates the deep timer; tests stand one in.
    void setDeepTimer(Timer_s* timer) {
        f.mDeepTimerStruct = timer;
        f.mDeepTimerStructCopy = timer;
    }
    PMDatabase<PSMReferenceOutput>* pmDatabase() const { return f.mPmDatabase.get(); }
    int pmDbStatus() const { return f.mPmDbStatus; }

    // Properties, deep mode, low-power entry.
    const std::vector<std::string>& propList() const { return f.mPropList; }
    const Profile& deepProfile() const { return f.mDeepProfile; }
    const std::vector<Profile>& profileList() const { return f.mProfileList; }
    const std::string& cpuNode() const { return f.mCpuNode; }
    const std::string& cpuPolicy() const { return f.mCpuPolicy; }
    int deepModeState() const { return f.mDeepModeState; }
    int propResult() const { return f.mPropResult; }
    void setPropResult(int result) { f.mPropResult = result; }
    Timer_s* deepTimerCopy() const { return f.mDeepTimerStructCopy.load(); }

    // Task boosts and the battery monitor.
    const Profile& taskBoostOpcodes() const { return f.taskBoostOpcodes; }
    int taskLoadBoostScale() const { return f.taskLoadBoostScale; }
    std::vector<std::string> topTaskList() {
        pwr::MutexLock lock(f.mBatteryMutex);
        return f.topTaskList;
    }
    std::map<std::string, int> taskScalingValues() {
        pwr::MutexLock lock(f.mBatteryMutex);
        return f.taskScalingValues;
    }
    std::map<std::string, int> taskBoostHandles() {
        pwr::MutexLock lock(f.mBatteryMutex);
        return f.taskBoostHandles;
    }
    std::vector<int64_t> batterySamples() {
        pwr::MutexLock lock(f.mBatteryMutex);
        return {f.mBatterySamples.begin(), f.mBatterySamples.end()};
    }
    int batterySampleCounter() {
        pwr::MutexLock lock(f.mBatteryMutex);
        return f.mBatterySampleCounter;
    }
    int boosted() {
        pwr::MutexLock lock(f.mBatteryMutex);
        return f.mBoosted;
    }
    int topTaskFlag() {
        pwr::MutexLock lock(f.mBatteryMutex);
        return f.mTopTaskFlag;
    }
    std::pair<int, int> activeThresholds() {
        pwr::MutexLock lock(f.mBatteryMutex);
        return {f.mActiveScalingUp, f.mActiveScalingDown};
    }
    int maxSampleNum() const { return f.mMaxSampleNum; }
    // Upper and lower thresholds of the game, browser and video pairs, in that order.
    std::vector<int> scalingThresholds() const {
        return {f.mGameScalingUp,      f.mGameScalingDown, f.mBrowserScalingUp,
                f.mBrowserScalingDown, f.mVideoScalingUp,  f.mVideoScalingDown};
    }

    // --- GPU stability monitor ---
    GraxInfo* graxInfo() const { return f.mGraxInfo; }
    // Points the monitor at another GraxInfo, such as one built on the test's own device tree
    // (the singleton keeps the tree of the first feature of the process). Before the game timer
    // is armed.
    void setGraxInfo(GraxInfo* info) { f.mGraxInfo = info; }
    int gpuSampleCount() const { return f.mGpuSampleCount; }
    int stabilitySampleCount() const { return f.mStabilitySampleCount; }
    int gpuBusyStabilityThreshold() const { return f.mGpuBusyStabilityThreshold; }
    int gpuFreqThresholdLow() const { return f.mGpuFreqThresholdLow; }
    int gpuFreqThresholdHigh() const { return f.mGpuFreqThresholdHigh; }
    const std::vector<Profile>& dynamicGpuProfiles() const { return f.mDynamicGpuProfiles; }
    std::vector<GPUSample> gpuSamples() {
        pwr::MutexLock lock(f.mGpuSampleMutex);
        return f.mGpuSamples;
    }
    void setGpuSamples(std::vector<GPUSample> samples) {
        pwr::MutexLock lock(f.mGpuSampleMutex);
        f.mGpuSamples = std::move(samples);
    }
    int gpuProfileLevel() {
        pwr::MutexLock lock(f.mGpuSampleMutex);
        return f.mGpuProfileLevel;
    }
    void setGpuProfileLevel(int level) {
        pwr::MutexLock lock(f.mGpuSampleMutex);
        f.mGpuProfileLevel = level;
    }
    bool gpuCheckingStability() const { return f.mGpuCheckingStability; }
    bool gpuEvaluating() const { return f.mGpuEvaluating; }
    int gpuStableCount() const { return f.mGpuStableCount; }
    void setGpuPhase(bool checkingStability, bool evaluating) {
        f.mGpuCheckingStability = checkingStability;
        f.mGpuEvaluating = evaluating;
    }

  private:
    PSMPowerOptFeature& f;
};
