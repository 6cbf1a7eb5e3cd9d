#pragma once

#include <memory>
#include <vector>

#include "platform/Mutex.h"

class PowerHelper;
using Profile = std::vector<std::vector<int>>;

// The one profile lock the feature holds at a time, and the plain perf-lock calls that the task
// boosts use. Event dispatch, the GPU monitor's switch and deep mode change the held lock only
// here; profileMutex serialises them and is held across the library call, so a release can never
// overtake the acquisition it undoes.
//
// Applying treats any handle below 1 as "none held", releasing treats only -1 so; the two agree
// because heldProfileHandle only ever holds -1 or a granted (positive) handle.
class ProfileLock {
  public:
    // `powerHelper` null means no actuation; `debugEnabled` gates the plain calls' lines.
    ProfileLock(const std::unique_ptr<PowerHelper>& powerHelper, const bool& debugEnabled)
        : mPowerHelper(powerHelper), mDebugEnabled(debugEnabled) {}
    ProfileLock(const ProfileLock&) = delete;
    ProfileLock& operator=(const ProfileLock&) = delete;

    // A new perf lock on `count` ints of `list`; the library's handle (above 0 on success) or -1.
    int applyProfile(int* list, int count, int duration) const;
    // Releases a perf lock; nothing for -1.
    void releaseProfile(int handle) const;
    // A new perf lock on the first list of `profile`; -1 for an empty profile or list.
    int readAndApplyProfile(const Profile& profile, int duration) const;

    // Takes the profile lock with `profile` unless one is already held.
    void applyProfileLock(const Profile& profile) EXCLUDES(profileMutex);
    // Gives back the profile lock if one is held.
    void releaseProfileLock() EXCLUDES(profileMutex);
    // The same two steps for a caller that orders profileMutex after a lock of its own and takes
    // it itself. applyProfileLock's first line is written before the mutex is taken: callers of
    // applyLocked write it with logApplyAttempt first.
    static void logApplyAttempt();
    void applyLocked(const Profile& profile) REQUIRES(profileMutex);
    void releaseLocked() REQUIRES(profileMutex);

    // The handle held now, -1 for none.
    int held() EXCLUDES(profileMutex);
    int heldLocked() const REQUIRES(profileMutex) { return heldProfileHandle; }
    // Hands over a lock taken elsewhere as the one held (tests and benchmarks that start from a
    // held profile without the switch's own work).
    void adopt(int handle) EXCLUDES(profileMutex);

    pwr::Mutex profileMutex;

  private:
    const std::unique_ptr<PowerHelper>& mPowerHelper;
    const bool& mDebugEnabled;
    int heldProfileHandle GUARDED_BY(profileMutex) = -1;
};
