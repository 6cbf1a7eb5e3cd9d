#pragma once

// Every line the feature writes, by the place that writes it: module word, function word, the
// fixed line number of the prefix and the message format. Log readers key on these words and
// numbers, so the feature, its tests and the host tools all name a line through these constants
// and never spell it again. tests/golden/feature-log-sites.txt pins the text of each.

#include "platform/Log.h"

namespace pwr::site {

// Construction, configuration and destruction.
inline constexpr LogSite kClassifierMissing{kModFeature, "PSMPowerOptFeature", 62,
                                            "mPowerOptClassifier is nullptr !!"};
inline constexpr LogSite kMissingConfigs{kModFeature, "PSMPowerOptFeature", 70,
                                         "Missing feature configs, return !!"};
inline constexpr LogSite kConstructor{kModFeature, "PSMPowerOptFeature", 75, "Constructor %s"};
inline constexpr LogSite kMissPsmState{kModFeature, "initAnalyzeConfigs", 84, "miss PSM_STATE"};
inline constexpr LogSite kNoLightProfile{kModFeature, "initAnalyzeConfigs", 90,
                                         "No  Default Profile specified\n"};
inline constexpr LogSite kMissGpuMode{kModFeature, "initAnalyzeConfigs", 107, "miss GPUMode"};
inline constexpr LogSite kDestructor{kModFeature, "~PSMPowerOptFeature", 292, "Destructor %s"};

// GPU monitor set-up.
inline constexpr LogSite kGameTimerMissing{kModFeature, "initGpuMonitor", 123,
                                           "mGameTimerStruct is nullptr !!"};
inline constexpr LogSite kMissGameTimer{kModFeature, "initGpuMonitor", 130, "miss GAME_TIMER"};
inline constexpr LogSite kMissGpuSampleCount{kModFeature, "initGpuMonitor", 137,
                                             "miss GPU_SAMPLE_COUNT"};
inline constexpr LogSite kMissStabilitySampleCount{kModFeature, "initGpuMonitor", 144,
                                                   "miss STABILITY_SAMPLE_COUNT"};
inline constexpr LogSite kMissBusyThreshold{kModFeature, "initGpuMonitor", 151,
                                            "miss GPU_BUSY_STABILITY_THRESHOLD"};
inline constexpr LogSite kMissFreqThresholdLow{kModFeature, "initGpuMonitor", 158,
                                               "miss GPU_Freq_THRESHOLD_LOW"};
inline constexpr LogSite kMissFreqThresholdHigh{kModFeature, "initGpuMonitor", 165,
                                                "miss GPU_Freq_THRESHOLD_HIGH"};
inline constexpr LogSite kMissDynamicProfile{kModFeature, "initGpuMonitor", 176,
                                             "miss Dynamic GPU profile"};

// Deep-mode set-up.
inline constexpr LogSite kBatteryTimerMissing{kModFeature, "initDeepMode", 189,
                                              "TimerStruct is nullptr !!"};
inline constexpr LogSite kNoDeepProfile{kModFeature, "initDeepMode", 228,
                                        "No Deep Profile specified\n"};
inline constexpr LogSite kNoBoostOpcode{kModFeature, "initDeepMode", 234,
                                        "No TASK_LOAD_BOOST opcode specified\n"};
inline constexpr LogSite kProfileListEntry{kModFeature, "initDeepMode", 240, " ProfileList %s"};
inline constexpr LogSite kNoProfileList{kModFeature, "initDeepMode", 245,
                                        "No DEFAULT Profile specified\n"};
inline constexpr LogSite kPropsListEntry{kModFeature, "initDeepMode", 252, " PropsList %s"};
inline constexpr LogSite kNoProps{kModFeature, "initDeepMode", 262, "No Prop specified\n"};

// Event dispatch.
inline constexpr LogSite kXmlOwnsMode{kModFeature, "sendEvents", 354,
                                      "Control PSM mode swiching by XML."};
inline constexpr LogSite kPowerModeHint{
        kModFeature, "sendEvents", 362,
        "Usable power mode hint for app %s, hintID : %d, hintType hex : %x, psmAction: %d, "
        "psmType: %d"};
inline constexpr LogSite kGamingOn{kModFeature, "sendEvents", 398,
                                   "Triggering Gaming Usable Mode."};
inline constexpr LogSite kGameTimerNotStarted{kModFeature, "sendEvents", 404,
                                              "Timer couldn't be started\n"};
inline constexpr LogSite kGamingOffNonGame{kModFeature, "sendEvents", 408,
                                           "Disable Game feature for non-game case."};
inline constexpr LogSite kBatteryTimerNotStarted{kModFeature, "sendEvents", 421,
                                                 "Battery Timer couldn't be started\n"};
inline constexpr LogSite kStopHint{kModFeature, "sendEvents", 449, "Stop hint %d for: %s"};

// GPU stability monitor.
inline constexpr LogSite kMeasured{kModFeature, "gametimerCallBack", 500,
                                   "Meastured freq:%d, busy:%d"};
inline constexpr LogSite kGpuStableStartEvaluating{
        kModFeature, "gametimerCallBack", 517,
        "GPU behavior is stable. Start evaluating GPU status."};
inline constexpr LogSite kGpuStable{kModFeature, "isGpuStable", 557,
                                    "GPU is stable. Busy range:%d"};
inline constexpr LogSite kGpuNotStable{kModFeature, "isGpuStable", 561,
                                       "GPU is not stable yet. Busy range:%d"};
inline constexpr LogSite kAveragedFreq{kModFeature, "applyGpuProfile", 569, "Averaged freq:%d"};
inline constexpr LogSite kGpuUnderutilized{kModFeature, "applyGpuProfile", 575,
                                           "GPU is underutilized. Remaining power profile."};
inline constexpr LogSite kGpuModerate{kModFeature, "applyGpuProfile", 578,
                                      "GPU is moderately utilized. Applying balanced profile."};
inline constexpr LogSite kGpuVeryHigh{kModFeature, "applyGpuProfile", 581,
                                      "GPU is very highly utilized. Remaining power profile."};
inline constexpr LogSite kReadyToChangeProfile{kModFeature, "applyGpuProfile", 593,
                                               "Ready to change the profile."};
inline constexpr LogSite kNoDynamicProfileForLevel{kModFeature, "applyGpuProfile", 596,
                                                   "No dynamic GPU profile for level %d"};

// Application classification.
inline constexpr LogSite kIsGame{kModFeature, "isGame", 610, "%s isPSMType = %d"};
inline constexpr LogSite kIsPsmType{kModFeature, "isPSMType", 809, "%s isPSMType = %d"};
inline constexpr LogSite kIsBrowser{kModFeature, "isBrowser", 823, "%s isBrowser = %d"};

// Task-load boost.
inline constexpr LogSite kBoostWithoutTasks{kModFeature, "updateTaskloadboost", 708,
                                            "Failed to update task_load_boost, maxNumTask = %d"};
inline constexpr LogSite kBoostUpdated{kModFeature, "updateTaskloadboost", 722,
                                       "Updated handle: %d, value: %d, val: %d"};
inline constexpr LogSite kTopTask{kModFeature, "getTopTask", 761, "Get task %d\n"};
inline constexpr LogSite kTopTaskCount{kModFeature, "getTopTask", 774, "Toplist Size %d\n"};
inline constexpr LogSite kTopTaskException{kModFeature, "getTopTask", 779,
                                           "Caught Exception: %s in %s"};
inline constexpr LogSite kTopTaskUnknownException{kModFeature, "getTopTask", 781,
                                                  "Caught Exception in %s"};
inline constexpr LogSite kNoTopTask{kModFeature, "getTopTask", 784, "No more task fits"};

// Property application.
inline constexpr LogSite kPropSize{kModFeature, "readAndApplyProp", 848, "Prop size %lu"};
inline constexpr LogSite kPropParam{kModFeature, "applyProp", 869, "param for config:%s,%s"};
inline constexpr LogSite kReleasePropSize{kModFeature, "releaseProp", 886, " Array size %d"};
inline constexpr LogSite kNoPropsText{kModFeature, "ConvertToStringArray", 1051, "No props \n"};
inline constexpr LogSite kPropToken{kModFeature, "ConvertToStringArray", 1057,
                                    "pch[%s]; pSave[%s]\n"};

// Profile locks.
inline constexpr LogSite kProfileSize{kModFeature, "readAndApplyProfile", 899, "Profile size %d"};
inline constexpr LogSite kProfileArraySize{kModFeature, "readAndApplyProfile", 909,
                                           " Array size %d"};
inline constexpr LogSite kProfileApplyFailed{kModFeature, "readAndApplyProfile", 918,
                                             "Failed to apply resource, handle = %d"};
inline constexpr LogSite kReleasingProfile{kModFeature, "releaseProfileLock", 929,
                                           "Releasing profile, handle = %d"};
inline constexpr LogSite kTryingProfileLock{kModFeature, "applyProfileLock", 936,
                                            "Trying to applyProfileLock."};
inline constexpr LogSite kApplyFailed{kModFeature, "applyProfile", 954,
                                      "Failed to apply resource, handle = %d"};
inline constexpr LogSite kReleasingHandle{kModFeature, "releaseProfile", 964,
                                          "Releasing handle:%d"};

// Low-power entry, state store, battery monitor, deep mode.
inline constexpr LogSite kDeepTimerStarted{kModFeature, "lowPowerInit", 1087, "Timer started \n"};
inline constexpr LogSite kDeepTimerNotStarted{kModFeature, "lowPowerInit", 1089,
                                              "Timer couldn't be started\n"};
inline constexpr LogSite kDbHandleNull{kModFeature, "pmDbInit", 1103, "DB handle is NULL"};
inline constexpr LogSite kReadDenied{kModFeature, "getBatteryStatus", 1108, "Read denied."};
inline constexpr LogSite kDbInitFailed{kModFeature, "pmDbInit", 1111,
                                       "Error in DB initialization - createFeatureInputDb %d"};
inline constexpr LogSite kAverageCurrent{kModFeature, "batterytimerCallBack", 1131,
                                         "Avg Current: %.2f"};
inline constexpr LogSite kDbWritten{
        kModFeature, "pmDbWrite", 1134,
        "Successfully written output to DB, DB Row key name=%s, writing properties %c"};
inline constexpr LogSite kMissingBatteryConfigs{kModFeature, "batterytimerCallBack", 1147,
                                                "Missing configs for: %d"};
inline constexpr LogSite kDbReadCounts{
        kModFeature, "pmDbRead", 1152,
        "ReferenceAlgo::runAlgo (totalCount , readCount) = (%d, %d) "};
inline constexpr LogSite kDbReadRow{kModFeature, "pmDbRead", 1158, "Reading properties[%d]=%c"};
inline constexpr LogSite kResetBattery{kModFeature, "ResetBattery", 1190, "Reset battery status."};
inline constexpr LogSite kDeepTimerDisabled{kModFeature, "deeptimerCallBack", 1226,
                                            "Timer disabled, Current state: %d"};
inline constexpr LogSite kResetDeepMode{kModFeature, "resetDeepMode", 1238, "Reset"};

// Every site above, for the golden list that pins their texts.
inline constexpr const LogSite* kAll[] = {
        &kClassifierMissing,
        &kMissingConfigs,
        &kConstructor,
        &kMissPsmState,
        &kNoLightProfile,
        &kMissGpuMode,
        &kDestructor,
        &kGameTimerMissing,
        &kMissGameTimer,
        &kMissGpuSampleCount,
        &kMissStabilitySampleCount,
        &kMissBusyThreshold,
        &kMissFreqThresholdLow,
        &kMissFreqThresholdHigh,
        &kMissDynamicProfile,
        &kBatteryTimerMissing,
        &kNoDeepProfile,
        &kNoBoostOpcode,
        &kProfileListEntry,
        &kNoProfileList,
        &kPropsListEntry,
        &kNoProps,
        &kXmlOwnsMode,
        &kPowerModeHint,
        &kGamingOn,
        &kGameTimerNotStarted,
        &kGamingOffNonGame,
        &kBatteryTimerNotStarted,
        &kStopHint,
        &kMeasured,
        &kGpuStableStartEvaluating,
        &kGpuStable,
        &kGpuNotStable,
        &kAveragedFreq,
        &kGpuUnderutilized,
        &kGpuModerate,
        &kGpuVeryHigh,
        &kReadyToChangeProfile,
        &kNoDynamicProfileForLevel,
        &kIsGame,
        &kIsPsmType,
        &kIsBrowser,
        &kBoostWithoutTasks,
        &kBoostUpdated,
        &kTopTask,
        &kTopTaskCount,
        &kTopTaskException,
        &kTopTaskUnknownException,
        &kNoTopTask,
        &kPropSize,
        &kPropParam,
        &kReleasePropSize,
        &kNoPropsText,
        &kPropToken,
        &kProfileSize,
        &kProfileArraySize,
        &kProfileApplyFailed,
        &kReleasingProfile,
        &kTryingProfileLock,
        &kApplyFailed,
        &kReleasingHandle,
        &kDeepTimerStarted,
        &kDeepTimerNotStarted,
        &kDbHandleNull,
        &kReadDenied,
        &kDbInitFailed,
        &kAverageCurrent,
        &kDbWritten,
        &kMissingBatteryConfigs,
        &kDbReadCounts,
        &kDbReadRow,
        &kResetBattery,
        &kDeepTimerDisabled,
        &kResetDeepMode,
};

}  // namespace pwr::site
