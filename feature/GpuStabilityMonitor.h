#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "feature/FeatureSettings.h"
#include "feature/ProfileLock.h"
#include "feature/PsmModeState.h"
#include "platform/Mutex.h"
#include "platform/Timer.h"

class GraxInfo;
struct PSMFeatureSnapshot;

// One GPU measurement of the game timer.
struct GPUSample {
    uint64_t freq;  // MHz
    int64_t busy;   // percent
};

// Consecutive evaluations of the GPU monitor whose decision differed from the profile level in
// force, counted for the whole process. Changed only under the evaluating monitor's
// mGpuSampleMutex; atomic because that mutex belongs to one feature and the count to all.
extern std::atomic<int> gGpuProfileChangeCount;

// GPU stability monitor. While a game is in the foreground the game timer samples the GPU's
// frequency and busy percentage, waits until the busy percentage has settled over a full sample
// list, then picks one of the dynamic GPU profiles from the averaged frequency, switching the
// held profile only after the decision has differed from the one in force three times in a row.
//
// Ticks run on timer threads while events run on the host's thread. mGpuSampleMutex orders the
// sample list, the profile level and the switch; it is taken before profileMutex and before
// mStateMutex, never after them. The phase flags and the stable count are atomics that ticks read
// and write outside it.
class GpuStabilityMonitor {
  public:
    // Reads its settings from `settings` (filled while the feature is built); switches profiles
    // through `profileLock`; clears the gaming state of `modeState` when the samples are reset.
    GpuStabilityMonitor(const FeatureSettings& settings, ProfileLock& profileLock,
                        PsmModeState& modeState, GraxInfo* graxInfo)
        : mSettings(settings),
          mProfileLock(profileLock),
          mModeState(modeState),
          mGraxInfo(graxInfo) {}
    GpuStabilityMonitor(const GpuStabilityMonitor&) = delete;
    GpuStabilityMonitor& operator=(const GpuStabilityMonitor&) = delete;

    // Creates the game timer unless it exists; false when it cannot be created.
    bool createTimer(void (*callback)(void*), void* argument);
    // The game timer's record (null when not created), for arming and disarming.
    Timer_s* timer() const { return mGameTimerStruct.get(); }
    // Deletes the game timer and waits for a tick still running.
    void releaseTimer() { mGameTimerStruct.reset(); }

    // A game came to the foreground: back to checking stability with an empty list, level 0, and
    // the gaming state cleared (event dispatch sets it right afterwards).
    void initGpuSamples() EXCLUDES(mGpuSampleMutex, mModeState.mStateMutex);
    // One game-timer tick: sample the GPU, then test stability or evaluate the profile.
    void tick() EXCLUDES(mGpuSampleMutex);
    // Whether the busy percentages of a full list lie within the threshold. Takes mGpuSampleMutex
    // itself, so `samples` (the monitor's own list) is read under it.
    bool isGpuStable(std::vector<GPUSample>& samples) EXCLUDES(mGpuSampleMutex);
    // One decision from the averaged frequency; the third differing decision in a row switches.
    void applyGpuProfile(unsigned long long avgFreqMhz) EXCLUDES(mGpuSampleMutex);

    // The GPU information it samples; tests point it at one built on their own device tree.
    void setGraxInfo(GraxInfo* graxInfo) { mGraxInfo = graxInfo; }
    GraxInfo* graxInfo() const { return mGraxInfo; }
    std::vector<GPUSample> samples() EXCLUDES(mGpuSampleMutex);
    void setSamples(std::vector<GPUSample> samples) EXCLUDES(mGpuSampleMutex);
    void setProfileLevel(int level) EXCLUDES(mGpuSampleMutex);
    void setPhase(bool checkingStability, bool evaluating);
    void fillSnapshot(PSMFeatureSnapshot* out) EXCLUDES(mGpuSampleMutex);

  private:
    // The sample list as isGpuStable takes it: by reference, with mGpuSampleMutex released,
    // since isGpuStable locks it itself before reading.
    std::vector<GPUSample>& samplesForStabilityCheck() NO_THREAD_SAFETY_ANALYSIS {
        return mGpuSamples;
    }
    // Reads one sample; false when the GPU gave no usable value this tick.
    bool sample(GPUSample* out);

    const FeatureSettings& mSettings;
    ProfileLock& mProfileLock;
    PsmModeState& mModeState;
    GraxInfo* mGraxInfo;
    // Created while the feature is built, deleted by the feature's destructor only.
    pwr::TimerHandle mGameTimerStruct;

    pwr::Mutex mGpuSampleMutex ACQUIRED_BEFORE(mProfileLock.profileMutex, mModeState.mStateMutex);
    std::vector<GPUSample> mGpuSamples GUARDED_BY(mGpuSampleMutex);
    int mGpuProfileLevel GUARDED_BY(mGpuSampleMutex) = 0;
    // What the last ticks computed, for the snapshot: -1 until there is one.
    int mLastBusyRange GUARDED_BY(mGpuSampleMutex) = -1;
    int64_t mLastAverageMhz GUARDED_BY(mGpuSampleMutex) = -1;
    int mLastDecision GUARDED_BY(mGpuSampleMutex) = -1;
    std::atomic<bool> mGpuCheckingStability{false};
    std::atomic<bool> mGpuEvaluating{false};
    std::atomic<int> mGpuStableCount{0};
};
