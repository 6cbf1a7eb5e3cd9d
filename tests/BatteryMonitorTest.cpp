// The battery monitor driven tick by tick (scripted current_now readings, the callback called
// directly), foreground-process discovery over a fake cpuset and /proc, and the task-load-boost
// locks as the fake performance library receives them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "feature/FeatureCodes.h"
#include "tests/support/FeatureTest.h"

namespace {

using fakeperf::CallKind;
using pwr::test::kTaskBoostOpcode;
using pwr::test::line;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
namespace site = pwr::site;

constexpr char kCurrentNow[] = "/sys/class/power_supply/battery/current_now";
constexpr char kProcs[] = "/dev/cpuset/top-app/cgroup.procs";

std::string cmdline(int pid) {
    return "/proc/" + std::to_string(pid) + "/cmdline";
}

// A deep-mode feature in battery-watch mode (thresholds game 700/100, browser 800/200, video
// 900/300, five samples, boosts scaled down by 20) with two foreground processes.
class BatteryMonitor : public pwr::test::BuiltFeatureTest {
  protected:
    void SetUp() override {
        fakeperf::setAppType("com.example.game", 2);
        fakeperf::setAppType("com.example.browser", 3);
        fakeperf::setAppType("com.example.video", 5);
        fakeperf::setAppType("com.example.notes", 4);
        tree.write(kProcs, "4100\n4200\n");
        tree.write(cmdline(4100), "com.example.game");
        tree.write(cmdline(4200), "com.example.game:render");
        build(pwr::test::deepModeConfig("3"), false);
        ASSERT_TRUE(peer->ready());
        log.clear();
    }

    // The app in front, as event dispatch classifies it.
    void foreground(const std::string& app) { (*feature)->isPSMType(app); }
    void ticks(int count, int milliamps) {
        tree.write(kCurrentNow, std::to_string(-milliamps * 1000) + "\n");
        for (int i = 0; i < count; ++i) PSMPowerOptFeature::batterytimerCallBack(&**feature);
    }
    // Task-boost values requested since the last call, in order.
    std::vector<int> boostRequests() {
        std::vector<int> values;
        const std::vector<fakeperf::Call> calls = pwr::test::callsOf(CallKind::LockAcquire);
        for (size_t i = mSeenAcquisitions; i < calls.size(); ++i) {
            if (calls[i].list.size() == 2 && calls[i].list[0] == kTaskBoostOpcode) {
                values.push_back(calls[i].list[1]);
            }
        }
        mSeenAcquisitions = calls.size();
        return values;
    }

  private:
    size_t mSeenAcquisitions = 0;
};

// Encoded boost values as the library receives them: scaled down by 20, or undone.
const std::vector<int> kBoosted = {(4100 << 8) | 0x80 | 20, (4200 << 8) | 0x80 | 20};
const std::vector<int> kUnboosted = {4100 << 8, 4200 << 8};

// Ticks at a drain with an app in front, and the boost requests and boosted state that follow.
struct Step {
    const char* app;  // classified before the ticks; nullptr keeps the one in front
    int ticks;
    int milliamps;  // negative while charging
    std::vector<int> requests;
    int boosted;
};

struct EvaluationCase {
    const char* name;
    std::vector<Step> steps;
    friend void PrintTo(const EvaluationCase& row, std::ostream* os) { *os << row.name; }
};

class BatteryEvaluation : public BatteryMonitor,
                          public ::testing::WithParamInterface<EvaluationCase> {};

TEST_P(BatteryEvaluation, Steps) {
    for (const Step& step : GetParam().steps) {
        SCOPED_TRACE(std::to_string(step.ticks) + " ticks at " + std::to_string(step.milliamps) +
                     " mA" + (step.app != nullptr ? std::string(" with ") + step.app : ""));
        if (step.app != nullptr) foreground(step.app);
        ticks(step.ticks, step.milliamps);
        EXPECT_EQ(boostRequests(), step.requests);
        EXPECT_EQ(peer->snapshot().batteryBoosted, step.boosted);
    }
}

INSTANTIATE_TEST_SUITE_P(
        Drains, BatteryEvaluation,
        ::testing::Values(
                // Every fifth tick decides; a boosted state is not boosted again.
                EvaluationCase{"EveryMaxSampleNumTicks",
                               {{"com.example.game", 4, 1000, {}, 0},
                                {nullptr, 1, 1000, kBoosted, 1},
                                {nullptr, 5, 1000, {}, 1},
                                {nullptr, 4, 50, {}, 1},
                                {nullptr, 1, 50, kUnboosted, 0}}},
                EvaluationCase{"ThresholdsAreStrict",
                               {{"com.example.game", 5, 700, {}, 0},
                                {nullptr, 5, 701, kBoosted, 1},
                                {nullptr, 5, 100, {}, 1},
                                {nullptr, 5, 99, kUnboosted, 0}}},
                // Type 4 is not eligible: the pair of the last eligible type stays.
                EvaluationCase{"ThresholdsFollowTheAppType",
                               {{"com.example.browser", 5, 750, {}, 0},
                                {"com.example.video", 5, 850, {}, 0},
                                {"com.example.notes", 5, 850, {}, 0},
                                {nullptr, 5, 950, kBoosted, 1},
                                {"com.example.game", 5, 250, {}, 1},
                                {"com.example.browser", 5, 150, kUnboosted, 0},
                                {nullptr, 5, 850, kBoosted, 1},
                                {"com.example.video", 5, 250, kUnboosted, 0}}},
                EvaluationCase{"ChargingIsNoDrain", {{"com.example.game", 10, -2000, {}, 0}}},
                EvaluationCase{"NoAppTypeYetDecidesNothing", {{nullptr, 10, 5000, {}, 0}}}),
        [](const auto& info) { return std::string(info.param.name); });

TEST_F(BatteryMonitor, KeepsTheLatestSamplesAndResetsTheCountAtEachEvaluation) {
    foreground("com.example.game");
    ticks(3, 1000);
    ticks(3, -2000);
    EXPECT_THAT(peer->battery().samples(), ElementsAre(0, 0, 0, 1000, 1000));
    EXPECT_EQ(peer->snapshot().batterySampleCounter, 1);
    EXPECT_EQ(peer->snapshot().lastAverageCurrentMa, 600.0f) << "(3 x 1000 + 2 x 0) / 5";
    PSMPowerOptFeature::batterytimerCallBack(nullptr);
    EXPECT_EQ(peer->snapshot().batterySampleCounter, 1);
}

TEST_F(BatteryMonitor, AnUnreadableNodeCountsATickWithoutASample) {
    foreground("com.example.game");
    ticks(4, 800);
    tree.remove(kCurrentNow);
    PSMPowerOptFeature::batterytimerCallBack(&**feature);
    EXPECT_EQ(log.count(line(site::kReadDenied, "Read denied.")), 1);
    EXPECT_THAT(peer->battery().samples(), ElementsAre(800, 800, 800, 800));
    // 3200 / 5 = 640 is not above 700 (3200 / 4 would have been).
    EXPECT_THAT(boostRequests(), IsEmpty());
    EXPECT_EQ(peer->snapshot().batterySampleCounter, 0) << "the fifth tick was an evaluation";
}

TEST_F(BatteryMonitor, AMissingThresholdOfTheAppTypeDecidesNothing) {
    for (const char* key : {"VIDEO_SCALING_UP", "VIDEO_SCALING_DOWN"}) {
        PowerOptFeatureInfo info = pwr::test::deepModeConfig("3");
        info.configs[key] = "0";
        build(info, false);
        peer->setDebugEnabled(true);
        foreground("com.example.video");
        log.clear();
        ticks(5, 5000);
        EXPECT_THAT(boostRequests(), IsEmpty()) << key;
        EXPECT_EQ(log.messages(),
                  (std::vector<std::string>{
                          line(site::kAverageCurrent, "Avg Current: 5000.00"),
                          line(site::kMissingBatteryConfigs, "Missing configs for: 5")}));
        EXPECT_EQ(peer->snapshot().batterySampleCounter, 0);
    }
}

TEST_F(BatteryMonitor, AnEmptyTaskListMarksBoostedWithoutCalls) {
    tree.remove(kProcs);
    foreground("com.example.game");
    ticks(5, 1000);
    EXPECT_EQ(peer->snapshot().batteryBoosted, 1);
    EXPECT_EQ(peer->snapshot().topTaskFlag, 0) << "discovery found nothing";
    ticks(5, 10);
    EXPECT_EQ(peer->snapshot().batteryBoosted, 0);
    EXPECT_THAT(boostRequests(), IsEmpty());
    EXPECT_TRUE(fakeperf::heldLocks().empty());
}

TEST_F(BatteryMonitor, ResetBatteryWithdrawsBoostsAndTheNextDrainRediscoversTasks) {
    foreground("com.example.game");
    ticks(7, 1000);
    ASSERT_EQ(boostRequests(), kBoosted);
    ASSERT_EQ(peer->snapshot().topTaskFlag, 1);
    peer->setDebugEnabled(true);
    (*feature)->ResetBattery();
    (*feature)->ResetBattery();  // not boosted any more: counters only
    EXPECT_EQ(boostRequests(), kUnboosted);
    EXPECT_EQ(log.count(line(site::kResetBattery, "Reset battery status.")), 1);
    const PSMFeatureSnapshot s = peer->snapshot();
    EXPECT_EQ(s.batteryBoosted + s.batterySampleCounter + s.topTaskFlag, 0);
    EXPECT_EQ(peer->battery().samples().size(), 5u) << "samples are kept";

    tree.write(kProcs, "4300\n");
    tree.write(cmdline(4300), "com.example.browser");
    ticks(5, 1000);
    EXPECT_EQ(boostRequests(), (std::vector<int>{(4300 << 8) | 0x80 | 20}));
}

TEST_F(BatteryMonitor, TheEventsThatDisarmTheTimerWithdrawBoosts) {
    for (const AsyncTriggerPayload& payload :
         {pwr::test::event(pwr::codes::kAppStop, "com.example.game/.Main"),
          pwr::test::event(pwr::codes::kAppStart, "com.example.notes/.Edit")}) {
        (*feature)->sendEvents(pwr::test::event(pwr::codes::kAppStart, "com.example.game/.Main"));
        ticks(5, 1000);
        ASSERT_EQ(boostRequests(), kBoosted);
        (*feature)->sendEvents(payload);
        EXPECT_EQ(boostRequests(), kUnboosted) << payload.appName;
        EXPECT_EQ(peer->snapshot().batteryBoosted, 0);
        EXPECT_EQ(peer->snapshot().batteryTimerArmed, 0);
    }
}

// --- Top tasks and task-load boost.

TEST_F(BatteryMonitor, GetTopTask_SkipsKernelThreadsAndSystemServerAnywhereInTheName) {
    peer->setDebugEnabled(true);
    tree.write(kProcs, "2\n1000\n1200\n1300\n1400\n1500\n");
    tree.write(cmdline(2), "");                                     // kernel thread
    tree.write(cmdline(1000), std::string("system_server\0", 14));  // the system server
    tree.write(cmdline(1200), std::string("com.example.mail\0--x\0", 21));
    tree.write(cmdline(1300), std::string("vendor.system_server_helper\0", 28));
    // 1400 has no /proc entry any more.
    tree.write(cmdline(1500), std::string("com.example.game\0", 17));
    log.clear();
    EXPECT_TRUE((*feature)->getTopTask());
    EXPECT_THAT(peer->battery().tasks(), ElementsAre("1200", "1500"));
    EXPECT_THAT(peer->battery().scalingValues(), ElementsAre(Pair("1200", -20), Pair("1500", -20)));
    EXPECT_THAT(log.messages(), ElementsAre(line(site::kTopTask, "Get task 1200\n"),
                                            line(site::kTopTask, "Get task 1500\n"),
                                            line(site::kTopTaskCount, "Toplist Size 2\n")));

    tree.write(kProcs, "2 3\n");
    tree.write(cmdline(3), std::string("\0\0", 2));
    log.clear();
    EXPECT_FALSE((*feature)->getTopTask());
    EXPECT_THAT(peer->battery().tasks(), IsEmpty());
    EXPECT_THAT(log.messages(), ElementsAre(line(site::kNoTopTask, "No more task fits")));
}

TEST_F(BatteryMonitor, GetTopTask_ReadsPidsUpToTheFirstNonNumberAndRefillsTheListEachCall) {
    peer->setDebugEnabled(true);
    tree.write(kProcs, "700 oops 800\n");
    tree.write(cmdline(700), "a");
    tree.write(cmdline(800), "b");
    ASSERT_TRUE((*feature)->getTopTask());
    EXPECT_THAT(peer->battery().tasks(), ElementsAre("700"));
    tree.remove(kProcs);
    log.clear();
    EXPECT_FALSE((*feature)->getTopTask());
    EXPECT_THAT(peer->battery().tasks(), IsEmpty());
    EXPECT_THAT(log.messages(), IsEmpty()) << "a missing cpuset is silent";
    EXPECT_THAT(peer->battery().scalingValues(), ElementsAre(Pair("700", -20)));
}

// inotify queues IN_OPEN inside the open call itself: once getTopTask returns, every open it
// made can be read back.
TEST_F(BatteryMonitor, GetTopTask_KeepsFourAndNeverOpensTheRest) {
    tree.write(kProcs, "101\n102\n103\n104\n105\n106\n");
    for (int pid = 101; pid <= 106; ++pid) tree.write(cmdline(pid), "app" + std::to_string(pid));
    android::base::unique_fd watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_NE(watch.get(), -1) << strerror(errno);
    std::vector<int> watches;
    for (int pid : {104, 105, 106}) {
        watches.push_back(
                inotify_add_watch(watch.get(), tree.hostPath(cmdline(pid)).c_str(), IN_OPEN));
        ASSERT_NE(watches.back(), -1) << strerror(errno);
    }
    EXPECT_TRUE((*feature)->getTopTask());
    EXPECT_THAT(peer->battery().tasks(), ElementsAre("101", "102", "103", "104"));
    // A watched file reports no name: each event is one bare record.
    alignas(inotify_event) char buffer[4096];
    ASSERT_EQ(read(watch.get(), buffer, sizeof(buffer)),
              static_cast<ssize_t>(sizeof(inotify_event)))
            << "only the fourth of these is read";
    EXPECT_EQ(reinterpret_cast<const inotify_event*>(buffer)->wd, watches[0]);
}

// Each update releases the pid's previous lock (handle 0 the first time) and acquires the
// opcode with pid << 8, plus 0x80 and the magnitude (mod 128) for a negative value.
TEST_F(BatteryMonitor, UpdateTaskloadboost_EncodesOnlyScalingDown) {
    const struct {
        const char* pid;
        int tasks;
        int value;
        int encoded;
    } cases[] = {
            {"1234", 3, -20, 0x4D294},       {"1234", 3, 20, 0x4D200},
            {"1234", 3, 0, 0x4D200},         {"77", 1, -200, (77 << 8) | 0xC8},
            {"5", 2, -128, (5 << 8) | 0x80}, {"6", 2, -127, (6 << 8) | 0xFF},
    };
    peer->setDebugEnabled(true);
    std::map<std::string, int> handles;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.pid) + " " + std::to_string(c.value));
        fakeperf::reset();
        log.clear();
        (*feature)->updateTaskloadboost(c.pid, c.tasks, c.value);
        const std::vector<fakeperf::Call> calls = fakeperf::calls();
        ASSERT_EQ(calls.size(), 2u);
        EXPECT_EQ(calls[0].kind, CallKind::LockRelease);
        EXPECT_EQ(calls[0].handle, handles[c.pid]);
        EXPECT_EQ(calls[1].kind, CallKind::LockAcquire);
        EXPECT_THAT(calls[1].list, ElementsAre(kTaskBoostOpcode, c.encoded));
        EXPECT_EQ(calls[1].duration, INT_MAX);
        handles[c.pid] = calls[1].result;
        EXPECT_EQ(log.count(line(site::kBoostUpdated,
                                 "Updated handle: " + std::to_string(calls[1].result) +
                                         ", value: " + std::to_string(c.value < 0 ? -c.value : 0) +
                                         ", val: " + std::to_string(c.encoded))),
                  1);
    }
    EXPECT_EQ(peer->battery().boostHandles(), handles);
}

TEST_F(BatteryMonitor, UpdateTaskloadboost_FailurePaths) {
    peer->setDebugEnabled(true);
    (*feature)->updateTaskloadboost("1234", 0, -20);  // no tasks: nothing at all
    EXPECT_TRUE(fakeperf::calls().empty());
    EXPECT_THAT(log.messages(), ElementsAre(line(site::kBoostWithoutTasks,
                                                 "Failed to update task_load_boost, "
                                                 "maxNumTask = 0")));

    fakeperf::setAcquireFailure(true, -1);  // a refused lock is recorded as -1 ...
    (*feature)->updateTaskloadboost("55", 1, -1);
    EXPECT_THAT(peer->battery().boostHandles(), ElementsAre(Pair("55", -1)));
    EXPECT_TRUE(log.contains(line(site::kApplyFailed, "Failed to apply resource, handle = -1")));
    fakeperf::setAcquireFailure(false);
    fakeperf::reset();
    (*feature)->updateTaskloadboost("55", 1, -1);  // ... and not released next time
    ASSERT_EQ(fakeperf::calls().size(), 1u);
    EXPECT_THAT(fakeperf::calls()[0].list, ElementsAre(kTaskBoostOpcode, (55 << 8) | 0x81));

    build(pwr::test::minimalConfig(), false);  // no boost opcode: the release only, its handle kept
    fakeperf::reset();
    (*feature)->updateTaskloadboost("1234", 2, -20);
    ASSERT_EQ(fakeperf::calls().size(), 1u);
    EXPECT_EQ(fakeperf::calls()[0].kind, CallKind::LockRelease);
    EXPECT_THAT(peer->battery().boostHandles(), ElementsAre(Pair("1234", 0)));
}

}  // namespace
