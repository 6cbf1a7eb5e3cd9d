#pragma once

// The feature's settings: every configuration key it reads, in the order it reads them, with the
// conversion, when it is required, what it fills and the line logged when it is missing. The
// feature's set-up (initAnalyzeConfigs, initDeepMode, initGpuMonitor) reads through this table,
// and the host tools' configuration check walks the same table, so the two cannot disagree.
// Header-only: the tools use it without linking the plug-in.

#include <climits>
#include <stdexcept>
#include <string>
#include <vector>

#include "feature/LogSites.h"
#include "feature/PowerOptFeature.h"

using Profile = std::vector<std::vector<int>>;

// What the settings table fills, named after the members they configure. Written while the
// feature is built, read-only afterwards (timers are armed only after construction).
struct FeatureSettings {
    // Feature core.
    int mPsmState = 0;
    Profile mLightModeProfile;
    int mDeepMode = 0;
    int mGpuMode = 0;
    // Battery monitor, task-load boost and deep mode (with DEEP_MODE on).
    int mVideoScalingUp = 0;
    int mBrowserScalingUp = 0;
    int mGameScalingUp = 0;
    int mVideoScalingDown = 0;
    int mBrowserScalingDown = 0;
    int mGameScalingDown = 0;
    int mMaxSampleNum = 0;
    int taskLoadBoostScale = 0;
    std::string mCpuNode;    // required, though nothing reads it afterwards
    std::string mCpuPolicy;  // required, though nothing reads it afterwards
    Profile mDeepProfile;
    Profile taskBoostOpcodes;
    // GPU stability monitor (with GPUMode on).
    int mGameTimerMs = 0;
    int mGpuSampleCount = 0;
    int mStabilitySampleCount = 0;
    int mGpuBusyStabilityThreshold = 0;
    int mGpuFreqThresholdLow = 0;
    int mGpuFreqThresholdHigh = 0;
    std::vector<Profile> mDynamicGpuProfiles;  // in ascending key order
};

namespace pwr::settings {

enum class Conversion {
    TruncatedNumber,  // std::stod, truncated toward zero to int; a value no int holds is refused
    Integer,          // std::stoi, base 10
    Text,             // copied as it stands
    Profile,          // a profile by name; absent reads as empty (the lookup enters it)
    DynamicProfiles,  // every profile whose name contains the key, in ascending name order
};

// When a key is read at all.
enum class Group {
    Core,        // always
    DeepMode,    // with "DEEP_MODE" non-zero
    GpuMonitor,  // with "GPUMode" non-zero
};

struct Key {
    const char* name;
    Conversion conversion;
    Group group;
    // For a switch of the core: the group its non-zero value turns on (Core: none).
    Group enables;
    // Logged when the key is absent (or, for a profile, empty); null: missed silently.
    const LogSite* missing;
    // What the key fills: exactly one of these is set, as the conversion says.
    int FeatureSettings::*number;
    std::string FeatureSettings::*text;
    Profile FeatureSettings::*profile;
    std::vector<Profile> FeatureSettings::*profiles;
};

constexpr Key numberKey(const char* name, Conversion conversion, Group group,
                        int FeatureSettings::*number, const LogSite* missing = nullptr,
                        Group enables = Group::Core) {
    return {name, conversion, group, enables, missing, number, nullptr, nullptr, nullptr};
}
constexpr Key textKey(const char* name, Group group, std::string FeatureSettings::*text) {
    return {name, Conversion::Text, group, Group::Core, nullptr, nullptr, text, nullptr, nullptr};
}
constexpr Key profileKey(const char* name, Group group, Profile FeatureSettings::*profile,
                         const LogSite* missing) {
    return {name,   Conversion::Profile, group, Group::Core, missing, nullptr, nullptr, profile,
            nullptr};
}

// The marker of the GPU monitor's dynamic profiles; the monitor picks among the first three.
inline constexpr char kDynamicProfileMark[] = "DYN_";
inline constexpr size_t kDynamicProfilesUsed = 3;
// The configuration entry that deep mode leaves out of its property list.
inline constexpr char kPropertyListExcluded[] = "PSM";

namespace table {
using C = Conversion;
using G = Group;
using S = FeatureSettings;

// In the order the feature reads them. A group's keys are read where its switch stands among the
// core keys, right after the switch.
inline constexpr Key kKeys[] = {
        numberKey("PSM_STATE", C::TruncatedNumber, G::Core, &S::mPsmState, &site::kMissPsmState),
        profileKey("PROFILE_LIGHT_MODE", G::Core, &S::mLightModeProfile, &site::kNoLightProfile),
        numberKey("DEEP_MODE", C::Integer, G::Core, &S::mDeepMode, nullptr, G::DeepMode),
        numberKey("GPUMode", C::Integer, G::Core, &S::mGpuMode, &site::kMissGpuMode, G::GpuMonitor),

        numberKey("VIDEO_SCALING_UP", C::Integer, G::DeepMode, &S::mVideoScalingUp),
        numberKey("BROWSER_SCALING_UP", C::Integer, G::DeepMode, &S::mBrowserScalingUp),
        numberKey("GAME_SCALING_UP", C::Integer, G::DeepMode, &S::mGameScalingUp),
        numberKey("VIDEO_SCALING_DOWN", C::Integer, G::DeepMode, &S::mVideoScalingDown),
        numberKey("BROWSER_SCALING_DOWN", C::Integer, G::DeepMode, &S::mBrowserScalingDown),
        numberKey("GAME_SCALING_DOWN", C::Integer, G::DeepMode, &S::mGameScalingDown),
        numberKey("MAX_SAMPLE_NUM", C::Integer, G::DeepMode, &S::mMaxSampleNum),
        numberKey("SCALING_DOWN_TASK_LOAD_BOOST", C::Integer, G::DeepMode, &S::taskLoadBoostScale),
        textKey("CPUNODE", G::DeepMode, &S::mCpuNode),
        textKey("CPUPOLICY", G::DeepMode, &S::mCpuPolicy),
        profileKey("DEFAULT", G::DeepMode, &S::mDeepProfile, &site::kNoDeepProfile),
        profileKey("PSM_OPT_RESOURCE", G::DeepMode, &S::taskBoostOpcodes, &site::kNoBoostOpcode),

        numberKey("GAME_TIMER", C::TruncatedNumber, G::GpuMonitor, &S::mGameTimerMs,
                  &site::kMissGameTimer),
        numberKey("GPU_SAMPLE_COUNT", C::TruncatedNumber, G::GpuMonitor, &S::mGpuSampleCount,
                  &site::kMissGpuSampleCount),
        numberKey("STABILITY_SAMPLE_COUNT", C::TruncatedNumber, G::GpuMonitor,
                  &S::mStabilitySampleCount, &site::kMissStabilitySampleCount),
        numberKey("GPU_BUSY_STABILITY_THRESHOLD", C::TruncatedNumber, G::GpuMonitor,
                  &S::mGpuBusyStabilityThreshold, &site::kMissBusyThreshold),
        numberKey("GPU_Freq_THRESHOLD_LOW", C::TruncatedNumber, G::GpuMonitor,
                  &S::mGpuFreqThresholdLow, &site::kMissFreqThresholdLow),
        numberKey("GPU_Freq_THRESHOLD_HIGH", C::TruncatedNumber, G::GpuMonitor,
                  &S::mGpuFreqThresholdHigh, &site::kMissFreqThresholdHigh),
        {kDynamicProfileMark, C::DynamicProfiles, G::GpuMonitor, G::Core,
         &site::kMissDynamicProfile, nullptr, nullptr, nullptr, &S::mDynamicGpuProfiles},
};
}  // namespace table
using table::kKeys;

// A truncated number that std::stod reads but no int can hold.
class NotAnInt : public std::out_of_range {
  public:
    using std::out_of_range::out_of_range;
};

// A numeric setting's decimal text as the feature converts it; throws what std::stod or
// std::stoi throws (std::invalid_argument, std::out_of_range), and NotAnInt for a truncated
// number that no int can hold (beyond the range, infinite, not a number) instead of converting
// it with undefined behaviour. `used`, when given, receives the characters consumed.
inline int parseNumber(Conversion conversion, const std::string& text, size_t* used = nullptr) {
    if (conversion == Conversion::Integer) return std::stoi(text, used, 10);
    const double value = std::stod(text, used);
    if (!(value > static_cast<double>(INT_MIN) - 1.0 &&
          value < static_cast<double>(INT_MAX) + 1.0)) {
        throw NotAnInt("stod: \"" + text + "\" does not fit an int");
    }
    return static_cast<int>(value);
}

// The key of the table that fills `number`, or `profile`.
inline const Key& keyOf(int FeatureSettings::*number) {
    for (const Key& key : kKeys) {
        if (key.number == number) return key;
    }
    throw std::logic_error("no settings key fills this member");
}
inline const Key& keyOf(Profile FeatureSettings::*profile) {
    for (const Key& key : kKeys) {
        if (key.profile == profile) return key;
    }
    throw std::logic_error("no settings key fills this member");
}

// Reads one key of the table into `out`, as the feature does: false when it is absent (logging
// its missing line, if it has one); an unparsable number throws. Profiles are looked up with the
// map's operator[], so an absent one is entered as empty, as the host's own lookups do.
bool read(const Key& key, PowerOptFeatureInfo& info, FeatureSettings& out);

// Reads every key of `group` in table order; false at the first one missing.
bool readGroup(Group group, PowerOptFeatureInfo& info, FeatureSettings& out);

}  // namespace pwr::settings
