#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "feature/FeatureSettings.h"
#include "feature/ProfileLock.h"
#include "platform/Mutex.h"
#include "platform/Timer.h"

struct PSMFeatureSnapshot;

// Battery monitor and task-load boost. Once a second the battery timer samples the discharge
// current; every MAX_SAMPLE_NUM ticks the average is compared with the thresholds of the
// foreground app's type, and a high drain scales down the task-load boost of the foreground tasks
// (each process gets its own perf lock carrying the boost for its pid), a low drain undoes it.
//
// The samples, the counter, the flags, the active thresholds and the task lists are shared by the
// battery timer's thread and the event thread (ResetBattery) and guarded by mBatteryMutex, a leaf
// lock: the boost locks go through the plain perf-lock calls, which take no lock.
class BatteryMonitor {
  public:
    // Settings from `settings` (filled while the feature is built); boost locks through
    // `profileLock`'s plain calls; the foreground app's type from `psmAppType`.
    BatteryMonitor(const FeatureSettings& settings, ProfileLock& profileLock,
                   const std::atomic<int>& psmAppType, const bool& debugEnabled)
        : mSettings(settings),
          mProfileLock(profileLock),
          mPsmAppType(psmAppType),
          mDebugEnabled(debugEnabled) {}
    BatteryMonitor(const BatteryMonitor&) = delete;
    BatteryMonitor& operator=(const BatteryMonitor&) = delete;

    // Creates the battery timer; false when it cannot be created.
    bool createTimer(void (*callback)(void*), void* argument);
    // The battery timer's record (null when not created), for arming and disarming.
    Timer_s* timer() const { return mBatteryTimerStruct.get(); }
    // Deletes the battery timer and waits for a tick still running.
    void releaseTimer() { mBatteryTimerStruct.reset(); }

    // Takes one sample of the battery's discharge current.
    void getBatteryStatus() EXCLUDES(mBatteryMutex);
    // Battery timer tick: a sample, and every MAX_SAMPLE_NUM ticks a boost decision.
    void tick() EXCLUDES(mBatteryMutex);
    // Withdraws the task-load boosts and clears the counters; the samples are kept.
    void ResetBattery() EXCLUDES(mBatteryMutex);
    // Lists up to four foreground processes (not system_server, not kernel threads) and gives
    // each the configured scaling value; false when none was found.
    bool getTopTask() EXCLUDES(mBatteryMutex);
    // Replaces the task-load-boost lock of process `pid` by one carrying `value` (0 undoes it).
    void updateTaskloadboost(const std::string& pid, int maxNumTask, int value)
            EXCLUDES(mBatteryMutex);

    // Copies of the lists and maps, and the samples newest first.
    std::vector<std::string> tasks() EXCLUDES(mBatteryMutex);
    std::map<std::string, int> scalingValues() EXCLUDES(mBatteryMutex);
    std::map<std::string, int> boostHandles() EXCLUDES(mBatteryMutex);
    std::vector<int64_t> samples() EXCLUDES(mBatteryMutex);
    void fillSnapshot(PSMFeatureSnapshot* out) EXCLUDES(mBatteryMutex);

  private:
    bool getTopTaskLocked() REQUIRES(mBatteryMutex);
    void updateTaskloadboostLocked(const std::string& pid, int maxNumTask, int value)
            REQUIRES(mBatteryMutex);
    void getBatteryStatusLocked() REQUIRES(mBatteryMutex);
    // Every listed task's boost set to `value` (from its scaling value when `scaled`).
    void boostAllLocked(bool scaled) REQUIRES(mBatteryMutex);

    const FeatureSettings& mSettings;
    ProfileLock& mProfileLock;
    const std::atomic<int>& mPsmAppType;
    const bool& mDebugEnabled;
    // Created while the feature is built, deleted by the feature's destructor only.
    pwr::TimerHandle mBatteryTimerStruct;

    pwr::Mutex mBatteryMutex;
    std::vector<std::string> topTaskList GUARDED_BY(mBatteryMutex);
    std::map<std::string, int> taskScalingValues GUARDED_BY(mBatteryMutex);
    std::map<std::string, int> taskBoostHandles GUARDED_BY(mBatteryMutex);
    std::deque<int64_t> mBatterySamples GUARDED_BY(mBatteryMutex);  // newest first
    int mBatterySampleCounter GUARDED_BY(mBatteryMutex) = 0;
    // The pair chosen at the last evaluation.
    int mActiveScalingUp GUARDED_BY(mBatteryMutex) = 0;
    int mActiveScalingDown GUARDED_BY(mBatteryMutex) = 0;
    int mTopTaskFlag GUARDED_BY(mBatteryMutex) = 0;
    int mBoosted GUARDED_BY(mBatteryMutex) = 0;
    // The average of the last evaluation, for the snapshot; NaN until there is one.
    float mLastAverage GUARDED_BY(mBatteryMutex) = std::numeric_limits<float>::quiet_NaN();
};
