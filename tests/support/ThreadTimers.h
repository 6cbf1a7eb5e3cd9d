#pragma once

// POSIX timers for test programs. Every test program that loads the plug-in links
// tests/support/ThreadTimers.cpp, which defines timer_create, timer_settime, timer_gettime and
// timer_delete itself, so the plug-in's calls bind to them instead of the C library's. It also
// records the calls for pwr::test::TimerSyscalls (tests/support/TimerSyscalls.h).
//
// Why: the C library runs SIGEV_THREAD notifications on a helper thread that it starts with its
// own internal thread creation; ThreadSanitizer never sees that thread created and crashes in it,
// and no test can tell when such a thread has finished. Here every expiry runs its notify
// function on a new std::thread, so the sanitizers see every thread and a test can wait until no
// callback is running before it destroys what the callbacks use; or, on virtual time, on the
// thread that advances the clock.
//
// What is kept of the C library's behaviour (tests/libc/PosixTimerTest.cpp checks the C library's):
// SIGEV_THREAD timers on CLOCK_REALTIME, CLOCK_MONOTONIC and CLOCK_BOOTTIME; relative arming
// (the plug-in arms no absolute time: flags other than 0 fail with EINVAL); one-shot and
// periodic; an all-zero it_value disarms; a negative or out-of-range field fails with EINVAL;
// each expiry calls the notify function on a thread other than the caller's, and expiries of one
// timer may overlap; a late periodic timer skips the expiries it missed; callbacks already
// started keep running after their timer is disarmed or deleted; a forked child inherits no
// timers. Any other kind of notification or clock is handed to the C library.

#include <time.h>

#include <chrono>
#include <cstdint>

namespace pwr::test {

// Expiries of `timer` handed to its notify function so far; 0 for a timer that does not exist.
uint64_t timerExpiries(timer_t timer);

// Number of timers of this process that exist now (created and not deleted), armed or not.
// Stands for counting the kernel's timers in /proc/self/timers, which these timers are not.
int liveTimers();

// Waits until no notify function is running. Disarm the timers first: an armed timer may start
// another callback at any moment. False when callbacks were still running at the timeout.
bool waitForTimerCallbacks(std::chrono::milliseconds timeout = std::chrono::seconds(10));

// While one lives, the timers of this process follow a virtual clock instead of the real one:
// they expire only in advance(), which runs each due notify function on the calling thread, in
// due order, before it returns. Unit tests run on it; the stress tests keep real time.
class VirtualTime {
  public:
    VirtualTime();
    ~VirtualTime();
    VirtualTime(const VirtualTime&) = delete;
    VirtualTime& operator=(const VirtualTime&) = delete;

    void advance(std::chrono::milliseconds by);
};

// While one lives, real time runs `divisor` times faster for every timer duration of 100 ms or
// more (never below 2 ms), so that a stress test meets the plug-in's one-second timers often.
class ScaledTime {
  public:
    explicit ScaledTime(int divisor);
    ~ScaledTime();
    ScaledTime(const ScaledTime&) = delete;
    ScaledTime& operator=(const ScaledTime&) = delete;
};

}  // namespace pwr::test
