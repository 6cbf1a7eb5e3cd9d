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
    void ConvertToStringArray(const char* text, std::vector<std::string>& out);
    int applyProp(std::string* list, int count, int duration);
    int readAndApplyProp(std::vector<std::string> list, int duration);
    void releaseProp(std::vector<std::string> list);

    // --- Top tasks and task-load boost ---
    bool getTopTask();
    void updateTaskloadboost(std::string pid, int maxNumTask, int value);

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
    void lowPowerInit();
    void getBatteryStatus();
    static void batterytimerCallBack(void* feature);
    void ResetBattery();
    bool initDeepMode(PowerOptFeatureInfo& info);
    static void deeptimerCallBack(void* feature);
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

    // --- Top tasks and task-load boost ---
    std::vector<std::string> topTaskList;
    std::map<std::string, int> taskScalingValues;
    int taskLoadBoostScale = 0;
    Profile taskBoostOpcodes;
    std::map<std::string, int> taskBoostHandles;

    // --- Battery monitor ---
    std::deque<int64_t> mBatterySamples;  // newest first
    int mBatterySampleCounter = 0;
    int mMaxSampleNum = 0;
    int mVideoScalingUp = 0;
    int mBrowserScalingUp = 0;
    int mGameScalingUp = 0;
    int mVideoScalingDown = 0;
    int mBrowserScalingDown = 0;
    int mGameScalingDown = 0;
    int mActiveScalingUp = 0;
    int mActiveScalingDown = 0;
    int mTopTaskFlag = 0;
    int mBoosted = 0;

    // --- Deep mode ---
    Profile mDeepProfile;
    std::vector<Profile> mProfileList;
    std::vector<std::string> mPropList;
    std::string mCpuNode;
    std::string mCpuPolicy;
    std::atomic<int> mDeepModeState{0};
    std::atomic<int> mPropResult{0};

    // --- Power-saving state store ---
    std::unique_ptr<PMDatabase<PSMReferenceOutput>> mPmDatabase;
    int mPmDbStatus = 0;
};
