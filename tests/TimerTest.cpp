// The timer service: what each scheduling call asks of the system, expiries on virtual time,
// deletion, and the handle that waits for a running callback.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/Timer.h"
#include "tests/support/ThreadTimers.h"
#include "tests/support/TimerSyscalls.h"

namespace {

using namespace std::chrono_literals;
using pwr::test::TimerSyscalls;
using ::testing::IsEmpty;

long long toNs(const timespec& ts) {
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

class TimerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        record = timer.Timer_create(&TimerTest::onExpiry, &expiries);
        ASSERT_NE(record, nullptr);
        TimerSyscalls::reset();
    }
    void TearDown() override { timer.Timer_destroy(record); }

    static void onExpiry(void* count) { ++*static_cast<std::atomic<int>*>(count); }
    std::vector<pwr::test::SettimeCall> settimes() {
        return TimerSyscalls::settimesOf(record->timerId);
    }

    pwr::test::VirtualTime clock;
    Timer timer;
    std::atomic<int> expiries{0};
    Timer_s* record = nullptr;
};

// One scheduling call on a fresh record: its answer, whether the record is active, and the first
// expiry and period it gave the system (none when refused). Interval periods are milliseconds;
// a single expiry's sub-second part is microseconds.
TEST_F(TimerTest, EachSchedulingCallAsksTheSystemFor) {
    using T = Timer;
    const struct {
        bool (Timer::*call)(Timer_s*, int);
        int ms;
        bool accepted, active;
        long long valueNs, intervalNs;
    } cases[] = {
            {&T::Timer_scheduleInterval, 20, true, true, 20000000, 20000000},
            {&T::Timer_scheduleInterval, 2750, true, true, 2750000000LL, 2750000000LL},
            {&T::Timer_scheduleInterval, 0, true, true, 0, 0},  // active, but disarmed
            {&T::Timer_scheduleInterval, -1500, false, false, 0, 0},
            {&T::Timer_reschedule_interval, 7000, true, true, 7000000000LL, 7000000000LL},
            {&T::Timer_reschedule_interval, -5, false, false, 0, 0},
            {&T::Timer_scheduleSingle, 1500, true, false, 1000500000LL, 0},
            {&T::Timer_scheduleSingle, 0, true, false, 0, 0},
            {&T::Timer_scheduleSingle, -5, false, false, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.ms);
        TimerSyscalls::reset();
        Timer_s* fresh = timer.Timer_create(&TimerTest::onExpiry, &expiries);
        ASSERT_NE(fresh, nullptr);
        EXPECT_EQ((timer.*c.call)(fresh, c.ms), c.accepted);
        EXPECT_EQ(timer.Timer_isActive(fresh), c.active);
        const auto calls = TimerSyscalls::settimesOf(fresh->timerId);
        timer.Timer_destroy(fresh);
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].flags, 0);
        EXPECT_EQ(calls[0].result == 0, c.accepted);
        if (c.accepted) {
            EXPECT_EQ(toNs(calls[0].spec.it_value), c.valueNs);
            EXPECT_EQ(toNs(calls[0].spec.it_interval), c.intervalNs);
        }
    }
}

TEST_F(TimerTest, AnActiveRecordIsNotScheduledAgainButIsRescheduled) {
    ASSERT_TRUE(timer.Timer_scheduleInterval(record, 5000));
    EXPECT_FALSE(timer.Timer_scheduleInterval(record, 20));
    EXPECT_FALSE(timer.Timer_scheduleSingle(record, 20));
    EXPECT_EQ(settimes().size(), 1u);
    EXPECT_TRUE(timer.Timer_reschedule_interval(record, 20));
    clock.advance(60ms);
    EXPECT_EQ(expiries, 3);
}

TEST_F(TimerTest, ExpiriesFollowThePeriodUntilDisabled) {
    ASSERT_TRUE(timer.Timer_scheduleInterval(record, 20));
    clock.advance(19ms);
    EXPECT_EQ(expiries, 0);
    clock.advance(41ms);
    EXPECT_EQ(expiries, 3);
    timer.Timer_disable(record);
    EXPECT_FALSE(timer.Timer_isActive(record));
    EXPECT_EQ(toNs(settimes().back().spec.it_value), 0);
    clock.advance(1s);
    EXPECT_EQ(expiries, 3);
    EXPECT_TRUE(timer.Timer_scheduleInterval(record, 20)) << "disabled, it can be scheduled again";
    clock.advance(20ms);
    EXPECT_EQ(expiries, 4);
}

TEST_F(TimerTest, ASingleExpiryIsNotCancelledByDisableAndRearmingReplacesIt) {
    ASSERT_TRUE(timer.Timer_scheduleSingle(record, 60000));
    ASSERT_TRUE(timer.Timer_scheduleSingle(record, 1500));
    timer.Timer_disable(record);  // a pending one-shot is not active: no system call
    EXPECT_EQ(settimes().size(), 2u);
    clock.advance(1000ms);
    EXPECT_EQ(expiries, 0);
    clock.advance(1ms);
    EXPECT_EQ(expiries, 1) << "one second and 500 microseconds";
    clock.advance(60s);
    EXPECT_EQ(expiries, 1);
}

TEST_F(TimerTest, ANullRecordIsHarmlessAndDestroyDeletesTheSystemTimer) {
    EXPECT_FALSE(timer.Timer_isActive(nullptr));
    EXPECT_FALSE(timer.Timer_scheduleInterval(nullptr, 10));
    EXPECT_FALSE(timer.Timer_reschedule_interval(nullptr, 10));
    EXPECT_FALSE(timer.Timer_scheduleSingle(nullptr, 10));
    timer.Timer_disable(nullptr);
    timer.Timer_destroy(nullptr);
    EXPECT_THAT(TimerSyscalls::settimes(), IsEmpty());
    EXPECT_THAT(TimerSyscalls::deleted(), IsEmpty());

    ASSERT_TRUE(timer.Timer_scheduleInterval(record, 60000));
    const timer_t id = record->timerId;
    timer.Timer_destroy(record);
    record = nullptr;
    EXPECT_EQ(TimerSyscalls::deleted(), std::vector<timer_t>{id});
}

// A notification that arrives after its record was deleted (the C library may have started its
// thread before timer_delete) reaches no callback.
TEST_F(TimerTest, ANotificationOfADeletedRecordIsDropped) {
    sigval value{};
    value.sival_ptr = record;
    timerCallback(value);
    ASSERT_EQ(expiries, 1) << "a live record's notification runs its callback";
    timer.Timer_destroy(record);
    record = nullptr;
    timerCallback(value);
    EXPECT_EQ(expiries, 1);
}

// Releasing a handle deletes its timer at once but returns only once a callback already running
// (here on the thread that advances the clock) has returned. The 100 ms window only has to be
// long enough for a release that does not wait to return, so a slow machine cannot fail it.
TEST_F(TimerTest, ReleasingAHandleWaitsForItsRunningCallback) {
    struct Held {
        std::mutex mutex;
        std::condition_variable changed;
        bool running = false;
        bool letGo = false;
    } held;
    auto hold = [](void* arg) {
        auto* h = static_cast<Held*>(arg);
        std::unique_lock<std::mutex> lock(h->mutex);
        h->running = true;
        h->changed.notify_all();
        h->changed.wait(lock, [h] { return h->letGo; });
    };
    pwr::TimerHandle handle(hold, &held);
    ASSERT_TRUE(handle);
    ASSERT_TRUE(timer.Timer_scheduleInterval(handle.get(), 1));
    std::thread ticking([this] { clock.advance(1ms); });
    {
        std::unique_lock<std::mutex> lock(held.mutex);
        held.changed.wait(lock, [&] { return held.running; });
    }
    std::atomic<bool> released{false};
    std::thread releaser([&] {
        handle.reset();
        released = true;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(released) << "released while the callback was still running";
    {
        std::lock_guard<std::mutex> lock(held.mutex);
        held.letGo = true;
    }
    held.changed.notify_all();
    releaser.join();
    ticking.join();
    EXPECT_TRUE(released);
}

}  // namespace
