// Host events against timer threads, at volume. Two features run side by side, as in a power
// service: one whose PSM mode follows the hints (gaming with a 2 ms game timer, low-power entries
// that start the deep timer) and one fixed in battery-watch mode. One thread sends both tens of
// thousands of events while their timers fire on their own threads, in real time made 50 times
// faster, so that the sanitizer builds find races and use after free between sendEvents and the
// timer callbacks. The test checks that every timer fired while events arrived, that the features'
// own events disarm their timers, and that each feature's one profile lock agrees with the
// performance library.

#include <algorithm>
#include <chrono>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "feature/FeatureCodes.h"
#include "host/fakeperf/FakePerf.h"
#include "platform/Timer.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestConfig.h"
#include "tests/support/ThreadTimers.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using pwr::test::event;
using pwr::test::powerModeHint;

constexpr int kMinEvents = 40000;
constexpr uint64_t kMinGameTicks = 200;
constexpr uint64_t kMinBatteryTicks = 20;
// Game timer ticks per gaming session: enough for the GPU monitor to settle, evaluate and switch.
constexpr uint64_t kTicksPerSession = 8;
// Events delivered per timer tick at most. The test is paced by the timers' own counts, not by
// the clock: a fast event thread waits for the next tick instead of re-arming the game timer
// before it can fire, so the same interleavings are exercised on a quiet machine, a loaded one
// and under the sanitizers.
constexpr uint64_t kEventsPerTick = 200;
// Battery timer ticks between two re-armings of it.
constexpr uint64_t kBatteryTicksPerArming = 3;
constexpr auto kTimeout = 120s;

using pwr::codes::kAppStart;
using pwr::codes::kAppStartAlt;
using pwr::codes::kAppStop;
using pwr::codes::kAppStopOther;
using pwr::codes::kGameOff;
constexpr int32_t kUnknownEvent = 0x1234;

const char kGame[] = "com.example.game/.Main";
const char kVideo[] = "com.example.video/.Player";
const char kMail[] = "com.example.mail/.Inbox";

constexpr char kGpuDir[] = "/sys/class/grax/grax-3d0/";

// Every setting of the feature core, the GPU monitor, the battery monitor and deep mode, with
// short periods and a battery threshold the video's drain crosses. Profiles carry the feature's
// number, so that the two features' locks can be told apart.
PowerOptFeatureInfo stressConfig(const std::string& psmState, const std::string& gpuMode,
                                 int feature) {
    PowerOptFeatureInfo info = pwr::test::deepModeConfig(psmState);
    pwr::test::addGpuMonitorSettings(info, "2");
    info.configs["GPUMode"] = gpuMode;
    info.configs["GPU_SAMPLE_COUNT"] = "3";
    info.configs["STABILITY_SAMPLE_COUNT"] = "2";
    info.configs["VIDEO_SCALING_UP"] = "400";
    info.configs["MAX_SAMPLE_NUM"] = "2";
    for (auto& [name, profile] : info.profiles) {
        if (name != "PSM_OPT_RESOURCE") profile = {{profile[0][0], feature}};
    }
    return info;
}

// The nodes the timers read: GPU frequency and load, battery current, the foreground processes.
void writeDevice(const pwr::test::DeviceTree& tree) {
    const std::string gpu = kGpuDir;
    tree.write(gpu + "gpu_available_frequencies", "100000000 300000000 500000000 700000000\n");
    tree.write(gpu + "gpu_clock_stats", "400 300 200 100\n");
    tree.write(gpu + "gpubusy", "50 100\n");
    tree.write(gpu + "gpuclk", "250000000\n");
    tree.write("/sys/class/power_supply/battery/current_now", "-800000\n");
    tree.write("/dev/cpuset/top-app/cgroup.procs", "1\n4321\n4322\n");
    tree.write("/proc/4321/cmdline", std::string("com.example.video\0", 18));
    tree.write("/proc/4322/cmdline", std::string("com.example.video:render\0", 25));
    tree.mkdirs("/data/vendor/pwr");
}

uint64_t ticks(const Timer_s* timer) {
    return timer != nullptr ? pwr::test::timerExpiries(timer->timerId) : 0;
}

// At most one of the feature's profiles is held (their lists end in its number; a task boost's
// value is a pid shifted by 8), and it is the one the feature records.
void expectOneProfileLock(PSMPowerOptFeature& feature, int number) {
    const int handle = PSMPowerOptFeatureTestPeer(feature).profileLock().held();
    std::vector<int> held;
    for (const auto& [h, list] : fakeperf::heldLocks()) {
        if (list.size() == 2 && list[1] == number) held.push_back(h);
    }
    EXPECT_EQ(held, handle >= 1 ? std::vector<int>{handle} : std::vector<int>{})
            << "feature " << number << " holds exactly its recorded lock";
}

TEST(Stress, EventsWhileGameBatteryAndDeepTimersFire) {
    const pwr::test::ScaledTime fast(50);
    pwr::test::DeviceTree tree;
    writeDevice(tree);
    // A capturing logger would order the threads through its lock and hide races from the
    // sanitizer; and the volume of lines is of no use here.
    pwr::test::installNullLogger();
    fakeperf::reset();
    fakeperf::setRecording(false);
    fakeperf::setAppType("com.example.game", 2);
    fakeperf::setAppType("com.example.video", 5);

    pwr::test::FeatureHandle gamingFeature(stressConfig("0", "1", 1));
    pwr::test::FeatureHandle batteryFeature(stressConfig("3", "0", 2));
    PSMPowerOptFeature& gaming = *gamingFeature;
    PSMPowerOptFeature& battery = *batteryFeature;
    PSMPowerOptFeatureTestPeer gamingPeer(gaming);
    PSMPowerOptFeatureTestPeer batteryPeer(battery);
    ASSERT_TRUE(gamingPeer.ready());
    ASSERT_TRUE(batteryPeer.ready());
    ASSERT_NE(gamingPeer.gpu().timer(), nullptr);
    ASSERT_NE(batteryPeer.battery().timer(), nullptr);

    int events = 0;
    auto toGaming = [&](const AsyncTriggerPayload& payload) {
        gaming.sendEvents(payload);
        ++events;
    };
    auto toBattery = [&](const AsyncTriggerPayload& payload) {
        battery.sendEvents(payload);
        ++events;
    };

    // Low-power entry arms the deep-mode timer (first expiry after 1.5 s); a hint that leaves
    // power saving may stop it. Entries are made only once the timer of the previous one has
    // fired (or was never made), so that a feature that keeps every deep-mode timer it creates
    // is not flooded with them.
    bool deepFired = false;
    bool deepPending = false;
    auto enterLowPower = [&] {
        toGaming(powerModeHint(3, kGame));
        deepPending = gamingPeer.deep().timers().first != nullptr;
    };
    auto deepTimerHasFired = [&] {
        if (deepPending && ticks(gamingPeer.deep().timers().first) >= 1) {
            deepPending = false;
            deepFired = true;
        }
        return !deepPending;
    };

    toGaming(powerModeHint(2, kGame));
    enterLowPower();
    toBattery(event(kAppStart, kVideo));
    ASSERT_EQ(gamingPeer.psmMode(), 2);
    ASSERT_EQ(batteryPeer.psmMode(), 3);

    // Events that leave gaming as it is (a stop of any app would end it: the stop path does not
    // look at the app), the ways out of a gaming session (each back to mode 2; the first
    // kQuietSessionEnds without a mode hint), and events that leave the battery timer running.
    const AsyncTriggerPayload gamingFillers[] = {
            event(kAppStartAlt, kGame),
            event(pwr::codes::kUsablePowerModeHint, kGame, 0x02),  // no action
            event(kUnknownEvent, kGame),
            powerModeHint(4, kGame),
    };
    const std::vector<std::vector<AsyncTriggerPayload>> sessionEnds = {
            {event(kAppStop, kGame)},
            {event(kGameOff, kGame)},
            {event(kAppStart, kMail)},
            {event(kAppStopOther, kMail)},
            {powerModeHint(1, kMail), event(kAppStart, kGame), powerModeHint(2, kMail)},
            {powerModeHint(0, kMail), event(kAppStop, kGame), powerModeHint(2, kMail)},
    };
    constexpr size_t kQuietSessionEnds = 4;
    const AsyncTriggerPayload batteryFillers[] = {
            event(kAppStop, kMail),
            event(kGameOff, kVideo),
            powerModeHint(2, kVideo),
            event(kUnknownEvent, kVideo),
    };

    // The timers' counts decide which event comes next and how many may come before the next tick.
    const Clock::time_point deadline = Clock::now() + kTimeout;
    uint64_t sessionStart = ticks(gamingPeer.gpu().timer());
    uint64_t batteryArmedAt = 0;
    int session = 0;
    bool inSession = false;
    int n = 0;
    for (;; ++n) {
        if (n % 64 == 0) {
            // A timer counts only when the feature set it to run: a game timer with a period,
            // a deep-mode timer that low-power entry created.
            const bool enough = events >= kMinEvents &&
                                (gamingPeer.settings().mGameTimerMs <= 0 ||
                                 ticks(gamingPeer.gpu().timer()) >= kMinGameTicks) &&
                                ticks(batteryPeer.battery().timer()) >= kMinBatteryTicks &&
                                (gamingPeer.deep().timers().first == nullptr || deepFired);
            if (enough) break;
            if (Clock::now() > deadline) {
                ADD_FAILURE() << "timers too slow: " << events << " events, game "
                              << ticks(gamingPeer.gpu().timer()) << ", battery "
                              << ticks(batteryPeer.battery().timer()) << ", deep fired "
                              << deepFired;
                break;
            }
        }

        // The gaming feature: a game in the foreground until its timer has ticked through a
        // session, with events that leave gaming as it is, then one of the ways out of it.
        const uint64_t gameTicks = ticks(gamingPeer.gpu().timer());
        const uint64_t allTicks = gameTicks + ticks(batteryPeer.battery().timer());
        if (inSession && static_cast<uint64_t>(events) >= (allTicks + 1) * kEventsPerTick) {
            std::this_thread::sleep_for(100us);
            continue;
        }
        if (!inSession) {
            // Alternate a low and a moderate GPU clock, so sessions settle on different profiles.
            tree.write(std::string(kGpuDir) + "gpuclk",
                       session % 2 == 0 ? "250000000\n" : "450000000\n");
            toGaming(event(kAppStart, kGame));
            sessionStart = gameTicks;
            inSession = true;
        } else if (gameTicks - sessionStart < kTicksPerSession) {
            toGaming(gamingFillers[n % std::size(gamingFillers)]);
        } else {
            // While a deep-mode timer has yet to fire, no hint may stop it.
            const size_t end = deepTimerHasFired() ? session % sessionEnds.size()
                                                   : session % kQuietSessionEnds;
            for (const AsyncTriggerPayload& payload : sessionEnds[end]) toGaming(payload);
            if (end >= kQuietSessionEnds) enterLowPower();
            ++session;
            inSession = false;
        }

        // The battery-watch feature: events that leave its timer running, and now and then the
        // start of an ineligible app (disarms) followed by an eligible one (arms again).
        const uint64_t batteryTicks = ticks(batteryPeer.battery().timer());
        if (batteryTicks - batteryArmedAt >= kBatteryTicksPerArming) {
            toBattery(event(kAppStart, kMail));
            toBattery(event(kAppStart, kVideo));
            batteryArmedAt = batteryTicks;
        } else {
            toBattery(batteryFillers[n % std::size(batteryFillers)]);
        }
    }
    RecordProperty("events", events);
    RecordProperty("game_ticks", static_cast<int>(ticks(gamingPeer.gpu().timer())));
    RecordProperty("battery_ticks", static_cast<int>(ticks(batteryPeer.battery().timer())));
    RecordProperty("deep_fired", deepFired ? 1 : 0);
    EXPECT_GE(events, kMinEvents);
    EXPECT_EQ(gamingPeer.psmMode(), 2);
    EXPECT_EQ(batteryPeer.psmMode(), 3) << "a configured PSM_STATE keeps its mode";

    // Quiesce before destruction: the features' own events disarm the game and battery timers;
    // the deep timer stops itself once its profile is held, or is stopped here. Then no callback
    // may still be running when the features go.
    toGaming(event(kAppStop, kGame));
    toBattery(event(kAppStart, kMail));
    Timer timer;
    EXPECT_FALSE(timer.Timer_isActive(gamingPeer.gpu().timer())) << "a stop disarms the game timer";
    EXPECT_FALSE(timer.Timer_isActive(batteryPeer.battery().timer()))
            << "an ineligible app disarms the battery timer";
    timer.Timer_disable(gamingPeer.deep().timers().first);
    ASSERT_TRUE(pwr::test::waitForTimerCallbacks(30s)) << "a timer callback did not return";

    expectOneProfileLock(gaming, 1);
    expectOneProfileLock(battery, 2);

    gamingFeature.reset();
    batteryFeature.reset();
    fakeperf::reset();
}

}  // namespace
