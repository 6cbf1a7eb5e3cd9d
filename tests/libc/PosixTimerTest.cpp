// The POSIX timer behaviour the plug-in's timer service relies on: SIGEV_THREAD notification,
// relative arming, one-shot and periodic expiries, disarming, and the EINVAL answers
// for bad times, checked against the C library's own timers, which the test programs' timers
// (tests/support/ThreadTimers.cpp) stand in for.

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <time.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;

constexpr auto kTimeout = 10s;

// What the notify function saw. A callback that started before its timer was deleted may still
// run after the test has finished, so probes are never freed (see keepProbe).
struct Probe {
    std::mutex mutex;
    std::condition_variable changed;
    // All fields below are guarded by mutex.
    int calls = 0;
    int running = 0;
    int maxRunning = 0;
    std::vector<std::thread::id> threads;
    bool holdFirstCall = false;  // the first call returns only once a second call is running
};

Probe& keepProbe() {
    static auto* probes = new std::vector<Probe*>();
    static std::mutex probesMutex;
    std::lock_guard<std::mutex> lock(probesMutex);
    probes->push_back(new Probe());
    return *probes->back();
}

void onExpiry(sigval value) {
    auto* probe = static_cast<Probe*>(value.sival_ptr);
    std::unique_lock<std::mutex> lock(probe->mutex);
    const int call = ++probe->calls;
    ++probe->running;
    probe->maxRunning = std::max(probe->maxRunning, probe->running);
    probe->threads.push_back(std::this_thread::get_id());
    probe->changed.notify_all();
    if (probe->holdFirstCall && call == 1) {
        probe->changed.wait_for(lock, kTimeout, [probe] { return probe->running >= 2; });
    }
    --probe->running;
    probe->changed.notify_all();
}

template <typename Predicate>
bool waitFor(Probe& probe, Predicate done) {
    std::unique_lock<std::mutex> lock(probe.mutex);
    return probe.changed.wait_for(lock, kTimeout, [&] { return done(probe); });
}

itimerspec spec(std::chrono::nanoseconds value, std::chrono::nanoseconds interval = 0ns) {
    itimerspec s{};
    s.it_value.tv_sec = static_cast<time_t>(value.count() / 1000000000);
    s.it_value.tv_nsec = static_cast<long>(value.count() % 1000000000);
    s.it_interval.tv_sec = static_cast<time_t>(interval.count() / 1000000000);
    s.it_interval.tv_nsec = static_cast<long>(interval.count() % 1000000000);
    return s;
}

std::chrono::nanoseconds toNanos(const timespec& t) {
    return std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec);
}

// A SIGEV_THREAD timer on `clock` that calls onExpiry(probe); deleted with the object.
struct NotifyTimer {
    explicit NotifyTimer(Probe& probe, clockid_t clock = CLOCK_REALTIME) {
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD;
        event.sigev_notify_function = onExpiry;
        event.sigev_value.sival_ptr = &probe;
        created = timer_create(clock, &event, &id) == 0;
        error = errno;
    }
    ~NotifyTimer() {
        if (created) timer_delete(id);
    }
    int set(const itimerspec& s, itimerspec* old = nullptr) {
        return timer_settime(id, 0, &s, old);
    }
    itimerspec get() const {
        itimerspec s{};
        EXPECT_EQ(timer_gettime(id, &s), 0) << strerror(errno);
        return s;
    }

    timer_t id{};
    bool created = false;
    int error = 0;
};

TEST(PosixTimer, OneShot_RunsOnceOnAnotherThreadThenDisarms) {
    Probe& probe = keepProbe();
    NotifyTimer timer(probe);
    ASSERT_TRUE(timer.created) << strerror(timer.error);
    EXPECT_EQ(toNanos(timer.get().it_value), 0ns) << "a new timer is disarmed";

    ASSERT_EQ(timer.set(spec(20ms)), 0) << strerror(errno);
    ASSERT_TRUE(waitFor(probe, [](Probe& p) { return p.calls == 1 && p.running == 0; }));
    EXPECT_EQ(toNanos(timer.get().it_value), 0ns) << "a one-shot timer disarms when it expires";
    std::lock_guard<std::mutex> lock(probe.mutex);
    ASSERT_EQ(probe.threads.size(), 1u) << "one call";
    EXPECT_NE(probe.threads[0], std::this_thread::get_id());
}

TEST(PosixTimer, Periodic_RepeatsUntilAnAllZeroValueDisarmsIt) {
    Probe& probe = keepProbe();
    NotifyTimer timer(probe);
    ASSERT_TRUE(timer.created) << strerror(timer.error);
    ASSERT_EQ(timer.set(spec(5ms, 5ms)), 0) << strerror(errno);
    ASSERT_TRUE(waitFor(probe, [](Probe& p) { return p.calls >= 3; }));

    itimerspec old{};
    ASSERT_EQ(timer.set(spec(0ns, 5ms), &old), 0) << "a zero value disarms, whatever the period";
    EXPECT_EQ(toNanos(old.it_interval), 5ms) << "the old setting comes back";
    EXPECT_GT(toNanos(old.it_value), 0ns);
    EXPECT_LE(toNanos(old.it_value), 5ms);
    const itimerspec now = timer.get();
    EXPECT_EQ(toNanos(now.it_value), 0ns);
    EXPECT_EQ(toNanos(now.it_interval), 0ns);
}

TEST(PosixTimer, BadTimes_FailWithEinvalAndLeaveTheTimerAsItWas) {
    Probe& probe = keepProbe();
    NotifyTimer timer(probe, CLOCK_MONOTONIC);
    ASSERT_TRUE(timer.created) << strerror(timer.error);
    ASSERT_EQ(timer.set(spec(3600s, 1s)), 0) << strerror(errno);

    auto value = [](time_t sec, long nsec) {
        itimerspec s = spec(1s);
        s.it_value = {sec, nsec};
        return s;
    };
    itimerspec badPeriod = spec(1s);
    badPeriod.it_interval.tv_nsec = -1;
    // -5000000 ns is what -5 ms becomes in the timer service.
    for (const itimerspec& bad :
         {value(0, -5000000), value(0, 1000000000), value(-1, 0), badPeriod}) {
        errno = 0;
        EXPECT_EQ(timer.set(bad), -1);
        EXPECT_EQ(errno, EINVAL) << strerror(errno);
    }
    const itimerspec s = timer.get();
    EXPECT_GT(toNanos(s.it_value), 3500s) << "a refused setting changes nothing";
    EXPECT_LE(toNanos(s.it_value), 3600s);
    EXPECT_EQ(toNanos(s.it_interval), 1s);
}

// Each expiry gets a thread of its own, so a slow callback does not hold back the next expiry
// and the two run at the same time: callbacks of the timer service must tolerate that.
TEST(PosixTimer, ExpiriesOfOneTimer_MayRunConcurrently) {
    Probe& probe = keepProbe();
    probe.holdFirstCall = true;
    NotifyTimer timer(probe);
    ASSERT_TRUE(timer.created) << strerror(timer.error);
    ASSERT_EQ(timer.set(spec(2ms, 2ms)), 0) << strerror(errno);
    EXPECT_TRUE(waitFor(probe, [](Probe& p) { return p.maxRunning >= 2; }));
    ASSERT_EQ(timer.set(spec(0ns)), 0);
    std::lock_guard<std::mutex> lock(probe.mutex);
    ASSERT_GE(probe.threads.size(), 2u);
    EXPECT_NE(probe.threads[0], probe.threads[1]);
}

}  // namespace
