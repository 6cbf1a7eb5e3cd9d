#pragma once

#include <signal.h>
#include <time.h>

#include <cstdint>
#include <map>

#include "host/tools/Replay.h"
#include "platform/Mutex.h"

namespace pwr::tools {

// Simulated time for the POSIX timers of the whole process. A simulator executable provides
// timer_create, timer_settime, timer_gettime and timer_delete itself (VirtualTimers.cpp) and
// exports them, so the plug-in's own timer calls bind to this clock through the dynamic linker:
// the plug-in's code is the one that runs on a device, without a branch for simulation.
//
// Time moves only in advanceTo(); each expiry up to the target runs its notification function on
// the calling thread, in time order (timers due at the same time in creation order). A periodic
// timer fires once per period, so an hour of 1-second ticks is 3600 calls, and every run of the
// same scenario gives the same sequence.
class VirtualClock {
  public:
    // The clock of the process; starts at 0 with no timer.
    static VirtualClock& instance();

    VirtualClock() = default;
    VirtualClock(const VirtualClock&) = delete;
    VirtualClock& operator=(const VirtualClock&) = delete;

    // Nanoseconds of simulated time.
    int64_t nowNs() EXCLUDES(mMutex);

    // Fires every expiry up to and including `ns`, then sets the time to `ns`. A time in the
    // past changes nothing. Notification functions run with no lock of the clock held, so they
    // may arm, disarm and delete timers; they must not advance the clock themselves.
    void advanceTo(int64_t ns) EXCLUDES(mMutex);

    // Number of timers that exist / that are armed.
    int timerCount() EXCLUDES(mMutex);
    int armedCount() EXCLUDES(mMutex);

    // The POSIX timer calls, with their contract: 0 on success, or -1 with errno set. Clocks:
    // CLOCK_REALTIME, CLOCK_MONOTONIC and CLOCK_BOOTTIME, all on the one simulated time.
    // Notification: SIGEV_THREAD (the function runs in advanceTo) or SIGEV_NONE; signals cannot
    // be simulated and are refused with EINVAL.
    int createTimer(clockid_t clock, const sigevent* event, timer_t* id) EXCLUDES(mMutex);
    int setTime(timer_t id, int flags, const itimerspec* value, itimerspec* old) EXCLUDES(mMutex);
    int getTime(timer_t id, itimerspec* value) EXCLUDES(mMutex);
    int deleteTimer(timer_t id) EXCLUDES(mMutex);

  private:
    struct Entry {
        void (*notify)(sigval) = nullptr;  // null for SIGEV_NONE
        sigval value{};
        bool armed = false;
        int64_t expiryNs = 0;
        int64_t intervalNs = 0;
    };

    Entry* findLocked(timer_t id) REQUIRES(mMutex);
    void remainingLocked(const Entry& entry, itimerspec* out) REQUIRES(mMutex);

    Mutex mMutex;
    int64_t mNowNs GUARDED_BY(mMutex) = 0;
    uintptr_t mNextId GUARDED_BY(mMutex) = 1;
    std::map<uintptr_t, Entry> mTimers GUARDED_BY(mMutex);  // ordered: creation order breaks ties
};

// A replay's time base on the process's virtual clock: waiting for an event's time runs the
// feature's timers up to it, instantly.
class VirtualReplayClock : public ReplayClock {
  public:
    explicit VirtualReplayClock(VirtualClock& clock = VirtualClock::instance()) : mClock(clock) {}
    int64_t nowMs() override { return mClock.nowNs() / 1000000; }
    void advanceTo(int64_t ms) override { mClock.advanceTo(ms * 1000000); }

  private:
    VirtualClock& mClock;
};

}  // namespace pwr::tools
