#include "platform/Timer.h"

#include <cassert>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <unordered_map>

pwr::Mutex timerMutex;

namespace {

// What dispatch needs of a live record, kept apart from the record so that a callback can go on
// running after its record was freed and the record's deleter can still wait for it.
struct Dispatch {
    void (*callback)(void*);
    void* argument;
    int running = 0;        // callbacks started and not yet returned
    bool awaited = false;   // a TimerHandle waits for `running` to reach 0
    bool orphaned = false;  // deleted by Timer_destroy: the last callback to return frees this
};

// The live records, by address. A leaf lock, never held while a callback runs. Destroyed at exit
// (or unload) like timerMutex: a timer still alive then must not fire any more.
struct Registry {
    pwr::Mutex mutex;
    std::condition_variable_any callbackReturned;
    std::unordered_map<const Timer_s*, std::unique_ptr<Dispatch>> live GUARDED_BY(mutex);
};

Registry& registry() {
    static Registry instance;
    return instance;
}

// The dispatch entry a callback on this thread belongs to, to catch a handle released from its
// own callback.
thread_local const Dispatch* tRunningDispatch = nullptr;

// Takes the record out of the live ones: no notification dispatched from now on reaches it.
std::unique_ptr<Dispatch> unregister(const Timer_s* timer) {
    if (timer == nullptr) return nullptr;
    Registry& r = registry();
    pwr::MutexLock lock(r.mutex);
    auto it = r.live.find(timer);
    if (it == r.live.end()) return nullptr;
    std::unique_ptr<Dispatch> dispatch = std::move(it->second);
    r.live.erase(it);
    return dispatch;
}

// Timer_destroy's own steps: under timerMutex, delete the POSIX timer, then free the record.
void deleteRecord(Timer_s* timer) {
    pwr::MutexLock lock(timerMutex);
    if (timer == nullptr) return;
    timer_delete(timer->timerId);
    free(timer);
}

// Periodic schedules: first expiry and period both `ms`.
itimerspec periodic(int ms) {
    itimerspec spec{};
    spec.it_value.tv_sec = ms / 1000;
    spec.it_value.tv_nsec = static_cast<long>(ms - spec.it_value.tv_sec * 1000) * 1000000L;
    spec.it_interval = spec.it_value;
    return spec;
}

// One-shot schedules take the sub-second remainder as microseconds (x1000, not x1000000): that is
// how callers have always been timed, so it is kept.
itimerspec single(int ms) {
    itimerspec spec{};
    spec.it_value.tv_sec = ms / 1000;
    spec.it_value.tv_nsec = static_cast<long>(ms - spec.it_value.tv_sec * 1000) * 1000L;
    return spec;
}

bool arm(Timer_s* timer, const itimerspec& spec) REQUIRES(timerMutex) {
    return timer_settime(timer->timerId, 0, &spec, nullptr) == 0;
}

}  // namespace

void timerCallback(sigval value) {
    const auto* timer = static_cast<const Timer_s*>(value.sival_ptr);
    if (timer == nullptr) return;
    Registry& r = registry();
    Dispatch* dispatch = nullptr;
    {
        pwr::MutexLock lock(r.mutex);
        auto it = r.live.find(timer);
        if (it == r.live.end()) return;
        dispatch = it->second.get();
        ++dispatch->running;
    }
    const Dispatch* const outer = tRunningDispatch;
    tRunningDispatch = dispatch;
    dispatch->callback(dispatch->argument);
    tRunningDispatch = outer;

    pwr::MutexLock lock(r.mutex);
    if (--dispatch->running != 0) return;
    if (dispatch->orphaned) {
        delete dispatch;
    } else if (dispatch->awaited) {
        r.callbackReturned.notify_all();
    }
}

Timer_s* Timer::Timer_create(void (*callback)(void*), void* argument) {
    auto* timer = static_cast<Timer_s*>(malloc(sizeof(Timer_s)));
    mLastCreated = timer;
    if (timer == nullptr) return nullptr;

    sigevent event;
    memset(&event, 0, sizeof(event));
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_notify_function = timerCallback;
    event.sigev_value.sival_ptr = timer;
    event.sigev_notify_attributes = nullptr;
    if (timer_create(CLOCK_REALTIME, &event, &timer->timerId) != 0) {
        free(timer);
        return nullptr;
    }
    timer->callback = callback;
    timer->active = false;
    timer->argument = argument;
    // Unarmed until now, so no notification can have been missed.
    Registry& r = registry();
    pwr::MutexLock lock(r.mutex);
    try {
        r.live.emplace(timer, std::make_unique<Dispatch>(Dispatch{callback, argument}));
    } catch (const std::bad_alloc&) {
        timer_delete(timer->timerId);
        free(timer);
        return nullptr;
    }
    return timer;
}

void Timer::Timer_destroy(Timer_s* timer) {
    std::unique_ptr<Dispatch> dispatch = unregister(timer);
    deleteRecord(timer);
    if (dispatch == nullptr) return;
    // Does not wait: a callback still running frees the entry when it returns.
    Registry& r = registry();
    pwr::MutexLock lock(r.mutex);
    if (dispatch->running != 0) {
        dispatch->orphaned = true;
        dispatch.release();
    }
}

bool Timer::Timer_isActive(const Timer_s* timer) {
    pwr::MutexLock lock(timerMutex);
    return timer != nullptr && timer->active;
}

bool Timer::Timer_scheduleInterval(Timer_s* timer, int milliseconds) {
    pwr::MutexLock lock(timerMutex);
    if (timer == nullptr || timer->active) return false;
    if (!arm(timer, periodic(milliseconds))) return false;
    timer->active = true;
    return true;
}

bool Timer::Timer_reschedule_interval(Timer_s* timer, int milliseconds) {
    pwr::MutexLock lock(timerMutex);
    if (timer == nullptr) return false;
    if (!arm(timer, periodic(milliseconds))) return false;
    timer->active = true;
    return true;
}

bool Timer::Timer_scheduleSingle(Timer_s* timer, int milliseconds) {
    pwr::MutexLock lock(timerMutex);
    if (timer == nullptr || timer->active) return false;
    return arm(timer, single(milliseconds));
}

void Timer::Timer_disable(Timer_s* timer) {
    pwr::MutexLock lock(timerMutex);
    if (timer == nullptr || !timer->active) return;
    if (arm(timer, itimerspec{})) timer->active = false;
}

namespace pwr {

TimerHandle::TimerHandle(void (*callback)(void*), void* argument)
    : mRecord(Timer().Timer_create(callback, argument)) {}

TimerHandle& TimerHandle::operator=(TimerHandle&& other) noexcept {
    if (this != &other) {
        reset();
        mRecord = other.mRecord;
        other.mRecord = nullptr;
    }
    return *this;
}

void TimerHandle::reset() {
    if (mRecord == nullptr) return;
    const std::unique_ptr<Dispatch> dispatch = unregister(mRecord);
    deleteRecord(mRecord);
    mRecord = nullptr;
    if (dispatch == nullptr) return;
    // Waiting for itself would never end.
    assert(tRunningDispatch != dispatch.get() && "a timer handle released from its own callback");
    Registry& r = registry();
    pwr::MutexLock lock(r.mutex);
    dispatch->awaited = true;
    while (dispatch->running != 0) r.callbackReturned.wait(r.mutex);
}

}  // namespace pwr
