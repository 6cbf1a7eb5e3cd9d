// sendEvents: the start, stop, game-off and usable power mode hint paths in every PSM mode.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>

#include "feature/LogSites.h"
#include "feature/PSMPowerOptFeature.h"
#include "host/fakeperf/FakePerf.h"
#include "tests/support/DeepModeConfig.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/FeatureSetup.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestConfig.h"
#include "tests/support/TimerSyscalls.h"

namespace {

using fakeperf::CallKind;
using pwr::test::createFeature;
using pwr::test::event;
using pwr::test::LogCapture;
using pwr::test::TimerSyscalls;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int32_t kStart = 0x1001;
constexpr int32_t kStartAlt = 0x1003;
constexpr int32_t kStop = 0x1002;
constexpr int32_t kGameOff = 0x1040;
constexpr int32_t kHint = 0x15E0;

constexpr char kGame[] = "com.example.game/.Main";
constexpr char kGameKey[] = "com.example.game";
constexpr char kApp[] = "com.example.notes/.Edit";
constexpr char kAppKey[] = "com.example.notes";

const std::string kTriggering =
        pwr::linePrefix(pwr::site::kGamingOn) + "Triggering Gaming Usable Mode.";
const std::string kDisableGame =
        pwr::linePrefix(pwr::site::kGamingOffNonGame) + "Disable Game feature for non-game case.";

// The applications asked about, in order.
std::vector<std::string> classified() {
    std::vector<std::string> apps;
    for (const fakeperf::Call& call : fakeperf::calls()) {
        if (call.kind == CallKind::GetFeedback) apps.push_back(call.app);
    }
    return apps;
}

int countCalls(CallKind kind) {
    int n = 0;
    for (const fakeperf::Call& call : fakeperf::calls()) n += call.kind == kind ? 1 : 0;
    return n;
}

// The schedule the system holds for a timer.
itimerspec systemSchedule(const Timer_s* timer) {
    itimerspec spec{};
    EXPECT_EQ(timer_gettime(timer->timerId, &spec), 0);
    return spec;
}

class EventDispatchTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeperf::reset();
        fakeperf::setAppType(kGameKey, 2);
    }

    // Builds the feature and takes a profile lock, as the GPU monitor would have.
    void build(const PowerOptFeatureInfo& info) {
        feature = createFeature(info);
        peer = std::make_unique<PSMPowerOptFeatureTestPeer>(*feature);
        ASSERT_TRUE(peer->ready());
    }
    void holdProfile() {
        Profile profile{{0x42804000, 0x2}};
        feature->applyProfileLock(profile);
        ASSERT_GE(peer->profileLock().held(), 1);
    }
    bool gameTimerActive() { return Timer().Timer_isActive(peer->gpu().timer()); }
    bool batteryTimerActive() { return Timer().Timer_isActive(peer->battery().timer()); }

    std::unique_ptr<PSMPowerOptFeature> feature;
    std::unique_ptr<PSMPowerOptFeatureTestPeer> peer;
};

TEST_F(EventDispatchTest, AppKey_IsNameUpToFirstSlash) {
    build(pwr::test::gpuMonitorConfig("2"));
    feature->sendEvents(event(kStart, "com.example.notes/.a/b"));
    feature->sendEvents(event(kStart, "com.example.plain"));
    feature->sendEvents(event(kStart, ""));
    feature->sendEvents(event(kStart, "/leading"));
    EXPECT_THAT(classified(), ElementsAre("com.example.notes", "com.example.plain", "", ""));
}

TEST_F(EventDispatchTest, ModesZeroAndOne_StartAndStopDoNothing) {
    for (const char* mode : {"0", "1"}) {
        fakeperf::reset();
        build(pwr::test::gpuMonitorConfig(mode));
        holdProfile();
        const size_t callsBefore = fakeperf::calls().size();
        LogCapture log;
        for (int32_t code : {kStart, kStartAlt, kStop, 0x1004, 0x1093, kGameOff}) {
            feature->sendEvents(event(code, kGame));
        }
        EXPECT_THAT(log.messages(), IsEmpty()) << mode;
        EXPECT_EQ(fakeperf::calls().size(), callsBefore) << mode;
        EXPECT_EQ(peer->gameState(), 0) << mode;
        EXPECT_FALSE(gameTimerActive()) << mode;
    }
}

TEST_F(EventDispatchTest, UnknownCode_Ignored) {
    build(pwr::test::gpuMonitorConfig("2"));
    LogCapture log;
    for (int32_t code : {0, 0x1000, 0x1005, 0x1041, 0x15E1, -1}) {
        feature->sendEvents(event(code, kGame, 0x81));
    }
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_THAT(fakeperf::calls(), IsEmpty());
    EXPECT_EQ(peer->gameState(), 0);
    EXPECT_EQ(peer->psmMode(), 2);
}

TEST_F(EventDispatchTest, GamingMode_GameStartArmsGameTimer) {
    build(pwr::test::gpuMonitorConfig("2", "2250"));
    LogCapture log;
    feature->sendEvents(event(kStart, kGame));
    EXPECT_THAT(log.messages(), ElementsAre(kTriggering));
    EXPECT_EQ(peer->gameState(), 1);
    ASSERT_TRUE(gameTimerActive());
    const itimerspec spec = systemSchedule(peer->gpu().timer());
    EXPECT_EQ(spec.it_interval.tv_sec, 2);
    EXPECT_EQ(spec.it_interval.tv_nsec, 250000000);

    // Already on: a second game start changes nothing.
    log.clear();
    feature->sendEvents(event(kStartAlt, kGame));
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_EQ(peer->gameState(), 1);
    EXPECT_TRUE(gameTimerActive());
}

TEST_F(EventDispatchTest, GamingMode_NonGameStartDisablesAndReleases) {
    build(pwr::test::gpuMonitorConfig("2"));
    feature->sendEvents(event(kStart, kGame));
    holdProfile();
    const int handle = peer->profileLock().held();
    LogCapture log;
    feature->sendEvents(event(kStart, kApp));
    EXPECT_THAT(log.messages(),
                ElementsAre(kDisableGame, pwr::linePrefix(pwr::site::kReleasingProfile) +
                                                  "Releasing "
                                                  "profile, handle = " +
                                                  std::to_string(handle)));
    EXPECT_EQ(peer->gameState(), 2);
    EXPECT_FALSE(gameTimerActive());
    EXPECT_EQ(peer->profileLock().held(), -1);
    EXPECT_THAT(fakeperf::heldLocks(), IsEmpty());

    // Already off: a further non-game start does nothing.
    log.clear();
    feature->sendEvents(event(kStart, kApp));
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(EventDispatchTest, GamingMode_NonGameStartFromInitialStateTurnsOff) {
    build(pwr::test::gpuMonitorConfig("2"));
    LogCapture log;
    feature->sendEvents(event(kStart, kApp));
    EXPECT_THAT(log.messages(), ElementsAre(kDisableGame));
    EXPECT_EQ(peer->gameState(), 2);

    // From off, a game turns it back on.
    feature->sendEvents(event(kStart, kGame));
    EXPECT_EQ(peer->gameState(), 1);
    EXPECT_TRUE(gameTimerActive());
}

TEST_F(EventDispatchTest, GamingMode_StopCodesDisarmReleaseAndTurnOff) {
    for (int32_t code : {0x1002, 0x1004, 0x1093}) {
        fakeperf::reset();
        fakeperf::setAppType(kGameKey, 2);
        build(pwr::test::gpuMonitorConfig("2"));
        feature->sendEvents(event(kStart, kGame));
        holdProfile();
        LogCapture log;
        feature->sendEvents(event(code, kGame));
        ASSERT_GE(log.messages().size(), 1u) << code;
        // The whole appName is printed, not the key.
        EXPECT_EQ(log.messages()[0], pwr::linePrefix(pwr::site::kStopHint) + "Stop hint " +
                                             std::to_string(code) + " for: " + kGame);
        EXPECT_EQ(log.countContaining("Releasing profile"), 1) << code;
        EXPECT_EQ(peer->gameState(), 2) << code;
        EXPECT_FALSE(gameTimerActive()) << code;
        const itimerspec spec = systemSchedule(peer->gpu().timer());
        EXPECT_EQ(spec.it_value.tv_sec, 0);
        EXPECT_EQ(spec.it_value.tv_nsec, 0);
        EXPECT_THAT(fakeperf::heldLocks(), IsEmpty()) << code;

        // Off already: a second stop does nothing.
        log.clear();
        feature->sendEvents(event(code, kGame));
        EXPECT_THAT(log.messages(), IsEmpty()) << code;
    }
}

TEST_F(EventDispatchTest, GamingMode_GameOffReleasesWithoutClassifying) {
    build(pwr::test::gpuMonitorConfig("2"));
    feature->sendEvents(event(kStart, kGame));
    holdProfile();
    fakeperf::reset();
    LogCapture log;
    feature->sendEvents(event(kGameOff, kGame));
    EXPECT_EQ(peer->gameState(), 2);
    EXPECT_FALSE(gameTimerActive());
    EXPECT_EQ(peer->profileLock().held(), -1);
    EXPECT_EQ(classified().size(), 0u);
    EXPECT_EQ(countCalls(CallKind::LockRelease), 1);
    // Only the release's own line: game-off itself logs nothing.
    EXPECT_EQ(log.messages().size(), 1u);

    log.clear();
    feature->sendEvents(event(kGameOff, kGame));
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(EventDispatchTest, GamingMode_TimerFailureLoggedAndNotRetried) {
    // A negative period cannot be armed.
    build(pwr::test::gpuMonitorConfig("2", "-5"));
    LogCapture log;
    feature->sendEvents(event(kStart, kGame));
    EXPECT_THAT(log.messages(),
                ElementsAre(kTriggering, pwr::linePrefix(pwr::site::kGameTimerNotStarted) +
                                                 "Timer couldn't be started\n"));
    EXPECT_EQ(peer->gameState(), 1);
    EXPECT_FALSE(gameTimerActive());

    log.clear();
    feature->sendEvents(event(kStart, kGame));
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(EventDispatchTest, GamingModeWithoutGpuMonitor_OnlyStopsAct) {
    build(pwr::test::minimalConfig("2"));
    LogCapture log;
    feature->sendEvents(event(kStart, kGame));
    feature->sendEvents(event(kStart, kApp));
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_THAT(classified(), IsEmpty());
    EXPECT_EQ(peer->gameState(), 0);

    // The first stop after construction acts, since the state starts at 0, not 2.
    holdProfile();
    feature->sendEvents(event(kStop, kGame));
    EXPECT_EQ(log.countContaining("Stop hint 4098"), 1);
    EXPECT_EQ(peer->profileLock().held(), -1);
    EXPECT_EQ(peer->gameState(), 2);
}

TEST_F(EventDispatchTest, GamingModeWithoutGpuMonitor_GameOffActs) {
    build(pwr::test::minimalConfig("2"));
    holdProfile();
    feature->sendEvents(event(kGameOff, kGame));
    EXPECT_EQ(peer->profileLock().held(), -1);
    EXPECT_EQ(peer->gameState(), 2);
}

class BatteryWatchTest : public EventDispatchTest {
  protected:
    void SetUp() override {
        EventDispatchTest::SetUp();
        fakeperf::setAppType("com.example.browser", 3);
        fakeperf::setAppType("com.example.video", 5);
        tree.mkdirs(pwr::test::kStoreDirectory);
        build(pwr::test::deepModeConfig("3"));
        ASSERT_NE(peer->battery().timer(), nullptr);
    }
    // The feature goes before the tree: it may write its state store while it closes.
    void TearDown() override {
        peer.reset();
        feature.reset();
    }

    pwr::test::DeviceTree tree;  // deep mode keeps its state store under the device root
};

TEST_F(BatteryWatchTest, EligibleStartArmsOnceASecond) {
    for (const char* app : {"com.example.game/.G", "com.example.browser/.B", "com.example.video"}) {
        feature->sendEvents(event(kStart, kAppKey));
        ASSERT_FALSE(batteryTimerActive());
        LogCapture log;
        feature->sendEvents(event(kStart, app));
        EXPECT_TRUE(batteryTimerActive()) << app;
        const itimerspec spec = systemSchedule(peer->battery().timer());
        EXPECT_EQ(spec.it_interval.tv_sec, 1) << app;
        EXPECT_EQ(spec.it_interval.tv_nsec, 0) << app;
        EXPECT_THAT(log.messages(), IsEmpty()) << app;
    }
    EXPECT_EQ(peer->psmAppType(), 5);
}

TEST_F(BatteryWatchTest, StartWhileArmed_DisarmsThenArmsAgain) {
    feature->sendEvents(event(kStart, kGame));
    TimerSyscalls::reset();
    feature->sendEvents(event(kStartAlt, "com.example.browser"));
    EXPECT_TRUE(batteryTimerActive());
    const auto settimes = TimerSyscalls::settimesOf(peer->battery().timer()->timerId);
    ASSERT_EQ(settimes.size(), 2u);
    EXPECT_EQ(settimes[0].spec.it_value.tv_sec, 0);  // disarm
    EXPECT_EQ(settimes[0].spec.it_interval.tv_sec, 0);
    EXPECT_EQ(settimes[1].spec.it_value.tv_sec, 1);  // arm: first expiry after one second
    EXPECT_EQ(settimes[1].spec.it_interval.tv_sec, 1);
    EXPECT_EQ(settimes[1].flags, 0);
}

TEST_F(BatteryWatchTest, IneligibleStartDisarms) {
    feature->sendEvents(event(kStart, kGame));
    ASSERT_TRUE(batteryTimerActive());
    feature->sendEvents(event(kStart, kApp));
    EXPECT_FALSE(batteryTimerActive());
    EXPECT_EQ(peer->psmAppType(), 2);  // kept from the last eligible app
}

TEST_F(BatteryWatchTest, StopOfEligibleDisarmsStopOfOtherKeeps) {
    feature->sendEvents(event(kStart, kGame));
    feature->sendEvents(event(kStop, kApp));
    EXPECT_TRUE(batteryTimerActive());
    feature->sendEvents(event(0x1093, "com.example.video/.Player"));
    EXPECT_FALSE(batteryTimerActive());
    // The game state belongs to mode 2 only.
    EXPECT_EQ(peer->gameState(), 0);
}

TEST_F(EventDispatchTest, BatteryWatchWithoutBatteryTimer_LogsCouldNotStart) {
    build(pwr::test::minimalConfig("3"));
    ASSERT_EQ(peer->battery().timer(), nullptr);
    LogCapture log;
    feature->sendEvents(event(kStart, kApp));
    EXPECT_THAT(log.messages(), IsEmpty());
    feature->sendEvents(event(kStart, kGame));
    EXPECT_THAT(log.messages(), ElementsAre(pwr::linePrefix(pwr::site::kBatteryTimerNotStarted) +
                                            "Battery Timer couldn't be started\n"));
}

// --- Usable power mode hints ---

TEST_F(EventDispatchTest, Hint_ConfiguredPsmStateOwnsTheMode) {
    build(pwr::test::minimalConfig("2"));
    LogCapture log;
    for (uint32_t type : {0x80u, 0x81u, 0x82u, 0x83u, 0x01u}) {
        feature->sendEvents(event(kHint, kGame, type));
    }
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kXmlOwnsMode) +
                        "Control PSM mode swiching by XML."),
              5);
    EXPECT_EQ(log.messages().size(), 5u);
    EXPECT_EQ(peer->psmMode(), 2);
    EXPECT_THAT(fakeperf::calls(), IsEmpty());
}

TEST_F(EventDispatchTest, Hint_LightModeAppliesLightProfile) {
    build(pwr::test::minimalConfig("0"));
    peer->setDebugEnabled(true);
    LogCapture log;
    feature->sendEvents(event(kHint, "com.example.app/.X", 0x81));
    EXPECT_EQ(peer->psmMode(), 1);
    EXPECT_TRUE(log.contains(pwr::linePrefix(pwr::site::kPowerModeHint) +
                             "Usable power mode hint for app "
                             "com.example.app/.X, hintID : 5600, hintType hex : 81, psmAction: 1, "
                             "psmType: 1"));
    const auto calls = fakeperf::calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].kind, CallKind::LockAcquire);
    EXPECT_EQ(calls[0].duration, INT_MAX);
    EXPECT_EQ(calls[0].list, peer->settings().mLightModeProfile[0]);
    EXPECT_EQ(peer->profileLock().held(), calls[0].result);

    // Light mode again: the held light lock is released and taken anew.
    feature->sendEvents(event(kHint, "com.example.app", 0x81));
    EXPECT_EQ(countCalls(CallKind::LockRelease), 1);
    EXPECT_EQ(countCalls(CallKind::LockAcquire), 2);
    EXPECT_EQ(fakeperf::heldLocks().size(), 1u);
}

TEST_F(EventDispatchTest, Hint_ModeTypesReleaseAndSwitch) {
    build(pwr::test::minimalConfig("0"));
    // Type 3 (low-power entry) leaves the mode as it was; only type 1 holds a lock afterwards.
    struct Case {
        uint32_t hintType;
        int mode;
        bool lockHeld;
    };
    for (const Case& c :
         {Case{0x82, 2, false}, Case{0x80, 0, false}, Case{0x81, 1, true}, Case{0x83, 1, false}}) {
        holdProfile();
        const int before = peer->profileLock().held();
        feature->sendEvents(event(kHint, kGame, c.hintType));
        EXPECT_EQ(peer->psmMode(), c.mode) << std::hex << c.hintType;
        EXPECT_EQ(fakeperf::heldLocks().count(before), 0u) << std::hex << c.hintType;
        EXPECT_EQ(peer->profileLock().held() >= 1, c.lockHeld) << std::hex << c.hintType;
    }
}

TEST_F(EventDispatchTest, Hint_NoActionOrUnknownTypeDoesNothing) {
    build(pwr::test::minimalConfig("0"));
    holdProfile();
    const int handle = peer->profileLock().held();
    const size_t callsBefore = fakeperf::calls().size();
    LogCapture log;
    // Action 0 (bits 15 and up are not part of it): silent even when debugging.
    peer->setDebugEnabled(true);
    feature->sendEvents(event(kHint, kGame, 0x01));
    feature->sendEvents(event(kHint, kGame, 0x18001));
    EXPECT_THAT(log.messages(), IsEmpty());
    // Type 4: only the debug line.
    feature->sendEvents(event(kHint, kGame, 0x84));
    EXPECT_THAT(log.messages(),
                ElementsAre(pwr::linePrefix(pwr::site::kPowerModeHint) +
                            "Usable power mode hint for app "
                            "com.example.game/.Main, hintID : 5600, hintType hex : 84, "
                            "psmAction: 1, psmType: 4"));
    peer->setDebugEnabled(false);
    feature->sendEvents(event(kHint, kGame, 0x84));
    feature->sendEvents(event(kHint, kGame, 0xFF));
    EXPECT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(fakeperf::calls().size(), callsBefore);
    EXPECT_EQ(peer->profileLock().held(), handle);
    EXPECT_EQ(peer->psmMode(), 0);
}

TEST_F(EventDispatchTest, Hint_ActionTakesBitsSevenToFourteen) {
    build(pwr::test::minimalConfig("0"));
    // Action 0xFF with bit 15 set as well, type 2.
    feature->sendEvents(event(kHint, kGame, (1u << 15) | (0xFFu << 7) | 2u));
    EXPECT_EQ(peer->psmMode(), 2);
    // Only bit 14 of the action, type 1.
    feature->sendEvents(event(kHint, kGame, (1u << 14) | 1u));
    EXPECT_EQ(peer->psmMode(), 1);
}

TEST_F(EventDispatchTest, Hint_SwitchesIntoGamingMode) {
    build(pwr::test::gpuMonitorConfig("0"));
    feature->sendEvents(event(kStart, kGame));
    EXPECT_EQ(peer->gameState(), 0);  // mode 0: nothing
    feature->sendEvents(event(kHint, kGame, 0x82));
    feature->sendEvents(event(kStart, kGame));
    EXPECT_EQ(peer->gameState(), 1);
    EXPECT_TRUE(gameTimerActive());
}

}  // namespace
