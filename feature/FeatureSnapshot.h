#pragma once

// A read-only picture of a PSMPowerOptFeature's state for host tools, which reach it through the
// plug-in's exported C entry point pwr_psm_snapshot (looked up with dlsym on the plug-in's
// handle). Plain C layout, so that a tool built apart from the plug-in can read it: a tool checks
// `version` before it reads anything else. Each part of the feature fills its fields under its own
// lock; the parts are visited one after the other, never with two of their locks held.

#include <stdint.h>

#define PSM_FEATURE_SNAPSHOT_VERSION 1

// Phases of the GPU stability monitor.
#define PSM_GPU_PHASE_IDLE 0
#define PSM_GPU_PHASE_CHECKING 1
#define PSM_GPU_PHASE_EVALUATING 2

struct PSMFeatureSnapshot {
    uint32_t version;  // PSM_FEATURE_SNAPSHOT_VERSION
    uint32_t size;     // sizeof(struct PSMFeatureSnapshot) of the plug-in that filled it

    // Feature core.
    int32_t ready;      // 1 once configured; a feature that is not ready ignores every event
    int32_t psmState;   // "PSM_STATE" as configured
    int32_t psmMode;    // the PSM mode in force (0 to 3)
    int32_t gameState;  // 0 none yet, 1 gaming usable mode on, 2 off
    int32_t heldProfileHandle;  // the one profile lock held, -1 for none

    // GPU stability monitor.
    int32_t gpuProfileLevel;        // index of the dynamic GPU profile chosen
    int32_t gpuProfileChangeCount;  // process-wide count of differing decisions in a row
    int32_t gpuPhase;               // PSM_GPU_PHASE_*
    int32_t gpuStableCount;         // consecutive stable checks while checking
    int32_t gpuSamples;             // samples in the list now
    int32_t lastBusyRange;          // busy range of the last stability check; -1 none yet
    int64_t lastAveragedFreqMhz;    // averaged frequency of the last evaluation; -1 none yet
    int32_t lastDecision;           // decision of the last evaluation (0 to 2); -1 none yet

    // Battery monitor and task-load boost.
    int32_t batteryBoosted;        // the foreground tasks' boost is applied
    int32_t topTaskFlag;           // result of the last top-task discovery (0 until one ran)
    int32_t batterySampleCounter;  // ticks since the last evaluation
    float lastAverageCurrentMa;    // average of the last evaluation; NaN none yet
    int32_t activeScalingUp;       // thresholds chosen at the last evaluation, mA
    int32_t activeScalingDown;

    // Deep mode.
    int32_t deepModeState;  // 0 off, 3 applied
    int32_t propResult;     // result of the last property application

    // Timers: 1 when the record exists, 1 when a periodic schedule is armed.
    int32_t deepTimerExists;
    int32_t deepTimerArmed;
    int32_t gameTimerExists;
    int32_t gameTimerArmed;
    int32_t batteryTimerExists;
    int32_t batteryTimerArmed;

    // Numeric settings as the feature read them (0 where their part is not configured).
    int32_t gameTimerMs;
    int32_t gpuSampleCount;
    int32_t stabilitySampleCount;
    int32_t gpuBusyStabilityThreshold;
    int32_t gpuFreqThresholdLow;
    int32_t gpuFreqThresholdHigh;
    int32_t maxSampleNum;
    int32_t gameScalingUp;
    int32_t gameScalingDown;
    int32_t browserScalingUp;
    int32_t browserScalingDown;
    int32_t videoScalingUp;
    int32_t videoScalingDown;
};

#ifdef __cplusplus
class PowerOptFeature;
extern "C" {
// Fills `out` with the state of `feature`, a feature built by this plug-in's factory. 0 on
// success; -1 when either pointer is null or the feature is not a PSMPowerOptFeature.
int pwr_psm_snapshot(const PowerOptFeature* feature, struct PSMFeatureSnapshot* out);
}
// The entry point's type, for dlsym.
using PwrPsmSnapshotFn = int (*)(const PowerOptFeature*, PSMFeatureSnapshot*);
#endif
