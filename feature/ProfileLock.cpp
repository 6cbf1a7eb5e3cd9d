// Profile locks. The feature holds at most one profile lock at a time (heldProfileHandle, under
// profileMutex); the plain applyProfile/releaseProfile pair serves the per-process task boosts.
//
// Applying treats any handle below 1 as "none held", releasing treats only -1 so; the two agree
// because heldProfileHandle only ever holds -1 or a granted (positive) handle.

#include <climits>

#include "feature/PSMPowerOptFeature.h"

#include "platform/Log.h"
#include "platform/PowerHelper.h"

using pwr::kModFeature;

int PSMPowerOptFeature::applyProfile(int* list, int count, int duration) {
    int result = -1;
    if (powerHelper != nullptr && PowerHelper::perflock_acq != nullptr) {
        result = PowerHelper::perflock_acq(0, duration, list, count);
    }
    if (result > 0) return result;
    if (debugEnabled) {
        PWR_LOG(kModFeature, "applyProfile", 954, "Failed to apply resource, handle = %d", result);
    }
    return result;
}

void PSMPowerOptFeature::releaseProfile(int handle) {
    if (handle == -1 || powerHelper == nullptr) return;
    if (debugEnabled) PWR_LOG(kModFeature, "releaseProfile", 964, "Releasing handle:%d", handle);
    if (PowerHelper::perflock_rel != nullptr) PowerHelper::perflock_rel(handle);
}

int PSMPowerOptFeature::readAndApplyProfile(Profile& profile, int duration) {
    PWR_LOG(kModFeature, "readAndApplyProfile", 899, "Profile size %d",
            static_cast<int>(profile.size()));
    if (profile.empty()) return -1;
    // Only the first list of a profile is ever applied.
    std::vector<int> list = profile[0];
    PWR_LOG(kModFeature, "readAndApplyProfile", 909, " Array size %d",
            static_cast<int>(list.size()));
    if (list.empty()) return -1;
    int result = -1;
    if (PowerHelper::perflock_acq != nullptr) {
        result = PowerHelper::perflock_acq(0, duration, list.data(), static_cast<int>(list.size()));
    }
    if (result <= 0) {
        PWR_LOG(kModFeature, "readAndApplyProfile", 918, "Failed to apply resource, handle = %d",
                result);
    }
    return result;
}

void PSMPowerOptFeature::applyProfileLock(Profile& profile) {
    PWR_LOG(kModFeature, "applyProfileLock", 936, "Trying to applyProfileLock.");
    pwr::MutexLock lock(profileMutex);
    if (heldProfileHandle >= 1) return;  // callers switching profiles release first
    // The library call is made under the lock so that a release can never overtake it.
    const int handle = readAndApplyProfile(profile, INT_MAX);
    if (handle >= 1) heldProfileHandle = handle;
}

void PSMPowerOptFeature::releaseProfileLock() {
    pwr::MutexLock lock(profileMutex);
    if (heldProfileHandle == -1) return;
    PWR_LOG(kModFeature, "releaseProfileLock", 929, "Releasing profile, handle = %d",
            heldProfileHandle);
    if (PowerHelper::perflock_rel != nullptr) PowerHelper::perflock_rel(heldProfileHandle);
    heldProfileHandle = -1;
}
