// The POSIX timer functions of a simulator executable, on the process's virtual clock. Linked only
// into executables, which export these symbols (see the pwr_virtual_timers target): the dynamic
// linker then binds every timer call of the plug-in to them instead of the C library's. Never
// link this into a library or a program that needs real timers.

#include <time.h>

#include "host/tools/VirtualClock.h"

#define PWR_EXPORT __attribute__((visibility("default")))

using pwr::tools::VirtualClock;

extern "C" {

PWR_EXPORT int timer_create(clockid_t clock, sigevent* event, timer_t* id) noexcept {
    return VirtualClock::instance().createTimer(clock, event, id);
}

PWR_EXPORT int timer_settime(timer_t id, int flags, const itimerspec* value,
                             itimerspec* old) noexcept {
    return VirtualClock::instance().setTime(id, flags, value, old);
}

PWR_EXPORT int timer_gettime(timer_t id, itimerspec* value) noexcept {
    return VirtualClock::instance().getTime(id, value);
}

PWR_EXPORT int timer_delete(timer_t id) noexcept {
    return VirtualClock::instance().deleteTimer(id);
}

// Expiries are delivered one call each, so none is ever lost.
PWR_EXPORT int timer_getoverrun(timer_t id) noexcept {
    itimerspec unused;
    return VirtualClock::instance().getTime(id, &unused) == 0 ? 0 : -1;
}

}  // extern "C"
