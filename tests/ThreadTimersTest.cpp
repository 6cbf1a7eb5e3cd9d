// The test programs' own POSIX timers (tests/support/ThreadTimers.cpp): what they offer beyond
// the C library's contract (expiry counts, the armed count, waiting for running callbacks), the
// hand-over of other timers to the C library, and timers in a forked child.

#include "tests/support/ThreadTimers.h"
#include "tests/support/TimerSyscalls.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;

// Shared with callbacks that may outlive a test; never freed.
struct Gate {
    std::mutex mutex;
    std::condition_variable changed;
    // All fields below are guarded by mutex.
    int entered = 0;
    int left = 0;
    bool open = true;
};

Gate& keepGate() {
    static auto* gates = new std::vector<Gate*>();
    static std::mutex gatesMutex;
    std::lock_guard<std::mutex> lock(gatesMutex);
    gates->push_back(new Gate());
    return *gates->back();
}

void throughGate(sigval value) {
    auto* gate = static_cast<Gate*>(value.sival_ptr);
    std::unique_lock<std::mutex> lock(gate->mutex);
    ++gate->entered;
    gate->changed.notify_all();
    gate->changed.wait_for(lock, 10s, [gate] { return gate->open; });
    ++gate->left;
    gate->changed.notify_all();
}

timer_t createTimer(Gate* gate, int notify = SIGEV_THREAD) {
    sigevent event;
    memset(&event, 0, sizeof(event));
    event.sigev_notify = notify;
    event.sigev_notify_function = throughGate;
    event.sigev_value.sival_ptr = gate;
    timer_t id{};
    EXPECT_EQ(timer_create(CLOCK_REALTIME, &event, &id), 0) << strerror(errno);
    return id;
}

itimerspec every(std::chrono::milliseconds period) {
    itimerspec s{};
    s.it_value.tv_sec = static_cast<time_t>(period.count() / 1000);
    s.it_value.tv_nsec = static_cast<long>(period.count() % 1000) * 1000000L;
    s.it_interval = s.it_value;
    return s;
}

// Arms `id` to expire every `period` (an all-zero setting for 0 ms, which disarms it).
int armEvery(timer_t id, std::chrono::milliseconds period) {
    const itimerspec s = every(period);
    return timer_settime(id, 0, &s, nullptr);
}

template <typename Predicate>
bool waitGate(Gate& gate, Predicate done) {
    std::unique_lock<std::mutex> lock(gate.mutex);
    return gate.changed.wait_for(lock, 10s, [&] { return done(gate); });
}

TEST(ThreadTimers, Expiries_CountEveryCallbackStarted) {
    Gate& gate = keepGate();
    timer_t id = createTimer(&gate);
    ASSERT_EQ(armEvery(id, 3ms), 0) << strerror(errno);
    ASSERT_TRUE(waitGate(gate, [](Gate& g) { return g.left >= 3; }));
    ASSERT_EQ(armEvery(id, 0ms), 0);
    ASSERT_TRUE(pwr::test::waitForTimerCallbacks());
    {
        std::lock_guard<std::mutex> lock(gate.mutex);
        EXPECT_EQ(pwr::test::timerExpiries(id), static_cast<uint64_t>(gate.entered));
        EXPECT_EQ(gate.entered, gate.left);
    }
    ASSERT_EQ(timer_delete(id), 0);
    EXPECT_EQ(pwr::test::timerExpiries(id), 0u) << "a deleted timer has no count";
}

TEST(ThreadTimers, ArmedTimers_CountsPeriodicAndPendingOneShots) {
    Gate& gate = keepGate();
    const int before = pwr::test::armedTimers();
    const int existing = pwr::test::liveTimers();
    timer_t periodic = createTimer(&gate);
    timer_t single = createTimer(&gate);
    EXPECT_EQ(pwr::test::armedTimers(), before);
    EXPECT_EQ(pwr::test::liveTimers(), existing + 2);

    ASSERT_EQ(armEvery(periodic, 3600000ms), 0);
    itimerspec soon{};
    soon.it_value.tv_nsec = 1000000;
    ASSERT_EQ(timer_settime(single, 0, &soon, nullptr), 0);
    EXPECT_GE(pwr::test::armedTimers(), before + 1);
    ASSERT_TRUE(waitGate(gate, [](Gate& g) { return g.left == 1; }));
    EXPECT_EQ(pwr::test::armedTimers(), before + 1) << "an expired one-shot is disarmed";

    ASSERT_EQ(timer_delete(periodic), 0);
    EXPECT_EQ(pwr::test::armedTimers(), before) << "a deleted timer is not armed";
    ASSERT_EQ(timer_delete(single), 0);
    EXPECT_EQ(pwr::test::liveTimers(), existing);
}

TEST(ThreadTimers, WaitForTimerCallbacks_WaitsForTheRunningOne) {
    Gate& gate = keepGate();
    {
        std::lock_guard<std::mutex> lock(gate.mutex);
        gate.open = false;
    }
    timer_t id = createTimer(&gate);
    itimerspec soon{};
    soon.it_value.tv_nsec = 1000000;
    ASSERT_EQ(timer_settime(id, 0, &soon, nullptr), 0);
    ASSERT_TRUE(waitGate(gate, [](Gate& g) { return g.entered == 1; }));
    // Deleting a timer does not stop a callback that has started.
    ASSERT_EQ(timer_delete(id), 0);
    EXPECT_FALSE(pwr::test::waitForTimerCallbacks(20ms));
    {
        std::lock_guard<std::mutex> lock(gate.mutex);
        gate.open = true;
    }
    gate.changed.notify_all();
    EXPECT_TRUE(pwr::test::waitForTimerCallbacks());
    std::lock_guard<std::mutex> lock(gate.mutex);
    EXPECT_EQ(gate.left, 1);
}

TEST(ThreadTimers, DeletedTimer_IsRefused) {
    Gate& gate = keepGate();
    timer_t id = createTimer(&gate);
    ASSERT_EQ(timer_delete(id), 0);
    errno = 0;
    EXPECT_EQ(timer_delete(id), -1);
    EXPECT_EQ(errno, EINVAL);
}

// Signal and no-notification timers are the C library's: the plug-in never makes them, but
// a test program that does gets the real behaviour.
TEST(ThreadTimers, OtherNotifications_AreTheCLibrarys) {
    const int before = pwr::test::armedTimers();
    timer_t id = createTimer(nullptr, SIGEV_NONE);
    ASSERT_EQ(armEvery(id, 3600000ms), 0) << strerror(errno);
    EXPECT_EQ(pwr::test::armedTimers(), before);
    itimerspec now{};
    ASSERT_EQ(timer_gettime(id, &now), 0) << strerror(errno);
    EXPECT_GT(now.it_value.tv_sec, 3500);
    EXPECT_EQ(now.it_interval.tv_sec, 3600);
    EXPECT_EQ(timer_delete(id), 0) << strerror(errno);
}

// Every call is recorded for TimerSyscalls, this file's timers and the C library's alike, with
// its result.
TEST(ThreadTimers, Calls_AreRecordedForTimerSyscalls) {
    using pwr::test::TimerSyscalls;
    Gate& gate = keepGate();
    TimerSyscalls::reset();
    timer_t own = createTimer(&gate);
    timer_t libc = createTimer(nullptr, SIGEV_NONE);
    EXPECT_EQ(TimerSyscalls::created(), (std::vector<timer_t>{own, libc}));

    ASSERT_EQ(armEvery(own, 3600000ms), 0);
    itimerspec bad{};
    bad.it_value.tv_nsec = -1;
    EXPECT_EQ(timer_settime(own, 0, &bad, nullptr), -1);
    EXPECT_EQ(errno, EINVAL) << "recording keeps the call's errno";
    ASSERT_EQ(armEvery(libc, 3600000ms), 0);
    const std::vector<pwr::test::SettimeCall> calls = TimerSyscalls::settimesOf(own);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].result, 0);
    EXPECT_EQ(calls[0].spec.it_interval.tv_sec, 3600);
    EXPECT_EQ(calls[1].result, -1);
    EXPECT_EQ(calls[1].spec.it_value.tv_nsec, -1);
    EXPECT_EQ(TimerSyscalls::settimesOf(libc).size(), 1u);
    EXPECT_EQ(TimerSyscalls::settimes().size(), 3u);

    ASSERT_EQ(timer_delete(own), 0);
    ASSERT_EQ(timer_delete(libc), 0);
    EXPECT_EQ(TimerSyscalls::deleted(), (std::vector<timer_t>{own, libc}));
    TimerSyscalls::reset();
    EXPECT_TRUE(TimerSyscalls::created().empty());
    EXPECT_TRUE(TimerSyscalls::settimes().empty());
    EXPECT_TRUE(TimerSyscalls::deleted().empty());
}

#if defined(__SANITIZE_THREAD__)
#define PWR_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define PWR_UNDER_TSAN 1
#endif
#endif

// A child of fork inherits none of its parent's timers, and can make and use its own: the
// scheduler thread did not survive the fork and is started again.
TEST(ThreadTimers, ForkedChild_StartsWithoutTimersAndCanMakeItsOwn) {
#ifdef PWR_UNDER_TSAN
    GTEST_SKIP() << "ThreadSanitizer does not allow new threads after a multi-threaded fork";
#else
    if (getenv("PWR_TEST_EMULATOR") != nullptr) {
        // qemu-user asserts when a child forked from a multi-threaded process starts a thread.
        GTEST_SKIP() << "the emulator cannot start threads after a multi-threaded fork";
    }
    Gate& gate = keepGate();
    timer_t inherited = createTimer(&gate);
    ASSERT_EQ(armEvery(inherited, 3600000ms), 0);
    const pid_t child = fork();
    ASSERT_NE(child, -1) << strerror(errno);
    if (child == 0) {
        int status = 0;
        if (pwr::test::armedTimers() != 0) status |= 1;
        Gate& own = keepGate();
        timer_t id = createTimer(&own);
        itimerspec soon{};
        soon.it_value.tv_nsec = 1000000;
        if (timer_settime(id, 0, &soon, nullptr) != 0) status |= 2;
        if (!waitGate(own, [](Gate& g) { return g.left == 1; })) status |= 4;
        _exit(status);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1: timers inherited, 2: arming failed, 4: no expiry";
    EXPECT_EQ(timer_delete(inherited), 0);
#endif
}

}  // namespace
