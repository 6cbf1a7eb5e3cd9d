#include "host/tools/VirtualClock.h"

#include <errno.h>

#include <limits>

namespace pwr::tools {
namespace {

constexpr int64_t kNsPerSecond = 1000000000;
constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

// A duration as nanoseconds; false for what timer_settime rejects (negative seconds, nanoseconds
// outside [0, 1e9)). Durations beyond the int64 range saturate: such a timer never fires.
bool toNs(const timespec& ts, int64_t* out) {
    if (ts.tv_sec < 0 || ts.tv_nsec < 0 || ts.tv_nsec >= kNsPerSecond) return false;
    if (ts.tv_sec > (kNever - ts.tv_nsec) / kNsPerSecond) {
        *out = kNever;
    } else {
        *out = static_cast<int64_t>(ts.tv_sec) * kNsPerSecond + ts.tv_nsec;
    }
    return true;
}

timespec toTimespec(int64_t ns) {
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(ns / kNsPerSecond);
    ts.tv_nsec = static_cast<long>(ns % kNsPerSecond);
    return ts;
}

uintptr_t keyOf(timer_t id) {
    return reinterpret_cast<uintptr_t>(id);
}

int failWith(int error) {
    errno = error;
    return -1;
}

}  // namespace

VirtualClock& VirtualClock::instance() {
    static VirtualClock clock;
    return clock;
}

int64_t VirtualClock::nowNs() {
    MutexLock lock(mMutex);
    return mNowNs;
}

void VirtualClock::advanceTo(int64_t ns) {
    for (;;) {
        void (*notify)(sigval) = nullptr;
        sigval value{};
        {
            MutexLock lock(mMutex);
            Entry* due = nullptr;
            for (auto& [key, entry] : mTimers) {
                if (entry.armed && entry.expiryNs <= ns &&
                    (due == nullptr || entry.expiryNs < due->expiryNs)) {
                    due = &entry;
                }
            }
            if (due == nullptr) {
                if (ns > mNowNs) mNowNs = ns;
                return;
            }
            // An expiry set in the past (an absolute time) fires now, not back then.
            if (due->expiryNs > mNowNs) mNowNs = due->expiryNs;
            if (due->intervalNs > 0 && due->expiryNs <= kNever - due->intervalNs) {
                due->expiryNs += due->intervalNs;
            } else {
                due->armed = false;
            }
            notify = due->notify;
            value = due->value;
        }
        if (notify != nullptr) notify(value);
    }
}

int VirtualClock::timerCount() {
    MutexLock lock(mMutex);
    return static_cast<int>(mTimers.size());
}

int VirtualClock::armedCount() {
    MutexLock lock(mMutex);
    int armed = 0;
    for (const auto& [key, entry] : mTimers) armed += entry.armed ? 1 : 0;
    return armed;
}

int VirtualClock::createTimer(clockid_t clock, const sigevent* event, timer_t* id) {
    if (clock != CLOCK_REALTIME && clock != CLOCK_MONOTONIC && clock != CLOCK_BOOTTIME) {
        return failWith(EINVAL);
    }
    if (id == nullptr) return failWith(EINVAL);
    Entry entry;
    // No sigevent means a signal (SIGALRM), which cannot be simulated.
    if (event == nullptr) return failWith(EINVAL);
    if (event->sigev_notify == SIGEV_THREAD) {
        if (event->sigev_notify_function == nullptr) return failWith(EINVAL);
        entry.notify = event->sigev_notify_function;
        entry.value = event->sigev_value;
    } else if (event->sigev_notify != SIGEV_NONE) {
        return failWith(EINVAL);
    }
    MutexLock lock(mMutex);
    const uintptr_t key = mNextId++;
    mTimers.emplace(key, entry);
    *id = reinterpret_cast<timer_t>(key);
    return 0;
}

VirtualClock::Entry* VirtualClock::findLocked(timer_t id) {
    auto it = mTimers.find(keyOf(id));
    return it == mTimers.end() ? nullptr : &it->second;
}

void VirtualClock::remainingLocked(const Entry& entry, itimerspec* out) {
    *out = itimerspec{};
    if (!entry.armed) return;
    out->it_value = toTimespec(entry.expiryNs > mNowNs ? entry.expiryNs - mNowNs : 1);
    out->it_interval = toTimespec(entry.intervalNs);
}

int VirtualClock::setTime(timer_t id, int flags, const itimerspec* value, itimerspec* old) {
    if (value == nullptr) return failWith(EINVAL);
    int64_t valueNs = 0;
    int64_t intervalNs = 0;
    if (!toNs(value->it_value, &valueNs) || !toNs(value->it_interval, &intervalNs)) {
        return failWith(EINVAL);
    }
    MutexLock lock(mMutex);
    Entry* entry = findLocked(id);
    if (entry == nullptr) return failWith(EINVAL);
    if (old != nullptr) remainingLocked(*entry, old);
    if (valueNs == 0) {
        entry->armed = false;  // a zero first expiry disarms
        return 0;
    }
    entry->armed = true;
    if (flags & TIMER_ABSTIME) {
        entry->expiryNs = valueNs;
    } else {
        entry->expiryNs = valueNs > kNever - mNowNs ? kNever : mNowNs + valueNs;
    }
    entry->intervalNs = intervalNs;
    return 0;
}

int VirtualClock::getTime(timer_t id, itimerspec* value) {
    if (value == nullptr) return failWith(EINVAL);
    MutexLock lock(mMutex);
    Entry* entry = findLocked(id);
    if (entry == nullptr) return failWith(EINVAL);
    remainingLocked(*entry, value);
    return 0;
}

int VirtualClock::deleteTimer(timer_t id) {
    MutexLock lock(mMutex);
    if (mTimers.erase(keyOf(id)) == 0) return failWith(EINVAL);
    return 0;
}

}  // namespace pwr::tools
