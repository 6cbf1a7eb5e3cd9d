#pragma once

// Test access to the feature's parts. Each concern's state is reached through its part (or the
// snapshot the tools read); the peer itself holds only what belongs to the feature core.

#include <string>
#include <vector>

#include "feature/FeatureSnapshot.h"
#include "feature/PSMPowerOptFeature.h"

class PSMPowerOptFeatureTestPeer {
  public:
    explicit PSMPowerOptFeatureTestPeer(PSMPowerOptFeature& feature) : f(feature) {}

    PSMFeatureSnapshot snapshot() const {
        PSMFeatureSnapshot s;
        f.snapshot(&s);
        return s;
    }
    const FeatureSettings& settings() const { return f.mSettings; }
    ProfileLock& profileLock() { return f.mProfileLock; }
    StateStore& store() { return f.mStateStore; }
    GpuStabilityMonitor& gpu() { return f.mGpuMonitor; }
    BatteryMonitor& battery() { return f.mBatteryMonitor; }
    DeepMode& deep() { return f.mDeepMode; }

    bool ready() const { return f.mReady; }
    bool debugEnabled() const { return f.debugEnabled; }
    void setDebugEnabled(bool on) { f.debugEnabled = on; }
    int psmMode() { return f.mModeState.psmMode(); }
    int gameState() { return f.mModeState.gameState(); }
    int psmAppType() const { return f.mPsmAppType; }
    int ignoredIndex() const { return f.mIgnoredIndex; }
    std::vector<std::string>& ignoredApps() { return f.mIgnoredApps; }

    // Upper and lower thresholds of the game, browser and video pairs, in that order.
    std::vector<int> scalingThresholds() const {
        const FeatureSettings& s = f.mSettings;
        return {s.mGameScalingUp,      s.mGameScalingDown, s.mBrowserScalingUp,
                s.mBrowserScalingDown, s.mVideoScalingUp,  s.mVideoScalingDown};
    }

  private:
    PSMPowerOptFeature& f;
};
