#pragma once

#include <set>
#include <string>
#include <vector>

#include "feature/FeatureSnapshot.h"

namespace pwr::sim {

// Says why a lock a user would expect is not taken, from what the feature's state snapshot
// reports (the GPU monitor's phase, its sample and stable counts against the configured ones,
// the last busy range against the threshold, the last decision against the level in force; the
// PSM mode and whether the battery timer runs), never by working the feature's rules out beside
// it. Also remembers which of the feature's timers ever ran, to name the input traces that were
// never read.
class Explainer {
  public:
    // `batteryInput`: the device has a battery current for the feature to read.
    explicit Explainer(bool batteryInput) : mBatteryInput(batteryInput) {}

    // The lines for the timeline after one look at the state: one whenever the reason a lock is
    // not taken changes (each GPU reason once per game in the foreground, the level already in
    // force again whenever the level changes).
    std::vector<std::string> explain(const PSMFeatureSnapshot& state);

    // One sentence for each input trace the feature never read: the GPU's when the game timer
    // never ran, the battery's when the battery timer never ran.
    std::vector<std::string> unreadInputs(bool gpuTrace, bool batteryTrace) const;

  private:
    enum class Reason {
        None,
        Samples,
        Unstable,
        Settling,
        SameLevel,
        ModeIgnoresBattery,
        NoBatteryMonitor,
        NoEligibleApp
    };

    std::string gpuReason(const PSMFeatureSnapshot& state, Reason* reason) const;
    std::string batteryReason(const PSMFeatureSnapshot& state, Reason* reason) const;

    const bool mBatteryInput;
    std::set<Reason> mToldThisGame;
    int mToldLevel = -1;
    Reason mBattery = Reason::None;
    int mBatteryMode = -1;  // the PSM mode when mBattery was told
    bool mGameTimerRan = false;
    bool mBatteryTimerRan = false;
};

}  // namespace pwr::sim
