// The battery monitor driven tick by tick: scripted current_now readings, the callback called
// directly (the timer stays unarmed, so no other thread ticks), boosts read back from the fake
// performance library.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "feature/PSMPowerOptFeature.h"
#include "host/fakeperf/FakePerf.h"
#include "tests/support/DeepModeConfig.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/FeatureFactory.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"

namespace {

using pwr::test::DeviceTree;
using pwr::test::FeatureHandle;
using pwr::test::kTaskBoostOpcode;
using pwr::test::LogCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

constexpr char kCurrentNow[] = "/sys/class/power_supply/battery/current_now";
constexpr char kProcs[] = "/dev/cpuset/top-app/cgroup.procs";

// Encoded boost values as the library receives them: scaled down by 20, or undone.
int boosted(int pid) {
    return (pid << 8) | 0x80 | 20;
}
int unboosted(int pid) {
    return pid << 8;
}

class BatteryMonitor : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeperf::reset();
        tree.mkdirs(pwr::test::kStoreDirectory);
        fakeperf::setAppType("com.example.game", 2);
        fakeperf::setAppType("com.example.browser", 3);
        fakeperf::setAppType("com.example.video", 5);
        fakeperf::setAppType("com.example.notes", 4);
        tree.write(kProcs, "4100\n4200\n");
        tree.write("/proc/4100/cmdline", "com.example.game");
        tree.write("/proc/4200/cmdline", "com.example.game:render");
        feature.emplace(pwr::test::deepModeConfig("3"));
        peer.emplace(**feature);
        ASSERT_TRUE(peer->ready());
        ASSERT_EQ(peer->settings().mMaxSampleNum, 5);
    }

    // The app in front, as event dispatch classifies it.
    void foreground(const std::string& app) { (*feature)->isPSMType(app); }

    // One tick with the battery delivering `milliamps` (negative while charging).
    void tick(int milliamps) {
        tree.write(kCurrentNow, std::to_string(-milliamps * 1000) + "\n");
        PSMPowerOptFeature::batterytimerCallBack(&**feature);
    }
    void ticks(int count, int milliamps) {
        for (int i = 0; i < count; ++i) tick(milliamps);
    }

    // Task-boost values requested since the last call, in order.
    std::vector<int> boostRequests() {
        std::vector<int> values;
        const std::vector<fakeperf::Call> calls = fakeperf::calls();
        for (size_t i = mSeenCalls; i < calls.size(); ++i) {
            const fakeperf::Call& call = calls[i];
            if (call.kind == fakeperf::CallKind::LockAcquire && call.list.size() == 2 &&
                call.list[0] == kTaskBoostOpcode) {
                values.push_back(call.list[1]);
            }
        }
        mSeenCalls = calls.size();
        return values;
    }

    DeviceTree tree;
    LogCapture log;
    std::optional<FeatureHandle> feature;
    std::optional<PSMPowerOptFeatureTestPeer> peer;

  private:
    size_t mSeenCalls = 0;
};

TEST_F(BatteryMonitor, EvaluatesEveryMaxSampleNumTicksAndBoostsThenUnboosts) {
    foreground("com.example.game");

    ticks(4, 1000);
    EXPECT_THAT(boostRequests(), IsEmpty()) << "no evaluation before the fifth tick";
    EXPECT_EQ(peer->snapshot().batterySampleCounter, 4);
    tick(1000);
    EXPECT_THAT(boostRequests(), ElementsAre(boosted(4100), boosted(4200)));
    EXPECT_EQ(peer->snapshot().batteryBoosted, 1);
    EXPECT_EQ(peer->snapshot().topTaskFlag, 1);
    EXPECT_EQ(peer->snapshot().batterySampleCounter, 0);
    EXPECT_THAT(peer->activeThresholds(), Pair(700, 100));

    // Still high: already boosted, nothing more.
    ticks(5, 1000);
    EXPECT_THAT(boostRequests(), IsEmpty());

    // Nothing is decided before the next fifth tick; by then the list holds five low samples.
    ticks(4, 50);
    EXPECT_THAT(boostRequests(), IsEmpty());
    tick(50);
    EXPECT_THAT(boostRequests(), ElementsAre(unboosted(4100), unboosted(4200)));
    EXPECT_EQ(peer->snapshot().batteryBoosted, 0);
    EXPECT_THAT(peer->battery().samples(), ElementsAre(50, 50, 50, 50, 50));
}

TEST_F(BatteryMonitor, ThresholdsAreStrict) {
    foreground("com.example.game");

    ticks(5, 700);  // exactly the upper threshold
    EXPECT_THAT(boostRequests(), IsEmpty());
    EXPECT_EQ(peer->snapshot().batteryBoosted, 0);
    EXPECT_EQ(peer->snapshot().topTaskFlag, 0) << "no top-task discovery without a high drain";

    ticks(5, 701);
    EXPECT_THAT(boostRequests(), ElementsAre(boosted(4100), boosted(4200)));

    ticks(5, 100);  // exactly the lower threshold
    EXPECT_THAT(boostRequests(), IsEmpty());
    EXPECT_EQ(peer->snapshot().batteryBoosted, 1);
    ticks(5, 99);
    EXPECT_THAT(boostRequests(), ElementsAre(unboosted(4100), unboosted(4200)));
}

TEST_F(BatteryMonitor, ThresholdsFollowTheAppType) {
    PSMPowerOptFeatureTestPeer& p = *peer;
    EXPECT_THAT(p.scalingThresholds(), ElementsAre(700, 100, 800, 200, 900, 300));

    foreground("com.example.browser");
    ticks(5, 750);  // above the game's 700, below the browser's 800
    EXPECT_THAT(boostRequests(), IsEmpty());
    EXPECT_THAT(p.activeThresholds(), Pair(800, 200));

    foreground("com.example.video");
    ticks(5, 850);
    EXPECT_THAT(boostRequests(), IsEmpty());
    EXPECT_THAT(p.activeThresholds(), Pair(900, 300));

    // Type 4 is not eligible: the type of the last eligible app, and its pair, stay.
    foreground("com.example.notes");
    ticks(5, 850);
    EXPECT_THAT(boostRequests(), IsEmpty());
    ticks(5, 950);
    EXPECT_THAT(boostRequests(), ElementsAre(boosted(4100), boosted(4200)));

    foreground("com.example.game");
    ticks(5, 250);  // below video's 300 but not below the game's 100
    EXPECT_THAT(boostRequests(), IsEmpty());
    EXPECT_EQ(p.snapshot().batteryBoosted, 1);
}

TEST_F(BatteryMonitor, NoAppTypeYetMeansMissingConfigs) {
    peer->setDebugEnabled(true);

    ticks(5, 5000);

    EXPECT_THAT(boostRequests(), IsEmpty());
    EXPECT_EQ(peer->snapshot().batterySampleCounter, 0);
    EXPECT_EQ(log.count("PSMPOWEROPT: batterytimerCallBack() 1147: Missing configs for: 0"), 1)
            << ::testing::PrintToString(log.messages());
    EXPECT_EQ(log.count("PSMPOWEROPT: batterytimerCallBack() 1131: Avg Current: 5000.00"), 1);
}

TEST_F(BatteryMonitor, ChargingCountsAsNoDrain) {
    foreground("com.example.game");

    ticks(10, -2000);

    EXPECT_THAT(peer->battery().samples(), ElementsAre(0, 0, 0, 0, 0));
    EXPECT_THAT(boostRequests(), IsEmpty());
    EXPECT_EQ(peer->snapshot().batteryBoosted, 0);
}

TEST_F(BatteryMonitor, UnreadableNodeCountsATickWithoutASample) {
    foreground("com.example.game");

    ticks(4, 800);
    tree.remove(kCurrentNow);
    PSMPowerOptFeature::batterytimerCallBack(&**feature);

    EXPECT_EQ(log.count("PSMPOWEROPT: getBatteryStatus() 1108: Read denied."), 1)
            << ::testing::PrintToString(log.messages());
    EXPECT_THAT(peer->battery().samples(), ElementsAre(800, 800, 800, 800));
    // 3200 / 5 = 640 is not above 700 (3200 / 4 would have been).
    EXPECT_THAT(boostRequests(), IsEmpty());
    EXPECT_EQ(peer->snapshot().batterySampleCounter, 0) << "the fifth tick was an evaluation";
}

TEST_F(BatteryMonitor, NullArgumentIsIgnored) {
    PSMPowerOptFeature::batterytimerCallBack(nullptr);
    EXPECT_EQ(peer->snapshot().batterySampleCounter, 0);
}

TEST_F(BatteryMonitor, EmptyTaskListMarksBoostedWithoutCalls) {
    tree.remove(kProcs);
    foreground("com.example.game");

    ticks(5, 1000);
    EXPECT_EQ(peer->snapshot().batteryBoosted, 1);
    EXPECT_EQ(peer->snapshot().topTaskFlag, 0) << "discovery found nothing";
    ticks(5, 10);
    EXPECT_EQ(peer->snapshot().batteryBoosted, 0);

    EXPECT_THAT(boostRequests(), IsEmpty());
    EXPECT_EQ(fakeperf::heldLocks().size(), 0u);
}

TEST_F(BatteryMonitor, ResetBatteryWithdrawsBoostsAndRediscoversTasks) {
    foreground("com.example.game");
    ticks(5, 1000);
    ASSERT_THAT(boostRequests(), ElementsAre(boosted(4100), boosted(4200)));
    ticks(2, 1000);
    peer->setDebugEnabled(true);

    (*feature)->ResetBattery();

    EXPECT_THAT(boostRequests(), ElementsAre(unboosted(4100), unboosted(4200)));
    EXPECT_EQ(log.count("PSMPOWEROPT: ResetBattery() 1190: Reset battery status."), 1);
    EXPECT_EQ(peer->snapshot().batteryBoosted, 0);
    EXPECT_EQ(peer->snapshot().batterySampleCounter, 0);
    EXPECT_EQ(peer->snapshot().topTaskFlag, 0);
    EXPECT_THAT(peer->battery().samples(), ::testing::SizeIs(5)) << "samples are kept";

    // Not boosted: counters only.
    (*feature)->ResetBattery();
    EXPECT_THAT(boostRequests(), IsEmpty());
    EXPECT_EQ(log.count("PSMPOWEROPT: ResetBattery() 1190: Reset battery status."), 1);

    // With the flag cleared, the next high drain looks at the foreground again.
    tree.write(kProcs, "4300\n");
    tree.write("/proc/4300/cmdline", "com.example.browser");
    ticks(5, 1000);
    EXPECT_THAT(boostRequests(), ElementsAre(boosted(4300)));
}

// In PSM mode 3 the event that disarms the battery timer also withdraws the boosts.
TEST_F(BatteryMonitor, StopOfTheEligibleAppWithdrawsBoosts) {
    foreground("com.example.game");
    ticks(5, 1000);
    ASSERT_THAT(boostRequests(), ElementsAre(boosted(4100), boosted(4200)));

    AsyncTriggerPayload stop;
    stop.hintId = 0x1002;
    stop.appName = "com.example.game/.Main";
    (*feature)->sendEvents(stop);

    EXPECT_THAT(boostRequests(), ElementsAre(unboosted(4100), unboosted(4200)));
    EXPECT_EQ(peer->snapshot().batteryBoosted, 0);
    EXPECT_FALSE(Timer().Timer_isActive(peer->battery().timer()));
}

TEST_F(BatteryMonitor, StartOfAnIneligibleAppWithdrawsBoosts) {
    foreground("com.example.game");
    ticks(5, 1000);
    ASSERT_THAT(boostRequests(), ElementsAre(boosted(4100), boosted(4200)));

    AsyncTriggerPayload start;
    start.hintId = 0x1001;
    start.appName = "com.example.notes/.Edit";
    (*feature)->sendEvents(start);

    EXPECT_THAT(boostRequests(), ElementsAre(unboosted(4100), unboosted(4200)));
    EXPECT_EQ(peer->snapshot().batteryBoosted, 0);
    EXPECT_FALSE(Timer().Timer_isActive(peer->battery().timer())) << "not eligible: stays disarmed";
}

// The timer's thread ticks while the event thread resets and stops: every piece of state they
// share is behind one mutex (ThreadSanitizer builds check it), and once both are done a final
// reset leaves no task boosted.
TEST_F(BatteryMonitor, TimerThreadAndEventThreadShareTheStateSafely) {
    foreground("com.example.game");
    tree.write(kCurrentNow, "-1000000\n");
    std::thread timerThread([this] {
        for (int i = 0; i < 400; ++i) PSMPowerOptFeature::batterytimerCallBack(&**feature);
    });
    AsyncTriggerPayload stop;
    stop.hintId = 0x1002;
    stop.appName = "com.example.game";
    for (int i = 0; i < 100; ++i) {
        (*feature)->ResetBattery();
        (*feature)->sendEvents(stop);
        (*feature)->getTopTask();
    }
    timerThread.join();

    (*feature)->ResetBattery();

    EXPECT_EQ(peer->snapshot().batteryBoosted, 0);
    EXPECT_GT(boostRequests().size(), 0u) << "the two threads never met";
    for (const auto& [handle, list] : fakeperf::heldLocks()) {
        ASSERT_EQ(list.size(), 2u);
        EXPECT_EQ(list[1] & 0xFF, 0) << "pid " << (list[1] >> 8) << " is still scaled down";
    }
}

}  // namespace
