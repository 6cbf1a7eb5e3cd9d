#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "feature/FeatureSettings.h"
#include "feature/ProfileLock.h"
#include "feature/PropertyApplier.h"
#include "feature/StateStore.h"
#include "platform/Mutex.h"
#include "platform/Timer.h"

struct PSMFeatureSnapshot;

// Deep mode, the strongest power-saving step, and the low-power entry that arms it: a 1.5 s
// timer takes the deep profile's lock and, once it is held, stops itself and applies the
// configured properties; leaving puts the properties back.
//
// The deep timer is replaced by low-power entry on the event thread while its callback may run on
// a timer thread: the callback reads it under mDeepTimerMutex, and the replacement takes the old
// timer out under that mutex, then deletes it and waits for a callback still running with the
// mutex released (the callback takes it), so no callback ever reaches a freed record.
class DeepMode {
  public:
    DeepMode(const FeatureSettings& settings, ProfileLock& profileLock, PropertyApplier& properties,
             StateStore& store, const bool& debugEnabled)
        : mSettings(settings),
          mProfileLock(profileLock),
          mProperties(properties),
          mStore(store),
          mDebugEnabled(debugEnabled) {}
    DeepMode(const DeepMode&) = delete;
    DeepMode& operator=(const DeepMode&) = delete;

    // Deep mode's set-up after its settings were read: the profile list, the property list from
    // every configured entry except "PSM", the ignore list, and the state store. False (after its
    // message) when a list comes out empty.
    bool configure(PowerOptFeatureInfo& info, std::vector<std::string>& ignoredApps);

    // Low-power entry: reconciles the deep-mode switch recorded under "PSM" at the last entry
    // with the configured one, putting back the properties or arming a new deep timer (whose
    // expiries call callback(argument)), and records the switch.
    void lowPowerInit(void (*callback)(void*), void* argument) EXCLUDES(mDeepTimerMutex);
    // Deep timer tick: takes the deep profile and, once it is held, stops the timer and applies
    // the properties.
    void onTimer() EXCLUDES(mDeepTimerMutex);
    // Leaves deep mode and puts the properties back.
    void resetDeepMode();
    // Disarms a deep timer still retrying; a callback already running is not waited for.
    void disarmTimer() EXCLUDES(mDeepTimerMutex);
    // Deletes the deep timer and waits for a callback still running.
    void releaseTimer() EXCLUDES(mDeepTimerMutex);

    bool applied() const { return mDeepModeState == kDeepModeApplied; }
    int state() const { return mDeepModeState; }
    int propResult() const { return mPropResult; }
    void setPropResult(int result) { mPropResult = result; }
    const std::vector<Profile>& profileList() const { return mProfileList; }
    const std::vector<std::string>& propList() const { return mPropList; }
    // Both deep-timer members, which low-power entry sets alike.
    std::pair<Timer_s*, Timer_s*> timers() EXCLUDES(mDeepTimerMutex);
    // Stands a timer in as the deep timer, as low-power entry would have created it.
    void adoptTimer(pwr::TimerHandle timer) EXCLUDES(mDeepTimerMutex);
    void fillSnapshot(PSMFeatureSnapshot* out) EXCLUDES(mDeepTimerMutex);

    static constexpr int kDeepModeApplied = 3;

  private:
    // Takes the deep timer out, for deletion with the mutex released.
    pwr::TimerHandle takeTimer() EXCLUDES(mDeepTimerMutex);

    const FeatureSettings& mSettings;
    ProfileLock& mProfileLock;
    PropertyApplier& mProperties;
    StateStore& mStore;
    const bool& mDebugEnabled;

    // Configuration, set while the feature is built and read-only afterwards.
    std::vector<Profile> mProfileList;
    std::vector<std::string> mPropList;
    // Written by the deep timer's thread, read by the event thread.
    std::atomic<int> mDeepModeState{0};  // 0 off, kDeepModeApplied once the properties are set
    std::atomic<int> mPropResult{0};

    // Taken before timerMutex (the Timer operations take it).
    pwr::Mutex mDeepTimerMutex;
    pwr::TimerHandle mDeepTimerStruct GUARDED_BY(mDeepTimerMutex);
    // The second member low-power entry stores the new record in; never owns it.
    Timer_s* mDeepTimerStructCopy GUARDED_BY(mDeepTimerMutex) = nullptr;
};
