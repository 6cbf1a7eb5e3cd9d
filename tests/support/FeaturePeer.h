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
    Timer_s* gameTimer() const { return f.mGameTimerStruct; }
    Timer_s* batteryTimer() const { return f.mBatteryTimerStruct; }
    Timer_s* deepTimer() const { return f.mDeepTimerStruct.load(); }
    int gameTimerMs() const { return f.mGameTimerMs; }
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

  private:
    PSMPowerOptFeature& f;
};
