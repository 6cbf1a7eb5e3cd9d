// The timer service on real POSIX timers. Waits are bounded by condition variables; where a test
// must show that something does NOT happen it watches a fixed window and says why it suffices.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/Timer.h"
#include "tests/support/TimerSyscalls.h"
#include "tests/support/TimerThreads.h"

namespace {

using pwr::test::TimerSyscalls;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::IsEmpty;

constexpr milliseconds kGenerousWait{5000};

// Counts expiries. Each test keeps its instance in static storage: Timer_destroy does not wait
// for a callback already on its way, so the counter must outlive the test body.
class Expiries {
  public:
    static void onExpiry(void* arg) {
        auto* self = static_cast<Expiries*>(arg);
        {
            std::lock_guard<std::mutex> lock(self->mMutex);
            ++self->mCount;
            self->mTimes.push_back(steady_clock::now());
            self->mThreads.push_back(std::this_thread::get_id());
        }
        self->mChanged.notify_all();
    }

    // True once at least `n` expiries were seen, false when `timeout` passed first.
    bool waitFor(int n, milliseconds timeout = kGenerousWait) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, timeout, [&] { return mCount >= n; });
    }
    int count() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mCount;
    }
    steady_clock::time_point firstTime() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mTimes.front();
    }
    std::vector<std::thread::id> threads() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mThreads;
    }

  private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    int mCount = 0;
    std::vector<steady_clock::time_point> mTimes;
    std::vector<std::thread::id> mThreads;
};

// The schedule the system holds for the record.
itimerspec systemSchedule(const Timer_s* timer) {
    itimerspec spec{};
    EXPECT_EQ(timer_gettime(timer->timerId, &spec), 0);
    return spec;
}

long long toNs(const timespec& ts) {
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

class TimerTest : public ::testing::Test {
  protected:
    void TearDown() override { timer.Timer_destroy(record); }

    Timer_s* create(Expiries& expiries) {
        record = timer.Timer_create(&Expiries::onExpiry, &expiries);
        return record;
    }

    Timer timer;
    Timer_s* record = nullptr;
};

TEST_F(TimerTest, Create_StoresCallbackUnarmed) {
    static Expiries expiries;
    ASSERT_NE(create(expiries), nullptr);
    EXPECT_EQ(record->callback, &Expiries::onExpiry);
    EXPECT_EQ(record->argument, &expiries);
    EXPECT_FALSE(timer.Timer_isActive(record));
    EXPECT_EQ(toNs(systemSchedule(record).it_value), 0);
}

TEST_F(TimerTest, ScheduleInterval_RunsPeriodicallyOnAnotherThread) {
    PWR_REQUIRE_TIMER_THREADS();
    static Expiries expiries;
    ASSERT_NE(create(expiries), nullptr);
    ASSERT_TRUE(timer.Timer_scheduleInterval(record, 20));
    EXPECT_TRUE(timer.Timer_isActive(record));
    const itimerspec spec = systemSchedule(record);
    EXPECT_EQ(toNs(spec.it_interval), 20000000);
    EXPECT_LE(toNs(spec.it_value), 20000000);

    ASSERT_TRUE(expiries.waitFor(3));
    for (std::thread::id id : expiries.threads()) EXPECT_NE(id, std::this_thread::get_id());
}

TEST_F(TimerTest, ScheduleInterval_ConvertsSecondsAndMilliseconds) {
    static Expiries expiries;
    ASSERT_NE(create(expiries), nullptr);
    ASSERT_TRUE(timer.Timer_scheduleInterval(record, 2750));
    const itimerspec spec = systemSchedule(record);
    EXPECT_EQ(spec.it_interval.tv_sec, 2);
    EXPECT_EQ(spec.it_interval.tv_nsec, 750000000);
    EXPECT_GT(toNs(spec.it_value), 2000000000LL);
}

TEST_F(TimerTest, Disable_StopsExpiries) {
    PWR_REQUIRE_TIMER_THREADS();
    static Expiries expiries;
    ASSERT_NE(create(expiries), nullptr);
    ASSERT_TRUE(timer.Timer_scheduleInterval(record, 20));
    ASSERT_TRUE(expiries.waitFor(2));
    timer.Timer_disable(record);
    EXPECT_FALSE(timer.Timer_isActive(record));
    EXPECT_EQ(toNs(systemSchedule(record).it_value), 0);
    const int atDisable = expiries.count();
    // Ten periods: a timer still armed would have fired several times. One callback may already
    // have been on its way when the timer was disarmed.
    EXPECT_FALSE(expiries.waitFor(atDisable + 2, milliseconds(200)));

    // Disarmed, it can be scheduled again.
    EXPECT_TRUE(timer.Timer_scheduleInterval(record, 20));
    EXPECT_TRUE(expiries.waitFor(atDisable + 3));
}

TEST_F(TimerTest, Disable_InactiveRecordMakesNoSystemCall) {
    static Expiries expiries;
    ASSERT_NE(create(expiries), nullptr);
    TimerSyscalls::reset();
    timer.Timer_disable(record);
    EXPECT_THAT(TimerSyscalls::settimesOf(record->timerId), IsEmpty());
}

TEST_F(TimerTest, ScheduleInterval_ActiveRefusedRescheduleReplaces) {
    static Expiries expiries;
    ASSERT_NE(create(expiries), nullptr);
    ASSERT_TRUE(timer.Timer_scheduleInterval(record, 5000));
    EXPECT_FALSE(timer.Timer_scheduleInterval(record, 20));
    EXPECT_EQ(toNs(systemSchedule(record).it_interval), 5000000000LL);
    EXPECT_FALSE(timer.Timer_scheduleSingle(record, 20));
    EXPECT_EQ(toNs(systemSchedule(record).it_interval), 5000000000LL);

    EXPECT_TRUE(timer.Timer_reschedule_interval(record, 7000));
    EXPECT_TRUE(timer.Timer_isActive(record));
    EXPECT_EQ(toNs(systemSchedule(record).it_interval), 7000000000LL);

    PWR_REQUIRE_TIMER_THREADS();
    EXPECT_TRUE(timer.Timer_reschedule_interval(record, 20));
    EXPECT_EQ(toNs(systemSchedule(record).it_interval), 20000000);
    EXPECT_TRUE(expiries.waitFor(3));
}

TEST_F(TimerTest, ScheduleSingle_SubSecondPartIsMicroseconds) {
    PWR_REQUIRE_TIMER_THREADS();
    static Expiries expiries;
    ASSERT_NE(create(expiries), nullptr);
    const auto armed = steady_clock::now();
    ASSERT_TRUE(timer.Timer_scheduleSingle(record, 1500));
    // 1500 is one second and 500 microseconds, not 1.5 s, and no period.
    const itimerspec spec = systemSchedule(record);
    EXPECT_EQ(toNs(spec.it_interval), 0);
    EXPECT_LE(toNs(spec.it_value), 1000500000LL);
    EXPECT_GT(toNs(spec.it_value), 900000000LL);

    // A pending one-shot is not "active", and disabling does not cancel it.
    EXPECT_FALSE(timer.Timer_isActive(record));
    TimerSyscalls::reset();
    timer.Timer_disable(record);
    EXPECT_THAT(TimerSyscalls::settimesOf(record->timerId), IsEmpty());

    ASSERT_TRUE(expiries.waitFor(1));
    const auto elapsed = expiries.firstTime() - armed;
    EXPECT_GE(elapsed, milliseconds(990));
    // Well before the 1.5 s a millisecond reading would give; the margin absorbs a slow machine.
    EXPECT_LT(elapsed, milliseconds(1400));
    EXPECT_FALSE(timer.Timer_isActive(record));
}

TEST_F(TimerTest, ScheduleSingle_RearmingReplacesPendingExpiry) {
    PWR_REQUIRE_TIMER_THREADS();
    static Expiries expiries;
    ASSERT_NE(create(expiries), nullptr);
    ASSERT_TRUE(timer.Timer_scheduleSingle(record, 60000));
    ASSERT_TRUE(timer.Timer_scheduleSingle(record, 10));
    EXPECT_LT(toNs(systemSchedule(record).it_value), 1000000000LL);
    EXPECT_TRUE(expiries.waitFor(1));
}

TEST_F(TimerTest, ZeroTime_ActiveButNeverFires) {
    static Expiries expiries;
    ASSERT_NE(create(expiries), nullptr);
    EXPECT_TRUE(timer.Timer_scheduleInterval(record, 0));
    EXPECT_TRUE(timer.Timer_isActive(record));
    EXPECT_TRUE(timer.Timer_reschedule_interval(record, 0));
    EXPECT_TRUE(timer.Timer_isActive(record));
    // A zero expiry disarms at the system level.
    EXPECT_EQ(toNs(systemSchedule(record).it_value), 0);
    // Had zero been taken as "now" or as any short period, an expiry would come within a few
    // milliseconds; half a second is ample.
    EXPECT_FALSE(expiries.waitFor(1, milliseconds(500)));
}

TEST_F(TimerTest, ZeroTime_SingleSucceedsWithoutExpiry) {
    static Expiries expiries;
    ASSERT_NE(create(expiries), nullptr);
    EXPECT_TRUE(timer.Timer_scheduleSingle(record, 0));
    EXPECT_FALSE(timer.Timer_isActive(record));
    // As above: an expiry would come at once; half a second is ample.
    EXPECT_FALSE(expiries.waitFor(1, milliseconds(500)));
}

TEST_F(TimerTest, NegativeTime_Refused) {
    static Expiries expiries;
    ASSERT_NE(create(expiries), nullptr);
    EXPECT_FALSE(timer.Timer_scheduleInterval(record, -5));
    EXPECT_FALSE(timer.Timer_scheduleInterval(record, -1500));
    EXPECT_FALSE(timer.Timer_reschedule_interval(record, -5));
    EXPECT_FALSE(timer.Timer_scheduleSingle(record, -5));
    EXPECT_FALSE(timer.Timer_isActive(record));
}

TEST_F(TimerTest, NullRecord_Harmless) {
    EXPECT_FALSE(timer.Timer_isActive(nullptr));
    EXPECT_FALSE(timer.Timer_scheduleInterval(nullptr, 10));
    EXPECT_FALSE(timer.Timer_reschedule_interval(nullptr, 10));
    EXPECT_FALSE(timer.Timer_scheduleSingle(nullptr, 10));
    TimerSyscalls::reset();
    timer.Timer_disable(nullptr);
    timer.Timer_destroy(nullptr);
    EXPECT_THAT(TimerSyscalls::settimes(), IsEmpty());
    EXPECT_THAT(TimerSyscalls::deleted(), IsEmpty());
}

TEST_F(TimerTest, Destroy_DeletesArmedTimer) {
    static Expiries expiries;
    ASSERT_NE(create(expiries), nullptr);
    ASSERT_TRUE(timer.Timer_scheduleInterval(record, 60000));
    const timer_t id = record->timerId;
    TimerSyscalls::reset();
    timer.Timer_destroy(record);
    record = nullptr;
    EXPECT_EQ(TimerSyscalls::deleted(), std::vector<timer_t>{id});
}

// A notification that arrives after its record was deleted (the C library may have started its
// thread before timer_delete) reaches no callback.
TEST_F(TimerTest, Dispatch_DropsNotificationOfADeletedRecord) {
    static Expiries expiries;
    ASSERT_NE(create(expiries), nullptr);
    sigval value{};
    value.sival_ptr = record;
    timerCallback(value);
    ASSERT_EQ(expiries.count(), 1) << "a live record's notification runs its callback";
    timer.Timer_destroy(record);
    record = nullptr;
    timerCallback(value);
    EXPECT_EQ(expiries.count(), 1);
}

// Releasing a handle deletes its timer at once but returns only once a callback already running
// has returned. The callback is held until the test lets it go; the 100 ms window only has to be
// long enough for a release that does not wait to return, so a slow machine cannot fail it.
TEST_F(TimerTest, Handle_ReleaseWaitsForARunningCallback) {
    PWR_REQUIRE_TIMER_THREADS();
    struct Held {
        std::mutex mutex;
        std::condition_variable changed;
        bool running = false;
        bool letGo = false;
    };
    static Held held;
    auto hold = [](void* arg) {
        auto* h = static_cast<Held*>(arg);
        std::unique_lock<std::mutex> lock(h->mutex);
        h->running = true;
        h->changed.notify_all();
        h->changed.wait(lock, [h] { return h->letGo; });
    };
    pwr::TimerHandle handle(hold, &held);
    ASSERT_TRUE(handle);
    ASSERT_TRUE(timer.Timer_scheduleSingle(handle.get(), 1));
    {
        std::unique_lock<std::mutex> lock(held.mutex);
        ASSERT_TRUE(held.changed.wait_for(lock, kGenerousWait, [] { return held.running; }));
    }
    std::atomic<bool> released{false};
    std::thread releaser([&] {
        handle.reset();
        released = true;
    });
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_FALSE(released) << "released while the callback was still running";
    {
        std::lock_guard<std::mutex> lock(held.mutex);
        held.letGo = true;
    }
    held.changed.notify_all();
    releaser.join();
    EXPECT_TRUE(released);
}

}  // namespace
