#pragma once

#include <signal.h>
#include <time.h>

#include "platform/Mutex.h"

// One timer: its callback, the callback's argument, the POSIX timer and whether a periodic
// schedule is armed. Allocated with malloc by Timer_create, released with free.
struct Timer_s {
    void (*callback)(void*);
    void* argument;
    timer_t timerId;
    bool active;
};

// Guards every Timer_s record of the process (the active mark in particular).
extern pwr::Mutex timerMutex;

// Notification function of every timer: runs the record's callback on the C library's timer
// thread, with no lock held.
void timerCallback(sigval value);

// Periodic and one-shot callbacks over POSIX timers with thread notification. Every operation
// accepts a null record and then does nothing (or answers false).
class Timer {
  public:
    // A new, unarmed record whose expiries call callback(argument); null on failure.
    Timer_s* Timer_create(void (*callback)(void*), void* argument);
    // Deletes the POSIX timer and frees the record, armed or not. Does not wait for a running
    // callback.
    void Timer_destroy(Timer_s* timer);
    bool Timer_isActive(const Timer_s* timer);
    // Arms a periodic timer (first expiry and period both `milliseconds`) unless already active.
    bool Timer_scheduleInterval(Timer_s* timer, int milliseconds);
    // Arms a periodic timer, replacing any running schedule.
    bool Timer_reschedule_interval(Timer_s* timer, int milliseconds);
    // Arms one expiry unless a periodic schedule is active. The sub-second part of
    // `milliseconds` is taken as microseconds: 1500 expires after 1 s and 500 us.
    bool Timer_scheduleSingle(Timer_s* timer, int milliseconds);
    // Disarms an active periodic timer; an inactive record is left untouched.
    void Timer_disable(Timer_s* timer);

  private:
    Timer_s* mLastCreated = nullptr;
};
