// This program provides the POSIX timer functions itself (pwr_virtual_timers), as the simulator
// does: every timer_* call below runs on the virtual clock. (That the plug-in's timer service
// binds to them shows in the simulator's golden timelines, whose game ticks they drive.)

#include "host/tools/VirtualClock.h"

#include <errno.h>

#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using pwr::tools::VirtualClock;
using ::testing::ElementsAre;

constexpr int64_t kMs = 1000000;
constexpr int64_t kSecond = 1000 * kMs;

itimerspec spec(time_t valueSec, long valueNs, time_t intervalSec = 0, long intervalNs = 0) {
    itimerspec s{};
    s.it_value.tv_sec = valueSec;
    s.it_value.tv_nsec = valueNs;
    s.it_interval.tv_sec = intervalSec;
    s.it_interval.tv_nsec = intervalNs;
    return s;
}

// A SIGEV_THREAD timer that calls `notify` with `arg`.
timer_t makeTimer(void (*notify)(sigval), void* arg, clockid_t clock = CLOCK_REALTIME) {
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_notify_function = notify;
    event.sigev_value.sival_ptr = arg;
    timer_t id{};
    EXPECT_EQ(timer_create(clock, &event, &id), 0) << strerror(errno);
    return id;
}

// Records the virtual time of each expiry of one timer, and on which thread it ran.
struct Recorder {
    VirtualClock* clock = &VirtualClock::instance();
    std::vector<int64_t> times;
    std::thread::id thread;

    static void notify(sigval value) {
        auto* self = static_cast<Recorder*>(value.sival_ptr);
        self->times.push_back(self->clock->nowNs());
        self->thread = std::this_thread::get_id();
    }

    timer_t create() { return makeTimer(&Recorder::notify, this); }
};

// The clock is the process's; each test works relative to the time it starts at and deletes
// every timer it makes.
class VirtualClockTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mStart = mClock.nowNs();
        mTimersBefore = mClock.timerCount();
    }
    void TearDown() override { EXPECT_EQ(mClock.timerCount(), mTimersBefore); }

    // Times relative to the test's start.
    std::vector<int64_t> relative(const std::vector<int64_t>& times) const {
        std::vector<int64_t> out;
        for (int64_t t : times) out.push_back(t - mStart);
        return out;
    }
    void advance(int64_t ns) { mClock.advanceTo(mStart + ns); }

    VirtualClock& mClock = VirtualClock::instance();
    int64_t mStart = 0;
    int mTimersBefore = 0;
};

TEST_F(VirtualClockTest, PeriodicTimerFiresEachPeriodOnTheAdvancingThread) {
    Recorder recorder;
    timer_t id = recorder.create();
    itimerspec first = spec(1, 0, 0, 500 * kMs);  // first after 1 s, then every 500 ms
    ASSERT_EQ(timer_settime(id, 0, &first, nullptr), 0);
    advance(999 * kMs);
    EXPECT_TRUE(recorder.times.empty());
    advance(2 * kSecond);
    EXPECT_THAT(relative(recorder.times), ElementsAre(kSecond, 1500 * kMs, 2 * kSecond));
    EXPECT_EQ(recorder.thread, std::this_thread::get_id());
    EXPECT_EQ(mClock.nowNs(), mStart + 2 * kSecond);

    itimerspec left{};
    ASSERT_EQ(timer_gettime(id, &left), 0);
    EXPECT_EQ(left.it_value.tv_sec * kSecond + left.it_value.tv_nsec, 500 * kMs);
    EXPECT_EQ(left.it_interval.tv_nsec, 500 * kMs);

    // A zero first expiry disarms; the old setting is handed back.
    itimerspec zero{};
    itimerspec old{};
    ASSERT_EQ(timer_settime(id, 0, &zero, &old), 0);
    EXPECT_EQ(old.it_value.tv_nsec, 500 * kMs);
    advance(10 * kSecond);
    EXPECT_EQ(recorder.times.size(), 3u);
    EXPECT_EQ(mClock.armedCount(), 0);
    EXPECT_EQ(timer_delete(id), 0);
}

TEST_F(VirtualClockTest, OneShotAbsoluteAndRearmedTimers) {
    Recorder oneShot;
    timer_t single = oneShot.create();
    itimerspec once = spec(0, 250 * kMs);
    ASSERT_EQ(timer_settime(single, 0, &once, nullptr), 0);
    advance(kSecond);
    EXPECT_THAT(relative(oneShot.times), ElementsAre(250 * kMs));
    EXPECT_EQ(mClock.armedCount(), 0);

    // Re-arming replaces the schedule and counts from the current time.
    ASSERT_EQ(timer_settime(single, 0, &once, nullptr), 0);
    itimerspec later = spec(2, 0);
    ASSERT_EQ(timer_settime(single, 0, &later, nullptr), 0);
    advance(2 * kSecond);
    EXPECT_EQ(oneShot.times.size(), 1u);
    advance(3 * kSecond);
    EXPECT_THAT(relative(oneShot.times), ElementsAre(250 * kMs, 3 * kSecond));

    // An absolute expiry already past fires at the next advance, at the current time.
    itimerspec past = spec(0, 1);
    ASSERT_EQ(timer_settime(single, TIMER_ABSTIME, &past, nullptr), 0);
    advance(3 * kSecond);
    EXPECT_THAT(relative(oneShot.times), ElementsAre(250 * kMs, 3 * kSecond, 3 * kSecond));
    EXPECT_EQ(timer_delete(single), 0);
}

// Timers due at the same time fire in creation order; a callback may change other timers.
struct Chain {
    std::vector<int>* order;
    int tag;
    timer_t victim;
    bool killVictim;
    static void notify(sigval value) {
        auto* self = static_cast<Chain*>(value.sival_ptr);
        self->order->push_back(self->tag);
        if (self->killVictim) {
            itimerspec zero{};
            timer_settime(self->victim, 0, &zero, nullptr);
        }
    }
};

TEST_F(VirtualClockTest, SimultaneousExpiriesRunInCreationOrder) {
    std::vector<int> order;
    Chain chains[3] = {
            {&order, 1, nullptr, false}, {&order, 2, nullptr, true}, {&order, 3, nullptr, false}};
    timer_t ids[3];
    for (int i = 0; i < 3; ++i) ids[i] = makeTimer(&Chain::notify, &chains[i], CLOCK_MONOTONIC);
    chains[1].victim = ids[2];  // the second disarms the third when it fires
    const itimerspec everySecond = spec(1, 0, 1, 0);
    for (timer_t id : ids) ASSERT_EQ(timer_settime(id, 0, &everySecond, nullptr), 0);
    advance(2 * kSecond);
    EXPECT_THAT(order, ElementsAre(1, 2, 1, 2));
    for (timer_t id : ids) EXPECT_EQ(timer_delete(id), 0);
}

TEST_F(VirtualClockTest, RefusesWhatTheCLibraryRefusesAndWhatCannotBeSimulated) {
    Recorder recorder;
    timer_t id = recorder.create();
    const itimerspec bad[] = {spec(-1, 0), spec(0, -1), spec(0, kSecond), spec(1, 0, 0, kSecond)};
    for (const itimerspec& s : bad) {
        errno = 0;
        EXPECT_EQ(timer_settime(id, 0, &s, nullptr), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(mClock.armedCount(), 0);
    EXPECT_EQ(timer_delete(id), 0);
    errno = 0;
    EXPECT_EQ(timer_delete(id), -1);
    EXPECT_EQ(errno, EINVAL);
    const itimerspec one = spec(1, 0);
    EXPECT_EQ(timer_settime(id, 0, &one, nullptr), -1);

    sigevent signal{};
    signal.sigev_notify = SIGEV_SIGNAL;
    timer_t unused{};
    errno = 0;
    EXPECT_EQ(timer_create(CLOCK_REALTIME, &signal, &unused), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(timer_create(CLOCK_REALTIME, nullptr, &unused), -1);
    sigevent thread{};
    thread.sigev_notify = SIGEV_THREAD;
    thread.sigev_notify_function = &Recorder::notify;
    EXPECT_EQ(timer_create(CLOCK_PROCESS_CPUTIME_ID, &thread, &unused), -1);
}

TEST_F(VirtualClockTest, NextExpiryIsTheEarliestArmedTimer) {
    int64_t next = -1;
    EXPECT_FALSE(mClock.nextExpiryNs(&next));

    Recorder slow;
    Recorder fast;
    timer_t slowId = slow.create();
    timer_t fastId = fast.create();
    itimerspec everySecond = spec(1, 0, 1, 0);
    itimerspec in300 = spec(0, 300 * kMs, 0, 700 * kMs);
    ASSERT_EQ(timer_settime(slowId, 0, &everySecond, nullptr), 0);
    ASSERT_EQ(timer_settime(fastId, 0, &in300, nullptr), 0);
    ASSERT_TRUE(mClock.nextExpiryNs(&next));
    EXPECT_EQ(next - mStart, 300 * kMs);

    // Each advance to the reported expiry fires exactly the timers due then.
    std::vector<int64_t> stops;
    while (mClock.nextExpiryNs(&next) && next - mStart <= 2 * kSecond) {
        stops.push_back(next - mStart);
        mClock.advanceTo(next);
    }
    EXPECT_THAT(stops, ElementsAre(300 * kMs, kSecond, 1700 * kMs, 2 * kSecond));
    EXPECT_THAT(relative(fast.times), ElementsAre(300 * kMs, kSecond, 1700 * kMs));
    EXPECT_THAT(relative(slow.times), ElementsAre(kSecond, 2 * kSecond));
    // A disarmed timer is no longer reported.
    itimerspec zero{};
    ASSERT_EQ(timer_settime(fastId, 0, &zero, nullptr), 0);
    ASSERT_EQ(timer_settime(slowId, 0, &zero, nullptr), 0);
    EXPECT_FALSE(mClock.nextExpiryNs(&next));
    EXPECT_EQ(timer_delete(slowId), 0);
    EXPECT_EQ(timer_delete(fastId), 0);
}

}  // namespace
