#pragma once

#include <time.h>

#include <vector>

namespace pwr::test {

// One timer_settime call as the C library received it.
struct SettimeCall {
    timer_t id;
    int flags;
    itimerspec spec;
    int result;
};

// Read-back of the POSIX timer calls made by the process, as the test timers (ThreadTimers.h)
// received them.
class TimerSyscalls {
  public:
    // Forgets everything recorded so far.
    static void reset();
    // Timers created successfully, in order.
    static std::vector<timer_t> created();
    // Timers deleted (whatever the result), in order.
    static std::vector<timer_t> deleted();
    static std::vector<SettimeCall> settimes();
    // The settime calls made on `id`.
    static std::vector<SettimeCall> settimesOf(timer_t id);
};

}  // namespace pwr::test
