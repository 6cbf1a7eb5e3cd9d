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
// thread, with no lock held. A notification that arrives for a record already deleted (the C
// library may have started its thread before timer_delete) is dropped: dispatch looks the record
// up among the live ones and counts the callback as running until it returns.
//
// Notifications carry only the record's address. If a record is deleted and malloc hands the same
// address to a new record before a late notification of the old one is dispatched, that
// notification runs the new record's callback with the new record's argument: one extra expiry of
// a live timer, which periodic callbacks tolerate anyway (expiries may overlap). It never reaches
// a freed record or its argument.
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

namespace pwr {

// The one owner of a timer record. Releasing it deletes the POSIX timer and frees the record under
// timerMutex, as Timer_destroy does, and then waits until no callback of the record is still
// running, so that whatever the callbacks touch may be freed right afterwards. A handle must not
// be released from one of its own callbacks (that would wait for itself; debug builds assert).
class TimerHandle {
  public:
    TimerHandle() = default;
    // A new, unarmed timer calling callback(argument); an empty handle when creation failed.
    TimerHandle(void (*callback)(void*), void* argument);
    ~TimerHandle() { reset(); }
    TimerHandle(TimerHandle&& other) noexcept : mRecord(other.mRecord) { other.mRecord = nullptr; }
    TimerHandle& operator=(TimerHandle&& other) noexcept;
    TimerHandle(const TimerHandle&) = delete;
    TimerHandle& operator=(const TimerHandle&) = delete;

    // The record, for the Timer operations; null when empty.
    Timer_s* get() const { return mRecord; }
    explicit operator bool() const { return mRecord != nullptr; }
    // Deletes and frees the record, then waits for its running callbacks; empty afterwards.
    void reset();

  private:
    Timer_s* mRecord = nullptr;
};

}  // namespace pwr
