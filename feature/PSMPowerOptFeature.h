#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "feature/BatteryMonitor.h"
#include "feature/DeepMode.h"
#include "feature/FeatureCodes.h"
#include "feature/FeatureSettings.h"
#include "feature/GpuStabilityMonitor.h"
#include "feature/PowerOptFeature.h"
#include "feature/ProfileLock.h"
#include "feature/PropertyApplier.h"
#include "feature/PsmModeState.h"
#include "feature/StateStore.h"

class PowerHelper;
class PowerOptClassifier;
struct PSMFeatureSnapshot;

// The power-saving feature. The host builds it from its configuration and delivers events to it
// one at a time on its event thread; timer threads run the game, battery and deep-mode callbacks.
//
// The feature is the front door: it reads the settings, owns one part per concern (each with its
// own state and lock) and dispatches events; the named operations below delegate to the part that
// owns the concern. Lock order: the GPU monitor's mGpuSampleMutex before the profile lock's
// profileMutex and before mStateMutex; no other lock of the feature is held while another is
// taken, except the deep timer's mutex before the timer service's.
class PSMPowerOptFeature : public PowerOptFeature {
  public:
    static constexpr const char* kFeatureName = pwr::codes::kFeatureName;

    // Enters the factory into the host's registry when the library is loaded.
    static FeatureInstance<PSMPowerOptFeature> featureInstance;

    // Reads the configuration; ends ready, or not ready (every event ignored) when a required
    // setting is missing. An unparsable number throws.
    explicit PSMPowerOptFeature(PowerOptFeatureInfo info);
    // Deletes the deep, game and battery timers in that order, waiting for a callback of each
    // that is still running, before anything the callbacks use goes.
    ~PSMPowerOptFeature() override;

    // True when every required setting was found and every enabled part set up.
    bool initAnalyzeConfigs(PowerOptFeatureInfo& info);

    // Handles one host event (app start and stop, game-off, usable power mode hint).
    void sendEvents(AsyncTriggerPayload payload) override;

    // --- Application classification (asks the performance library) ---
    bool isGame(std::string app);
    // True for types 2, 3 and 5; remembers the type in mPsmAppType.
    bool isPSMType(std::string app);
    bool isBrowser(std::string app);
    // True when `app` occurs inside an entry of the ignore list.
    bool isIgnored(std::string app);

    // --- Profile locks (ProfileLock) ---
    int applyProfile(int* list, int count, int duration);
    void releaseProfile(int handle);
    int readAndApplyProfile(Profile& profile, int duration);
    void applyProfileLock(Profile& profile);
    void releaseProfileLock();

    // --- System properties (PropertyApplier) ---
    void ConvertToStringArray(const char* text, std::vector<std::string>& out);
    int applyProp(std::string* list, int count, int duration);
    int readAndApplyProp(std::vector<std::string> list, int duration);
    void releaseProp(std::vector<std::string> list);

    // --- Top tasks and task-load boost (BatteryMonitor) ---
    bool getTopTask();
    void updateTaskloadboost(std::string pid, int maxNumTask, int value);

    // --- GPU stability monitor (GpuStabilityMonitor) ---
    // Creates the game timer and reads the monitor's settings.
    bool initGpuMonitor(PowerOptFeatureInfo& info);
    void initGpuSamples();
    static void gametimerCallBack(void* feature);
    bool isGpuStable(std::vector<GPUSample>& samples);
    void applyGpuProfile(unsigned long long avgFreqMhz);

    // --- Power-saving state store (StateStore) ---
    void pmDbInit();
    void pmDbWrite(std::string key, char value);
    char pmDbRead(std::string key);

    // --- Low-power entry, battery monitor, deep mode (DeepMode, BatteryMonitor) ---
    //
    // Leaving power saving. Event dispatch decides when deep mode and the battery boosts end:
    // - A usable power mode hint of type 0, 1 or 2 moves the device out of low-power mode. After
    //   the hint's own steps, a deep-mode timer that is still retrying is disarmed (deep mode
    //   must not engage once the device has left it), an applied deep mode is left with
    //   resetDeepMode (every property it changed comes back) and ResetBattery withdraws the
    //   task-load boosts of the foreground tasks.
    // - A type-3 hint that finds deep mode already applied leaves it (resetDeepMode) before
    //   low-power entry runs again, so that re-applying saves the user's values and not deep
    //   mode's own.
    // - In PSM mode 3, every start or stop event that disarms the battery timer also calls
    //   ResetBattery: the tasks boosted for the application that was in front lose their boost.
    // resetDeepMode is called only while deep mode is applied: a second reset would find the
    // saved values consumed and clear the properties.

    // Reconciles the stored deep-mode switch with the configured one; arms the deep-mode timer
    // when deep mode is configured on.
    void lowPowerInit();
    void getBatteryStatus();
    static void batterytimerCallBack(void* feature);
    void ResetBattery();
    // Creates the battery timer, reads the deep-mode and battery-monitor settings and opens the
    // state store; false when a required setting is missing.
    bool initDeepMode(PowerOptFeatureInfo& info);
    static void deeptimerCallBack(void* feature);
    void resetDeepMode();

    // Fills `out` under the parts' own locks, one part after the other (pwr_psm_snapshot).
    void snapshot(PSMFeatureSnapshot* out) const;

  private:
    friend class PSMPowerOptFeatureTestPeer;

    // Event paths of sendEvents; `key` is the application name up to its first slash. The stop
    // path cuts the key from the event's name only where it classifies.
    void handleStart(std::string key);
    void handleStop(AsyncTriggerPayload& payload);
    void handleGameOff();
    void handlePowerModeHint(const AsyncTriggerPayload& payload);
    // The device leaves low-power mode (hint types 0 to 2): see "Leaving power saving" above.
    void leaveLowPowerMode();

    // --- Feature core ---
    std::unique_ptr<PowerOptClassifier> mPowerOptClassifier;
    std::unique_ptr<PowerHelper> powerHelper;
    bool debugEnabled = false;
    std::vector<std::string> mIgnoredApps;
    int mIgnoredIndex = 0;
    // Written by isPSMType on the event thread, read by the battery timer.
    std::atomic<int> mPsmAppType{0};
    bool mReady = false;
    // Every setting read, written while the feature is built and read-only afterwards.
    FeatureSettings mSettings;

    // --- Parts, one per concern; they hold references to the members above. Declared after
    // them so that they go first, and their timers with them, when construction throws.
    // (mutable: a snapshot takes their locks.)
    mutable PsmModeState mModeState;
    mutable ProfileLock mProfileLock{powerHelper, debugEnabled};
    StateStore mStateStore{debugEnabled};
    PropertyApplier mProperties{mStateStore, debugEnabled};
    mutable GpuStabilityMonitor mGpuMonitor;
    mutable BatteryMonitor mBatteryMonitor{mSettings, mProfileLock, mPsmAppType, debugEnabled};
    mutable DeepMode mDeepMode{mSettings, mProfileLock, mProperties, mStateStore, debugEnabled};
};
