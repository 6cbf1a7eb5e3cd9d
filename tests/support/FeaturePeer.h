#pragma once

// Test access to the feature's private state. Suites add accessors here as they need them.

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
    Timer_s* gameTimer() const { return f.mGameTimerStruct; }
    Timer_s* batteryTimer() const { return f.mBatteryTimerStruct; }
    Timer_s* deepTimer() const { return f.mDeepTimerStruct.load(); }
    int gameTimerMs() const { return f.mGameTimerMs; }
    void setGameTimerMs(int ms) { f.mGameTimerMs = ms; }
    // Low-power entry creates the deep timer; tests stand one in.
    void setDeepTimer(Timer_s* timer) {
        f.mDeepTimerStruct = timer;
        f.mDeepTimerStructCopy = timer;
    }

  private:
    PSMPowerOptFeature& f;
};
