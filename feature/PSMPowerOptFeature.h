#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "feature/PowerOptFeature.h"
#include "platform/Mutex.h"
#include "platform/Timer.h"

class GraxInfo;
class PowerHelper;
class PowerOptClassifier;
template <typename Row>
class PMDatabase;
struct PSMReferenceOutput;

// One GPU measurement of the game timer.
struct GPUSample {
    uint64_t freq;  // MHz
    int64_t busy;   // percent
};

using Profile = std::vector<std::vector<int>>;

// Consecutive evaluations of the GPU monitor whose decision differed from the profile level in
// force, counted for the whole process. Changed only under the evaluating feature's
// mGpuSampleMutex; atomic because that mutex belongs to one feature and the count to all.
extern std::atomic<int> gGpuProfileChangeCount;

// The power-saving feature. The host builds it from its configuration and delivers events to it
// one at a time on its event thread; timer threads run the game, battery and deep-mode callbacks.
//
// Lock order: mGpuSampleMutex before profileMutex and before mStateMutex; no other lock of the
// feature is ever held while another one is taken.
class PSMPowerOptFeature : public PowerOptFeature {
  public:
    static constexpr char kFeatureName[] = "PSMPowerOptFeature";

    // Enters the factory into the host's registry when the library is loaded.
    static FeatureInstance<PSMPowerOptFeature> featureInstance;

    // Reads the configuration; ends ready, or not ready (every event ignored) when a required
    // setting is missing. An unparsable number throws.
    explicit PSMPowerOptFeature(PowerOptFeatureInfo info);
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

    // --- Profile locks ---
    int applyProfile(int* list, int count, int duration);
    void releaseProfile(int handle);
    int readAndApplyProfile(Profile& profile, int duration);
    // Takes the one profile lock with `profile` unless a lock is already held.
    void applyProfileLock(Profile& profile) EXCLUDES(profileMutex);
    // Gives back the profile lock if one is held.
    void releaseProfileLock() EXCLUDES(profileMutex);

    // --- System properties ---
    // Appends the comma-separated tokens of `text` to `out`; `text` itself is left untouched.
    void ConvertToStringArray(const char* text, std::vector<std::string>& out);
    // Sets each name/value pair of the first `count` elements, saving the first character of every
    // old value in the state store before the property changes. -1 when there is no pair, else
    // the length of the last old value read.
    int applyProp(std::string* list, int count, int duration);
    // applyProp over a whole list; -1 for an empty one.
    int readAndApplyProp(std::vector<std::string> list, int duration);
    // Sets every name of the list back to the one character the state store saved for it.
    void releaseProp(std::vector<std::string> list);

    // --- Top tasks and task-load boost ---
    // Lists up to four foreground processes (not system_server, not kernel threads) and gives
    // each the configured scaling value; false when none was found.
    bool getTopTask() EXCLUDES(mBatteryMutex);
    // Replaces the task-load-boost lock of process `pid` by one carrying `value` (0 undoes it).
    void updateTaskloadboost(std::string pid, int maxNumTask, int value) EXCLUDES(mBatteryMutex);

    // --- GPU stability monitor ---
    bool initGpuMonitor(PowerOptFeatureInfo& info);
    void initGpuSamples() EXCLUDES(mGpuSampleMutex, mStateMutex);
    static void gametimerCallBack(void* feature);
    bool isGpuStable(std::vector<GPUSample>& samples) EXCLUDES(mGpuSampleMutex);
    void applyGpuProfile(unsigned long long avgFreqMhz) EXCLUDES(mGpuSampleMutex);

    // --- Power-saving state store ---
    void pmDbInit();
    void pmDbWrite(std::string key, char value);
    char pmDbRead(std::string key);

    // --- Low-power entry, battery monitor, deep mode ---
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
    // saved values already consumed and clear the properties.

    // Reconciles the stored deep-mode switch with the configured one; arms the deep-mode timer
    // when deep mode is configured on.
    void lowPowerInit();
    // Takes one sample of the battery's discharge current.
    void getBatteryStatus() EXCLUDES(mBatteryMutex);
    // Battery timer tick: a sample, and every MAX_SAMPLE_NUM ticks a boost decision.
    static void batterytimerCallBack(void* feature);
    // Withdraws the task-load boosts and clears the counters.
    void ResetBattery() EXCLUDES(mBatteryMutex);
    // Reads the deep-mode and battery-monitor settings, creates the battery timer and opens the
    // state store; false when a required setting is missing.
    bool initDeepMode(PowerOptFeatureInfo& info);
    // Deep-mode timer tick: takes the deep profile and, once it is held, stops the timer and
    // applies the properties.
    static void deeptimerCallBack(void* feature);
    // Leaves deep mode and puts the properties back.
    void resetDeepMode();

  private:
    friend class PSMPowerOptFeatureTestPeer;

    // Event paths of sendEvents; `key` is the application name up to its first slash. The stop
    // path cuts the key from the event's name only where it classifies.
    void handleStart(std::string key);
    void handleStop(AsyncTriggerPayload& payload);
    void handleGameOff();
    void handlePowerModeHint(const AsyncTriggerPayload& payload);
    int psmMode() EXCLUDES(mStateMutex);
    int gameState() EXCLUDES(mStateMutex);
    void setPsmMode(int mode) EXCLUDES(mStateMutex);
    void setGameState(int state) EXCLUDES(mStateMutex);
    // Deletes the deep, game and battery timers, in that order, and forgets them.
    void deleteTimers();
    // The device leaves low-power mode (hint types 0 to 2): see "Leaving power saving" above.
    void leaveLowPowerMode();

    // Battery monitor and task boosts with mBatteryMutex held.
    bool getTopTaskLocked() REQUIRES(mBatteryMutex);
    void updateTaskloadboostLocked(const std::string& pid, int maxNumTask, int value)
            REQUIRES(mBatteryMutex);
    void getBatteryStatusLocked() REQUIRES(mBatteryMutex);
    void onBatteryTick() EXCLUDES(mBatteryMutex);
    void onDeepTimer();

    // --- Feature core ---
    std::unique_ptr<PowerOptClassifier> mPowerOptClassifier;
    std::unique_ptr<PowerHelper> powerHelper;
    bool debugEnabled = false;
    Profile mLightModeProfile;
    std::vector<std::string> mIgnoredApps;
    int mIgnoredIndex = 0;
    // Written by isPSMType on the event thread, read by the battery timer.
    std::atomic<int> mPsmAppType{0};
    bool mReady = false;
    int mPsmState = 0;
    int mDeepMode = 0;
    int mGpuMode = 0;

    pwr::Mutex mStateMutex;
    int mPsmMode GUARDED_BY(mStateMutex) = 0;
    int mGameState GUARDED_BY(mStateMutex) = 0;

    // Created by the constructor's set-up steps and deleted by the destructor only.
    Timer_s* mGameTimerStruct = nullptr;
    Timer_s* mBatteryTimerStruct = nullptr;
    // Created by low-power entry on the event thread, read by the deep timer's own callback.
    std::atomic<Timer_s*> mDeepTimerStruct{nullptr};
    std::atomic<Timer_s*> mDeepTimerStructCopy{nullptr};

    GraxInfo* mGraxInfo = nullptr;

    // --- Profile lock ---
    pwr::Mutex profileMutex;
    int heldProfileHandle GUARDED_BY(profileMutex) = -1;

    // --- GPU stability monitor ---
    // One game-timer tick: sample the GPU, then test stability or evaluate the profile.
    void gameTimerTick() EXCLUDES(mGpuSampleMutex);
    // The sample list as isGpuStable takes it: by reference, with mGpuSampleMutex released,
    // since isGpuStable locks it itself before reading.
    std::vector<GPUSample>& samplesForStabilityCheck() NO_THREAD_SAFETY_ANALYSIS {
        return mGpuSamples;
    }

    // Settings, written by initGpuMonitor before the game timer is first armed.
    int mGameTimerMs = 0;
    int mGpuSampleCount = 0;
    int mStabilitySampleCount = 0;
    int mGpuBusyStabilityThreshold = 0;
    int mGpuFreqThresholdLow = 0;
    int mGpuFreqThresholdHigh = 0;
    std::vector<Profile> mDynamicGpuProfiles;
    pwr::Mutex mGpuSampleMutex ACQUIRED_BEFORE(profileMutex, mStateMutex);
    std::vector<GPUSample> mGpuSamples GUARDED_BY(mGpuSampleMutex);
    int mGpuProfileLevel GUARDED_BY(mGpuSampleMutex) = 0;
    std::atomic<bool> mGpuCheckingStability{false};
    std::atomic<bool> mGpuEvaluating{false};
    std::atomic<int> mGpuStableCount{0};

    // The battery monitor's state and the task lists and maps are shared by the battery timer's
    // thread and the event thread (ResetBattery). A leaf lock: nothing else is taken while it is
    // held (the boost locks go through applyProfile/releaseProfile, which take no lock).
    pwr::Mutex mBatteryMutex;

    // --- Top tasks and task-load boost ---
    std::vector<std::string> topTaskList GUARDED_BY(mBatteryMutex);
    std::map<std::string, int> taskScalingValues GUARDED_BY(mBatteryMutex);
    int taskLoadBoostScale = 0;  // configuration, set before any timer runs
    Profile taskBoostOpcodes;    // configuration, set before any timer runs
    std::map<std::string, int> taskBoostHandles GUARDED_BY(mBatteryMutex);

    // --- Battery monitor ---
    std::deque<int64_t> mBatterySamples GUARDED_BY(mBatteryMutex);  // newest first
    int mBatterySampleCounter GUARDED_BY(mBatteryMutex) = 0;
    // Configuration, set before any timer runs.
    int mMaxSampleNum = 0;
    int mVideoScalingUp = 0;
    int mBrowserScalingUp = 0;
    int mGameScalingUp = 0;
    int mVideoScalingDown = 0;
    int mBrowserScalingDown = 0;
    int mGameScalingDown = 0;
    // The pair chosen at the last evaluation.
    int mActiveScalingUp GUARDED_BY(mBatteryMutex) = 0;
    int mActiveScalingDown GUARDED_BY(mBatteryMutex) = 0;
    int mTopTaskFlag GUARDED_BY(mBatteryMutex) = 0;
    int mBoosted GUARDED_BY(mBatteryMutex) = 0;

    // --- Deep mode ---
    // Configuration, set before any timer runs and read-only afterwards.
    Profile mDeepProfile;
    std::vector<Profile> mProfileList;
    std::vector<std::string> mPropList;
    std::string mCpuNode;
    std::string mCpuPolicy;
    // Written by the deep timer's thread, read by the event thread.
    std::atomic<int> mDeepModeState{0};  // 0 off, kDeepModeApplied once the properties are set
    std::atomic<int> mPropResult{0};
    static constexpr int kDeepModeApplied = 3;

    // --- Power-saving state store ---
    std::unique_ptr<PMDatabase<PSMReferenceOutput>> mPmDatabase;
    int mPmDbStatus = 0;
};
