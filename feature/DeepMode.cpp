// Deep mode, the strongest power-saving step: low-power entry arms a 1.5 s timer that takes the
// deep profile's lock and, once it is held, stops itself and applies the configured properties.
// The set-up also reads the battery monitor's settings, creates its timer and opens the state
// store.

#include <map>

#include "feature/PSMPowerOptFeature.h"

#include "platform/Log.h"

using pwr::kModFeature;

bool PSMPowerOptFeature::initDeepMode(PowerOptFeatureInfo& info) {
    mBatteryTimerStruct = Timer().Timer_create(&PSMPowerOptFeature::batterytimerCallBack, this);
    if (mBatteryTimerStruct == nullptr) {
        PWR_LOG(kModFeature, "initDeepMode", 189, "TimerStruct is nullptr !!");
        return false;
    }

    // Missing numbers are refused without a message; unparsable ones throw out of the
    // constructor, as every configuration number does. The destructor does not run then, so the
    // battery timer is deleted here before the exception leaves.
    const std::pair<const char*, int*> numbers[] = {
            {"VIDEO_SCALING_UP", &mVideoScalingUp},
            {"BROWSER_SCALING_UP", &mBrowserScalingUp},
            {"GAME_SCALING_UP", &mGameScalingUp},
            {"VIDEO_SCALING_DOWN", &mVideoScalingDown},
            {"BROWSER_SCALING_DOWN", &mBrowserScalingDown},
            {"GAME_SCALING_DOWN", &mGameScalingDown},
            {"MAX_SAMPLE_NUM", &mMaxSampleNum},
            {"SCALING_DOWN_TASK_LOAD_BOOST", &taskLoadBoostScale},
    };
    for (const auto& [key, field] : numbers) {
        auto it = info.configs.find(key);
        if (it == info.configs.end()) return false;
        try {
            *field = std::stoi(it->second, nullptr, 10);
        } catch (...) {
            Timer().Timer_destroy(mBatteryTimerStruct);
            mBatteryTimerStruct = nullptr;
            throw;
        }
    }

    // Required, though nothing reads them afterwards.
    auto cpuNode = info.configs.find("CPUNODE");
    if (cpuNode == info.configs.end()) return false;
    mCpuNode = cpuNode->second;
    auto cpuPolicy = info.configs.find("CPUPOLICY");
    if (cpuPolicy == info.configs.end()) return false;
    mCpuPolicy = cpuPolicy->second;

    // operator[] on purpose: an absent profile reads as empty, as the host's own lookups do.
    mDeepProfile = info.profiles["DEFAULT"];
    if (mDeepProfile.empty()) {
        PWR_LOG(kModFeature, "initDeepMode", 228, "No Deep Profile specified\n");
        return false;
    }
    // The boost needs an opcode: the first int of the first list.
    taskBoostOpcodes = info.profiles["PSM_OPT_RESOURCE"];
    if (taskBoostOpcodes.empty() || taskBoostOpcodes[0].empty()) {
        PWR_LOG(kModFeature, "initDeepMode", 234, "No TASK_LOAD_BOOST opcode specified\n");
        return false;
    }

    // Every profile, in the order of the profiles' names.
    const std::map<std::string, Profile> byName(info.profiles.begin(), info.profiles.end());
    for (const auto& [name, profile] : byName) {
        PWR_LOG(kModFeature, "initDeepMode", 240, " ProfileList %s", name.c_str());
        mProfileList.push_back(profile);
    }
    if (mProfileList.empty()) {
        PWR_LOG(kModFeature, "initDeepMode", 245, "No DEFAULT Profile specified\n");
        return false;
    }

    // Every setting except "PSM" is taken as comma-separated property name/value pairs, the
    // scalar settings included: the configuration carries its property pairs among them.
    for (const auto& [key, value] : info.configs) {
        PWR_LOG(kModFeature, "initDeepMode", 252, " PropsList %s", key.c_str());
        if (key == "PSM") continue;
        ConvertToStringArray(value.c_str(), mPropList);
    }
    if (mPropList.empty()) {
        PWR_LOG(kModFeature, "initDeepMode", 262, "No Prop specified\n");
        return false;
    }

    mIgnoredApps = info.appList;
    pmDbInit();
    return true;
}

void PSMPowerOptFeature::deeptimerCallBack(void* feature) {
    if (feature == nullptr) return;
    static_cast<PSMPowerOptFeature*>(feature)->onDeepTimer();
}

void PSMPowerOptFeature::onDeepTimer() {
    applyProfileLock(mDeepProfile);
    {
        pwr::MutexLock lock(profileMutex);
        // Not granted: the timer fires again and the acquisition is retried.
        if (heldProfileHandle < 1) return;
    }
    // Deep mode is applied once per arming.
    Timer().Timer_disable(mDeepTimerStruct.load());

    if (debugEnabled) {
        PWR_LOG(kModFeature, "readAndApplyProp", 848, "Prop size %lu",
                static_cast<unsigned long>(mPropList.size()));
    }
    mPropResult = mPropList.empty()
                          ? -1
                          : applyProp(mPropList.data(), static_cast<int>(mPropList.size()), 0);

    mDeepModeState = kDeepModeApplied;
    if (debugEnabled) {
        PWR_LOG(kModFeature, "deeptimerCallBack", 1226, "Timer disabled, Current state: %d",
                kDeepModeApplied);
    }
}

void PSMPowerOptFeature::resetDeepMode() {
    if (debugEnabled) PWR_LOG(kModFeature, "resetDeepMode", 1238, "Reset");
    mDeepModeState = 0;
    // A result of 0 means the last property read was empty: nothing to put back. -1 (nothing
    // was applied) still releases.
    if (mPropResult == 0) return;
    releaseProp(mPropList);
    // The profile lock stays: event dispatch releases it.
}
