#pragma once

// The numbers the feature and its host agree on: event codes, the layout of the usable power mode
// hint word, the application types of the performance library's catalogue, the PSM modes and the
// gaming states. The feature, its tests and the host tools all take them from here.

#include <cstdint>

namespace pwr::codes {

// Event codes (AsyncTriggerPayload::hintId).
inline constexpr int32_t kAppStart = 0x1001;
inline constexpr int32_t kAppStartAlt = 0x1003;
inline constexpr int32_t kAppStop = 0x1002;
inline constexpr int32_t kAppStopAlt = 0x1004;
inline constexpr int32_t kAppStopOther = 0x1093;
inline constexpr int32_t kGameOff = 0x1040;
inline constexpr int32_t kUsablePowerModeHint = 0x15E0;

// The hint word of a usable power mode hint: bits 0-6 the PSM type (the mode to select), bits
// 7-14 the PSM action (0: no action).
inline constexpr uint32_t kHintTypeMask = 0x7F;
inline constexpr unsigned kHintActionShift = 7;
inline constexpr uint32_t kHintActionMask = 0xFF;
constexpr unsigned hintType(uint32_t word) {
    return word & kHintTypeMask;
}
constexpr unsigned hintAction(uint32_t word) {
    return (word >> kHintActionShift) & kHintActionMask;
}
constexpr uint32_t hintWord(unsigned action, unsigned type) {
    return (action & kHintActionMask) << kHintActionShift | (type & kHintTypeMask);
}

// Application types of the performance library's catalogue that the feature acts on.
inline constexpr int kAppTypeGame = 2;
inline constexpr int kAppTypeBrowser = 3;
inline constexpr int kAppTypeVideo = 5;

// The name the plug-in registers its factory under in the host's registry.
inline constexpr char kFeatureName[] = "PSMPowerOptFeature";

// PSM modes (mPsmMode).
inline constexpr int kModeOff = 0;
inline constexpr int kModeLight = 1;
inline constexpr int kModeGaming = 2;
inline constexpr int kModeBatteryWatch = 3;
// The type of a hint that runs low-power entry instead of selecting a mode.
inline constexpr int kHintLowPower = 3;

// Gaming states (mGameState).
inline constexpr int kGameStateNone = 0;
inline constexpr int kGameStateOn = 1;
inline constexpr int kGameStateOff = 2;

}  // namespace pwr::codes
