#include "feature/DeepMode.h"

#include <map>

#include "feature/FeatureSnapshot.h"
#include "feature/LogSites.h"

bool DeepMode::configure(PowerOptFeatureInfo& info, std::vector<std::string>& ignoredApps) {
    // Every profile, in the order of the profiles' names.
    const std::map<std::string, Profile> byName(info.profiles.begin(), info.profiles.end());
    for (const auto& [name, profile] : byName) {
        PWR_LOG_AT(pwr::site::kProfileListEntry, name.c_str());
        mProfileList.push_back(profile);
    }
    if (mProfileList.empty()) {
        PWR_LOG_AT(pwr::site::kNoProfileList);
        return false;
    }

    // Every setting except "PSM" is taken as comma-separated property name/value pairs, the
    // scalar settings included: the configuration carries its property pairs among them.
    for (const auto& [key, value] : info.configs) {
        PWR_LOG_AT(pwr::site::kPropsListEntry, key.c_str());
        if (key == pwr::settings::kPropertyListExcluded) continue;
        mProperties.ConvertToStringArray(value.c_str(), mPropList);
    }
    if (mPropList.empty()) {
        PWR_LOG_AT(pwr::site::kNoProps);
        return false;
    }

    ignoredApps = info.appList;
    mStore.pmDbInit();
    return true;
}

void DeepMode::lowPowerInit(void (*callback)(void*), void* argument) {
    const char previous = mStore.pmDbRead("PSM");
    // Only the low byte of the setting counts.
    const auto deepMode = static_cast<unsigned char>(mSettings.mDeepMode & 0xFF);
    if (deepMode == 0) {
        if (previous == '1') mProperties.releaseProp(mPropList);
    } else {
        // One deep-mode timer at a time: an earlier one (still retrying, or done) is deleted, and
        // a callback of it still running waited for, before its replacement exists, so that it
        // can never fire again and the destructor deletes the only one left.
        takeTimer().reset();
        pwr::TimerHandle created(callback, argument);
        Timer_s* const deepTimer = created.get();
        bool started = false;
        {
            pwr::MutexLock lock(mDeepTimerMutex);
            mDeepTimerStruct = std::move(created);
            mDeepTimerStructCopy = deepTimer;
            pwr::MutexLock timerLock(timerMutex);
            if (deepTimer != nullptr && !deepTimer->active) {
                // First expiry after 1.5 s, then every 1.5 s until the deep profile is held.
                itimerspec spec{};
                spec.it_value.tv_sec = 1;
                spec.it_value.tv_nsec = 500000000;
                spec.it_interval = spec.it_value;
                if (timer_settime(deepTimer->timerId, 0, &spec, nullptr) == 0) {
                    deepTimer->active = true;
                    started = true;
                }
            }
        }
        if (mDebugEnabled) {
            PWR_LOG_AT(pwr::site::kDeepTimerStarted);
            if (!started) PWR_LOG_AT(pwr::site::kDeepTimerNotStarted);
        }
    }
    mStore.pmDbWrite("PSM", static_cast<char>('0' + deepMode));
}

void DeepMode::onTimer() {
    mProfileLock.applyProfileLock(mSettings.mDeepProfile);
    // Not granted: the timer fires again and the acquisition is retried.
    if (mProfileLock.held() < 1) return;
    {
        // Deep mode is applied once per arming.
        pwr::MutexLock lock(mDeepTimerMutex);
        Timer().Timer_disable(mDeepTimerStruct.get());
    }

    if (mDebugEnabled)
        PWR_LOG_AT(pwr::site::kPropSize, static_cast<unsigned long>(mPropList.size()));
    mPropResult = mPropList.empty() ? -1
                                    : mProperties.applyProp(mPropList.data(),
                                                            static_cast<int>(mPropList.size()));

    mDeepModeState = kDeepModeApplied;
    if (mDebugEnabled) PWR_LOG_AT(pwr::site::kDeepTimerDisabled, kDeepModeApplied);
}

void DeepMode::resetDeepMode() {
    if (mDebugEnabled) PWR_LOG_AT(pwr::site::kResetDeepMode);
    mDeepModeState = 0;
    // A result of 0 means the last property read was empty: nothing to put back. -1 (nothing
    // was applied) still releases.
    if (mPropResult == 0) return;
    mProperties.releaseProp(mPropList);
    // The profile lock stays: event dispatch releases it.
}

void DeepMode::disarmTimer() {
    pwr::MutexLock lock(mDeepTimerMutex);
    Timer().Timer_disable(mDeepTimerStruct.get());
}

void DeepMode::releaseTimer() {
    takeTimer().reset();
}

pwr::TimerHandle DeepMode::takeTimer() {
    pwr::MutexLock lock(mDeepTimerMutex);
    mDeepTimerStructCopy = nullptr;
    return std::move(mDeepTimerStruct);
}

std::pair<Timer_s*, Timer_s*> DeepMode::timers() {
    pwr::MutexLock lock(mDeepTimerMutex);
    return {mDeepTimerStruct.get(), mDeepTimerStructCopy};
}

void DeepMode::adoptTimer(pwr::TimerHandle timer) {
    takeTimer().reset();
    pwr::MutexLock lock(mDeepTimerMutex);
    mDeepTimerStructCopy = timer.get();
    mDeepTimerStruct = std::move(timer);
}

void DeepMode::fillSnapshot(PSMFeatureSnapshot* out) {
    out->deepModeState = mDeepModeState;
    out->propResult = mPropResult;
    pwr::MutexLock lock(mDeepTimerMutex);
    out->deepTimerExists = mDeepTimerStruct ? 1 : 0;
    out->deepTimerArmed = Timer().Timer_isActive(mDeepTimerStruct.get()) ? 1 : 0;
}
