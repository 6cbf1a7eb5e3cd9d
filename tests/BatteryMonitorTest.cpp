// The battery monitor driven tick by tick: scripted current_now readings, the callback called
// directly (the timer stays unarmed, so no other thread ticks), boosts read back from the fake
// performance library; then foreground-process discovery over a fake cpuset and /proc, and the
// task-load-boost locks as the fake performance library receives them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/inotify.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <android-base/unique_fd.h>

#include "feature/LogSites.h"
#include "feature/PSMPowerOptFeature.h"
#include "host/fakeperf/FakePerf.h"
#include "tests/support/DeepModeConfig.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/FeatureFactory.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestConfig.h"

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
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kMissingBatteryConfigs) +
                        "Missing configs for: 0"),
              1)
            << ::testing::PrintToString(log.messages());
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kAverageCurrent) + "Avg Current: 5000.00"), 1);
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

    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kReadDenied) + "Read denied."), 1)
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
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kResetBattery) + "Reset battery status."), 1);
    EXPECT_EQ(peer->snapshot().batteryBoosted, 0);
    EXPECT_EQ(peer->snapshot().batterySampleCounter, 0);
    EXPECT_EQ(peer->snapshot().topTaskFlag, 0);
    EXPECT_THAT(peer->battery().samples(), ::testing::SizeIs(5)) << "samples are kept";

    // Not boosted: counters only.
    (*feature)->ResetBattery();
    EXPECT_THAT(boostRequests(), IsEmpty());
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kResetBattery) + "Reset battery status."), 1);

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

// --- Top tasks and task-load boost.

std::string cmdlinePath(int pid) {
    return "/proc/" + std::to_string(pid) + "/cmdline";
}

// Reports which watched files were opened: inotify queues IN_OPEN inside the open call itself,
// so once the code under test has returned, every open it made can be read back.
class OpenWatch {
  public:
    OpenWatch() : mFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}
    bool valid() const { return mFd != -1; }
    // Watches `path`; the watch descriptor, -1 on failure.
    int add(const std::string& path) { return inotify_add_watch(mFd, path.c_str(), IN_OPEN); }
    // The watch descriptors that saw an open since the last call.
    std::set<int> opened() {
        std::set<int> seen;
        alignas(inotify_event) char buffer[4096];
        for (;;) {
            const ssize_t n = read(mFd, buffer, sizeof(buffer));
            if (n <= 0) break;
            for (ssize_t at = 0; at < n;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
                if ((event->mask & IN_OPEN) != 0) seen.insert(event->wd);
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
        return seen;
    }

  private:
    android::base::unique_fd mFd;
};

std::vector<fakeperf::Call> lockCalls() {
    std::vector<fakeperf::Call> out;
    for (const fakeperf::Call& call : fakeperf::calls()) {
        if (call.kind == fakeperf::CallKind::LockAcquire ||
            call.kind == fakeperf::CallKind::LockRelease) {
            out.push_back(call);
        }
    }
    return out;
}

class TopTaskBoost : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeperf::reset();
        tree.mkdirs(pwr::test::kStoreDirectory);
    }

    void writeProcess(int pid, const std::string& cmdline) const {
        tree.write(cmdlinePath(pid), cmdline);
    }

    DeviceTree tree;
    LogCapture log;
};

TEST_F(TopTaskBoost, GetTopTask_SkipsKernelThreadsAndSystemServerAnywhereInTheName) {
    FeatureHandle feature(pwr::test::deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    peer.setDebugEnabled(true);
    tree.write(kProcs, "2\n1000\n1200\n1300\n1400\n1500\n");
    writeProcess(2, "");                                     // kernel thread
    writeProcess(1000, std::string("system_server\0", 14));  // the system server
    writeProcess(1200, std::string("com.example.mail\0--x\0", 21));
    writeProcess(1300, std::string("vendor.system_server_helper\0", 28));  // substring
    // 1400 has no /proc entry any more.
    writeProcess(1500, std::string("com.example.game\0", 17));

    EXPECT_TRUE(feature->getTopTask());

    EXPECT_THAT(peer.battery().tasks(), ElementsAre("1200", "1500"));
    EXPECT_THAT(peer.battery().scalingValues(), ElementsAre(Pair("1200", -20), Pair("1500", -20)));
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kTopTask) + "Get task 1200\n"), 1)
            << ::testing::PrintToString(log.messages());
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kTopTask) + "Get task 1500\n"), 1);
    EXPECT_EQ(log.countContaining("Get task"), 2);
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kTopTaskCount) + "Toplist Size 2\n"), 1);
}

TEST_F(TopTaskBoost, GetTopTask_KernelThreadsOnlyFindsNothing) {
    FeatureHandle feature(pwr::test::deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    peer.setDebugEnabled(true);
    tree.write(kProcs, "2 3\n");
    writeProcess(2, "");
    writeProcess(3, std::string("\0\0", 2));

    EXPECT_FALSE(feature->getTopTask());

    EXPECT_THAT(peer.battery().tasks(), IsEmpty());
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kNoTopTask) + "No more task fits"), 1)
            << ::testing::PrintToString(log.messages());
}

TEST_F(TopTaskBoost, GetTopTask_MissingCpusetIsSilentAndListIsRefilledEachCall) {
    FeatureHandle feature(pwr::test::deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    peer.setDebugEnabled(true);
    tree.write(kProcs, "700 oops 800\n");  // reading stops at the first token that is no number
    writeProcess(700, "a");
    writeProcess(800, "b");
    ASSERT_TRUE(feature->getTopTask());
    EXPECT_THAT(peer.battery().tasks(), ElementsAre("700"));

    tree.remove(kProcs);
    log.clear();
    EXPECT_FALSE(feature->getTopTask());
    EXPECT_THAT(peer.battery().tasks(), IsEmpty());
    EXPECT_THAT(log.messages(), IsEmpty());
    // Scaling values of earlier calls stay.
    EXPECT_THAT(peer.battery().scalingValues(), ElementsAre(Pair("700", -20)));
}

TEST_F(TopTaskBoost, GetTopTask_KeepsFourAndNeverOpensTheRest) {
    FeatureHandle feature(pwr::test::deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    tree.write(kProcs, "101\n102\n103\n104\n105\n106\n");
    for (int pid = 101; pid <= 106; ++pid)
        writeProcess(pid, "com.example.app" + std::to_string(pid));
    OpenWatch watch;
    ASSERT_TRUE(watch.valid()) << strerror(errno);
    const int fourth = watch.add(tree.hostPath(cmdlinePath(104)));
    const int fifth = watch.add(tree.hostPath(cmdlinePath(105)));
    const int sixth = watch.add(tree.hostPath(cmdlinePath(106)));
    ASSERT_NE(fourth, -1) << strerror(errno);
    ASSERT_NE(fifth, -1) << strerror(errno);
    ASSERT_NE(sixth, -1) << strerror(errno);

    EXPECT_TRUE(feature->getTopTask());

    EXPECT_THAT(peer.battery().tasks(), ElementsAre("101", "102", "103", "104"));
    const std::set<int> opened = watch.opened();
    EXPECT_EQ(opened.count(fourth), 1u) << "the watch must see the fourth process being read";
    EXPECT_EQ(opened.count(fifth), 0u) << "the fifth process was opened";
    EXPECT_EQ(opened.count(sixth), 0u) << "the sixth process was opened";
}

TEST_F(TopTaskBoost, UpdateTaskloadboost_EncodesOnlyNegativeValues) {
    FeatureHandle feature(pwr::test::deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    peer.setDebugEnabled(true);

    feature->updateTaskloadboost("1234", 3, -20);
    feature->updateTaskloadboost("1234", 3, 20);
    feature->updateTaskloadboost("1234", 3, 0);
    feature->updateTaskloadboost("77", 1, -200);

    const std::vector<fakeperf::Call> calls = lockCalls();
    ASSERT_EQ(calls.size(), 8u);
    using fakeperf::CallKind;
    // A pid seen for the first time releases handle 0.
    EXPECT_EQ(calls[0].kind, CallKind::LockRelease);
    EXPECT_EQ(calls[0].handle, 0);
    EXPECT_EQ(calls[1].kind, CallKind::LockAcquire);
    EXPECT_THAT(calls[1].list, ElementsAre(kTaskBoostOpcode, 0x4D294));
    EXPECT_EQ(calls[1].duration, INT_MAX);
    EXPECT_EQ(calls[1].handle, 0);
    // Each update replaces the previous lock of the pid; 20 and 0 both encode as 0.
    EXPECT_EQ(calls[2].kind, CallKind::LockRelease);
    EXPECT_EQ(calls[2].handle, calls[1].result);
    EXPECT_THAT(calls[3].list, ElementsAre(kTaskBoostOpcode, 0x4D200));
    EXPECT_EQ(calls[4].handle, calls[3].result);
    EXPECT_THAT(calls[5].list, ElementsAre(kTaskBoostOpcode, 0x4D200));
    EXPECT_EQ(calls[6].kind, CallKind::LockRelease);
    EXPECT_EQ(calls[6].handle, 0);
    EXPECT_THAT(calls[7].list, ElementsAre(kTaskBoostOpcode, (77 << 8) | 0xC8));

    EXPECT_THAT(peer.battery().boostHandles(),
                ElementsAre(Pair("1234", calls[5].result), Pair("77", calls[7].result)));
    EXPECT_THAT(fakeperf::heldLocks(), ::testing::SizeIs(2)) << "one lock per pid";
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kBoostUpdated) + "Updated handle: " +
                        std::to_string(calls[1].result) + ", value: 20, val: 316052"),
              1)
            << ::testing::PrintToString(log.messages());
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kReleasingHandle) + "Releasing handle:0"), 2);
}

TEST_F(TopTaskBoost, UpdateTaskloadboost_ZeroTasksChangesNothing) {
    FeatureHandle feature(pwr::test::deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    peer.setDebugEnabled(true);

    feature->updateTaskloadboost("1234", 0, -20);

    EXPECT_THAT(lockCalls(), IsEmpty());
    EXPECT_THAT(peer.battery().boostHandles(), IsEmpty());
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kBoostWithoutTasks) +
                        "Failed to update "
                        "task_load_boost, maxNumTask = 0"),
              1);
}

TEST_F(TopTaskBoost, UpdateTaskloadboost_RefusedLockIsNotReleasedNextTime) {
    FeatureHandle feature(pwr::test::deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    peer.setDebugEnabled(true);
    fakeperf::setAcquireFailure(true, -1);

    feature->updateTaskloadboost("55", 1, -1);
    EXPECT_THAT(peer.battery().boostHandles(), ElementsAre(Pair("55", -1)));
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kApplyFailed) +
                        "Failed to apply resource, handle = -1"),
              1)
            << ::testing::PrintToString(log.messages());

    fakeperf::setAcquireFailure(false);
    fakeperf::reset();
    feature->updateTaskloadboost("55", 1, -1);
    const std::vector<fakeperf::Call> calls = lockCalls();
    ASSERT_EQ(calls.size(), 1u) << "handle -1 is not released";
    EXPECT_THAT(calls[0].list, ElementsAre(kTaskBoostOpcode, (55 << 8) | 0x81));
}

// Without a boost opcode nothing is acquired, and the handle just released stays recorded.
TEST_F(TopTaskBoost, UpdateTaskloadboost_WithoutOpcodeOnlyReleases) {
    FeatureHandle feature(pwr::test::minimalConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);

    feature->updateTaskloadboost("1234", 2, -20);

    const std::vector<fakeperf::Call> calls = lockCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].kind, fakeperf::CallKind::LockRelease);
    EXPECT_EQ(calls[0].handle, 0);
    EXPECT_THAT(peer.battery().boostHandles(), ElementsAre(Pair("1234", 0)));
}

}  // namespace
