#pragma once

#include <gtest/gtest.h>

namespace pwr::test {

// Whether the callback of a real SIGEV_THREAD timer can run in this build. glibc starts the
// timers' notification threads behind ThreadSanitizer's back, and the first allocation on one of
// them crashes the process (google/sanitizers#1612). Code running on a timer's thread is covered
// under ThreadSanitizer by tests that call the callbacks from threads of their own.
inline constexpr bool kTimerThreadsUsable =
#if defined(__SANITIZE_THREAD__)
        false;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
        false;
#else
        true;
#endif
#else
        true;
#endif

}  // namespace pwr::test

// Skips a test that needs a real timer to fire when the build cannot run timer threads.
#define PWR_REQUIRE_TIMER_THREADS()                                                   \
    do {                                                                              \
        if (!::pwr::test::kTimerThreadsUsable) {                                      \
            GTEST_SKIP() << "SIGEV_THREAD timer threads crash under ThreadSanitizer"; \
        }                                                                             \
    } while (0)
