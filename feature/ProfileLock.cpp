#include "feature/ProfileLock.h"

#include <climits>

#include "feature/LogSites.h"
#include "platform/PowerHelper.h"

int ProfileLock::applyProfile(int* list, int count, int duration) const {
    int result = -1;
    if (mPowerHelper != nullptr && PowerHelper::perflock_acq != nullptr) {
        result = PowerHelper::perflock_acq(0, duration, list, count);
    }
    if (result > 0) return result;
    if (mDebugEnabled) PWR_LOG_AT(pwr::site::kApplyFailed, result);
    return result;
}

void ProfileLock::releaseProfile(int handle) const {
    if (handle == -1 || mPowerHelper == nullptr) return;
    if (mDebugEnabled) PWR_LOG_AT(pwr::site::kReleasingHandle, handle);
    if (PowerHelper::perflock_rel != nullptr) PowerHelper::perflock_rel(handle);
}

int ProfileLock::readAndApplyProfile(const Profile& profile, int duration) const {
    PWR_LOG_AT(pwr::site::kProfileSize, static_cast<int>(profile.size()));
    if (profile.empty()) return -1;
    // Only the first list of a profile is ever applied.
    std::vector<int> list = profile[0];
    PWR_LOG_AT(pwr::site::kProfileArraySize, static_cast<int>(list.size()));
    if (list.empty()) return -1;
    int result = -1;
    if (PowerHelper::perflock_acq != nullptr) {
        result = PowerHelper::perflock_acq(0, duration, list.data(), static_cast<int>(list.size()));
    }
    if (result <= 0) PWR_LOG_AT(pwr::site::kProfileApplyFailed, result);
    return result;
}

void ProfileLock::logApplyAttempt() {
    PWR_LOG_AT(pwr::site::kTryingProfileLock);
}

void ProfileLock::applyProfileLock(const Profile& profile) {
    logApplyAttempt();
    pwr::MutexLock lock(profileMutex);
    applyLocked(profile);
}

void ProfileLock::applyLocked(const Profile& profile) {
    if (heldProfileHandle >= 1) return;  // callers switching profiles release first
    const int handle = readAndApplyProfile(profile, INT_MAX);
    if (handle >= 1) heldProfileHandle = handle;
}

void ProfileLock::releaseProfileLock() {
    pwr::MutexLock lock(profileMutex);
    releaseLocked();
}

void ProfileLock::releaseLocked() {
    if (heldProfileHandle == -1) return;
    PWR_LOG_AT(pwr::site::kReleasingProfile, heldProfileHandle);
    if (PowerHelper::perflock_rel != nullptr) PowerHelper::perflock_rel(heldProfileHandle);
    heldProfileHandle = -1;
}

int ProfileLock::held() {
    pwr::MutexLock lock(profileMutex);
    return heldProfileHandle;
}

void ProfileLock::adopt(int handle) {
    pwr::MutexLock lock(profileMutex);
    heldProfileHandle = handle;
}
