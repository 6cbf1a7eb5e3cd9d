// sendEvents: what each event does in each PSM mode and gaming state, the timers it arms, and the
// usable power mode hints.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>

#include "feature/FeatureCodes.h"
#include "tests/support/FeatureTest.h"
#include "tests/support/TimerSyscalls.h"

namespace {

using fakeperf::CallKind;
using pwr::test::callsOf;
using pwr::test::createFeature;
using pwr::test::event;
using pwr::test::line;
using pwr::test::prefixesOf;
using pwr::test::TimerSyscalls;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
namespace site = pwr::site;
namespace codes = pwr::codes;

constexpr char kGame[] = "com.example.game/.Main";
constexpr char kApp[] = "com.example.notes/.Edit";
constexpr char kVideo[] = "com.example.video/.Player";

enum class Config { Gpu, NoGpu, Deep };

class EventDispatch : public pwr::test::FeatureTest {
  protected:
    void SetUp() override {
        fakeperf::setAppType("com.example.game", codes::kAppTypeGame);
        fakeperf::setAppType("com.example.browser", codes::kAppTypeBrowser);
        fakeperf::setAppType("com.example.video", codes::kAppTypeVideo);
        tree.mkdirs(pwr::test::kStoreDirectory);
    }

    void build(Config config, const char* psmState, const std::string& gameTimerMs = "1000") {
        feature = createFeature(config == Config::Gpu
                                        ? pwr::test::gpuMonitorConfig(psmState, gameTimerMs)
                                : config == Config::Deep ? pwr::test::deepModeConfig(psmState)
                                                         : pwr::test::minimalConfig(psmState));
        peer = std::make_unique<PSMPowerOptFeatureTestPeer>(*feature);
        ASSERT_TRUE(peer->ready());
        log.clear();
    }
    // Takes a profile lock, as the GPU monitor or a light-mode hint would have.
    void holdProfile() {
        Profile profile{{0x42804000, 0x2}};
        feature->applyProfileLock(profile);
        ASSERT_GE(peer->profileLock().held(), 1);
    }
    itimerspec schedule(const Timer_s* timer) {
        itimerspec spec{};
        EXPECT_EQ(timer_gettime(timer->timerId, &spec), 0);
        return spec;
    }

    std::unique_ptr<PSMPowerOptFeature> feature;
    std::unique_ptr<PSMPowerOptFeatureTestPeer> peer;
};

// One event in one mode and gaming state, with a profile lock held, and what it leaves.
struct DispatchCase {
    const char* name;
    Config config;
    const char* psmState;
    std::vector<AsyncTriggerPayload> before;  // events that make the state the case starts in
    AsyncTriggerPayload event;
    int gameState;  // after the event
    bool lockHeld;  // the held lock is still held
    bool gameTimerArmed;
    bool batteryTimerArmed;
    std::vector<std::string> sites;  // where the event logs, in order
    friend void PrintTo(const DispatchCase& row, std::ostream* os) { *os << row.name; }
};

DispatchCase row(const char* name, Config config, const char* psmState,
                 std::vector<AsyncTriggerPayload> before, AsyncTriggerPayload event, int gameState,
                 bool lockHeld, bool gameTimerArmed, bool batteryTimerArmed,
                 std::vector<std::string> sites) {
    return {name,      config,   psmState,       std::move(before), std::move(event),
            gameState, lockHeld, gameTimerArmed, batteryTimerArmed, std::move(sites)};
}

class Dispatch : public EventDispatch, public ::testing::WithParamInterface<DispatchCase> {};

TEST_P(Dispatch, LeavesTheExpectedState) {
    const DispatchCase& c = GetParam();
    build(c.config, c.psmState);
    for (const AsyncTriggerPayload& payload : c.before) feature->sendEvents(payload);
    holdProfile();
    const int handle = peer->profileLock().held();
    log.clear();
    feature->sendEvents(c.event);
    EXPECT_EQ(peer->gameState(), c.gameState);
    EXPECT_EQ(peer->profileLock().held() == handle, c.lockHeld);
    EXPECT_EQ(fakeperf::heldLocks().count(handle), c.lockHeld ? 1u : 0u);
    const PSMFeatureSnapshot s = peer->snapshot();
    EXPECT_EQ(s.gameTimerArmed, c.gameTimerArmed ? 1 : 0);
    EXPECT_EQ(s.batteryTimerArmed, c.batteryTimerArmed ? 1 : 0);
    EXPECT_EQ(loggedSites(), c.sites) << ::testing::PrintToString(log.messages());
    EXPECT_EQ(s.psmMode, std::stoi(c.psmState)) << "only hints change the mode";
}

const AsyncTriggerPayload kGameStart = event(codes::kAppStart, kGame);
const AsyncTriggerPayload kAppStart = event(codes::kAppStart, kApp);
const auto kStopSites = prefixesOf({&site::kStopHint, &site::kReleasingProfile});
const auto kOffSites = prefixesOf({&site::kGamingOffNonGame, &site::kReleasingProfile});
const auto kRelease = prefixesOf({&site::kReleasingProfile});

const DispatchCase kDispatchCases[] = {
        // Gaming mode: a game turns gaming on (once), anything else turns it off (once).
        row("GameStartFromNone", Config::Gpu, "2", {}, kGameStart, 1, true, true, false,
            prefixesOf({&site::kGamingOn})),
        row("AltGameStartFromOff", Config::Gpu, "2", {kAppStart}, event(codes::kAppStartAlt, kGame),
            1, true, true, false, prefixesOf({&site::kGamingOn})),
        row("GameStartWhenOn", Config::Gpu, "2", {kGameStart}, kGameStart, 1, true, true, false,
            {}),
        row("OtherStartWhenOn", Config::Gpu, "2", {kGameStart}, kAppStart, 2, false, false, false,
            kOffSites),
        row("OtherStartFromNone", Config::Gpu, "2", {}, kAppStart, 2, false, false, false,
            kOffSites),
        row("OtherStartWhenOff", Config::Gpu, "2", {kAppStart}, kAppStart, 2, true, false, false,
            {}),
        row("StopWhenOn", Config::Gpu, "2", {kGameStart}, event(codes::kAppStop, kGame), 2, false,
            false, false, kStopSites),
        row("AltStopWhenOn", Config::Gpu, "2", {kGameStart}, event(codes::kAppStopAlt, kApp), 2,
            false, false, false, kStopSites),
        row("OtherStopWhenOn", Config::Gpu, "2", {kGameStart}, event(codes::kAppStopOther, kApp), 2,
            false, false, false, kStopSites),
        row("StopWhenOff", Config::Gpu, "2", {kAppStart}, event(codes::kAppStop, kGame), 2, true,
            false, false, {}),
        row("GameOffWhenOn", Config::Gpu, "2", {kGameStart}, event(codes::kGameOff, kGame), 2,
            false, false, false, kRelease),
        row("GameOffWhenOff", Config::Gpu, "2", {kAppStart}, event(codes::kGameOff, kGame), 2, true,
            false, false, {}),
        row("UnknownCodeWhenOn", Config::Gpu, "2", {kGameStart}, event(0x1005, kApp, 0x81), 1, true,
            true, false, {}),
        // Gaming mode without the GPU monitor: starts do nothing, stops act from none.
        row("NoGpuGameStart", Config::NoGpu, "2", {}, kGameStart, 0, true, false, false, {}),
        row("NoGpuStopFromNone", Config::NoGpu, "2", {}, event(codes::kAppStop, kGame), 2, false,
            false, false, kStopSites),
        row("NoGpuGameOffFromNone", Config::NoGpu, "2", {}, event(codes::kGameOff, kGame), 2, false,
            false, false, kRelease),
        // Modes 0 and 1: no start, stop or game-off does anything.
        row("Mode0GameStart", Config::Gpu, "0", {}, kGameStart, 0, true, false, false, {}),
        row("Mode1Stop", Config::Gpu, "1", {}, event(codes::kAppStop, kGame), 0, true, false, false,
            {}),
        row("Mode1GameOff", Config::Gpu, "1", {}, event(codes::kGameOff, kGame), 0, true, false,
            false, {}),
        // Battery watch: an eligible app arms the battery timer, anything else disarms it;
        // the stop of an eligible app disarms it, another's keeps it.
        row("EligibleStart", Config::Deep, "3", {}, kGameStart, 0, true, false, true, {}),
        row("IneligibleStartWhenArmed", Config::Deep, "3", {event(codes::kAppStart, kVideo)},
            kAppStart, 0, true, false, false, {}),
        row("EligibleStopWhenArmed", Config::Deep, "3", {event(codes::kAppStart, kVideo)},
            event(codes::kAppStopOther, kVideo), 0, true, false, false, {}),
        row("OtherStopWhenArmed", Config::Deep, "3", {event(codes::kAppStart, kVideo)},
            event(codes::kAppStop, kApp), 0, true, false, true, {}),
        row("GameOffWhenArmed", Config::Deep, "3", {event(codes::kAppStart, kVideo)},
            event(codes::kGameOff, kVideo), 0, true, false, true, {}),
};

INSTANTIATE_TEST_SUITE_P(ModeEventGameState, Dispatch, ::testing::ValuesIn(kDispatchCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(EventDispatch, AppKey_IsTheNameUpToTheFirstSlash) {
    build(Config::Gpu, "2");
    for (const char* app : {"com.example.notes/.a/b", "com.example.plain", "", "/leading"}) {
        feature->sendEvents(event(codes::kAppStart, app));
    }
    std::vector<std::string> asked;
    for (const fakeperf::Call& call : callsOf(CallKind::GetFeedback)) asked.push_back(call.app);
    EXPECT_THAT(asked, ElementsAre("com.example.notes", "com.example.plain", "", ""));
}

TEST_F(EventDispatch, GamingMode_GameTimerRunsAtItsPeriodAndStopsWithTheGame) {
    build(Config::Gpu, "2", "2250");
    feature->sendEvents(kGameStart);
    const itimerspec armed = schedule(peer->gpu().timer());
    EXPECT_EQ(armed.it_interval.tv_sec, 2);
    EXPECT_EQ(armed.it_interval.tv_nsec, 250000000);
    feature->sendEvents(event(codes::kAppStop, kGame));
    EXPECT_EQ(log.count(line(site::kStopHint, std::string("Stop hint 4098 for: ") + kGame)), 1)
            << "the whole name is printed, not the key";
    const itimerspec stopped = schedule(peer->gpu().timer());
    EXPECT_EQ(stopped.it_value.tv_sec + stopped.it_value.tv_nsec, 0);
}

TEST_F(EventDispatch, GamingMode_ATimerThatCannotStartIsLoggedAndNotRetried) {
    build(Config::Gpu, "2", "-5");  // a negative period cannot be armed
    feature->sendEvents(kGameStart);
    feature->sendEvents(kGameStart);
    EXPECT_THAT(log.messages(),
                ElementsAre(line(site::kGamingOn, "Triggering Gaming Usable Mode."),
                            line(site::kGameTimerNotStarted, "Timer couldn't be started\n")));
    EXPECT_EQ(peer->gameState(), 1);
}

TEST_F(EventDispatch, BatteryWatch_EachStartDisarmsThenArmsOnceASecond) {
    build(Config::Deep, "3");
    TimerSyscalls::reset();
    feature->sendEvents(kGameStart);
    feature->sendEvents(event(codes::kAppStartAlt, "com.example.browser"));
    const auto settimes = TimerSyscalls::settimesOf(peer->battery().timer()->timerId);
    ASSERT_EQ(settimes.size(), 3u) << "arm; disarm, arm (a disarmed timer is not disarmed again)";
    for (size_t i : {0u, 2u}) {
        EXPECT_EQ(settimes[i].spec.it_value.tv_sec, 1);
        EXPECT_EQ(settimes[i].spec.it_value.tv_nsec, 0);
        EXPECT_EQ(settimes[i].spec.it_interval.tv_sec, 1);
        EXPECT_EQ(settimes[i].flags, 0);
    }
    EXPECT_EQ(settimes[1].spec.it_value.tv_sec + settimes[1].spec.it_interval.tv_sec, 0);
    EXPECT_EQ(peer->psmAppType(), codes::kAppTypeBrowser);
    feature->sendEvents(kAppStart);
    EXPECT_EQ(peer->psmAppType(), codes::kAppTypeBrowser) << "kept from the last eligible app";
}

TEST_F(EventDispatch, BatteryWatch_WithoutTheBatteryTimerAnEligibleStartLogs) {
    build(Config::NoGpu, "3");
    feature->sendEvents(kAppStart);
    feature->sendEvents(kGameStart);
    EXPECT_THAT(log.messages(), ElementsAre(line(site::kBatteryTimerNotStarted,
                                                 "Battery Timer couldn't be started\n")));
}

// --- Usable power mode hints: the word's type (bits 0-6) and action (bits 7-14).

TEST_F(EventDispatch, Hint_AConfiguredPsmStateOwnsTheMode) {
    for (const char* psmState : {"1", "2", "3", "-1"}) {
        build(Config::NoGpu, psmState);
        for (uint32_t type : {0x80u, 0x81u, 0x82u, 0x83u, 0x01u}) {
            feature->sendEvents(event(codes::kUsablePowerModeHint, kGame, type));
        }
        EXPECT_EQ(log.messages(),
                  std::vector<std::string>(
                          5, line(site::kXmlOwnsMode, "Control PSM mode swiching by XML.")))
                << psmState;
        EXPECT_EQ(peer->psmMode(), std::stoi(psmState));
        EXPECT_THAT(fakeperf::calls(), IsEmpty());
    }
}

TEST_F(EventDispatch, Hint_TypesSwitchModeAndOnlyLightModeHoldsALock) {
    build(Config::NoGpu, "0");
    const struct {
        uint32_t hintWord;
        int mode;
        bool lockHeld;
    } cases[] = {
            {0x82, 2, false},
            {0x80, 0, false},
            {0x81, 1, true},
            {0x83, 1, false},                            // low-power entry keeps the mode
            {(1u << 15) | (0xFFu << 7) | 2u, 2, false},  // action 0xFF; bit 15 is not part of it
            {(1u << 14) | 1u, 1, true},                  // only bit 14 of the action
    };
    for (const auto& c : cases) {
        holdProfile();
        const int before = peer->profileLock().held();
        feature->sendEvents(event(codes::kUsablePowerModeHint, kGame, c.hintWord));
        EXPECT_EQ(peer->psmMode(), c.mode) << std::hex << c.hintWord;
        EXPECT_EQ(fakeperf::heldLocks().count(before), 0u) << std::hex << c.hintWord;
        EXPECT_EQ(peer->profileLock().held() >= 1, c.lockHeld) << std::hex << c.hintWord;
        if (c.lockHeld) {
            const fakeperf::Call taken = callsOf(CallKind::LockAcquire).back();
            EXPECT_EQ(taken.list, peer->settings().mLightModeProfile[0]);
            EXPECT_EQ(taken.duration, INT_MAX);
            EXPECT_EQ(taken.result, peer->profileLock().held());
        }
    }
}

TEST_F(EventDispatch, Hint_NoActionIsSilentAndAnUnknownTypeOnlyLogs) {
    build(Config::NoGpu, "0");
    holdProfile();
    const int handle = peer->profileLock().held();
    const size_t callsBefore = fakeperf::calls().size();
    log.clear();
    peer->setDebugEnabled(true);
    feature->sendEvents(event(codes::kUsablePowerModeHint, kGame, 0x01));
    feature->sendEvents(event(codes::kUsablePowerModeHint, kGame, 0x18001));
    EXPECT_THAT(log.messages(), IsEmpty());
    feature->sendEvents(event(codes::kUsablePowerModeHint, kGame, 0x84));
    EXPECT_THAT(log.messages(), ElementsAre(line(site::kPowerModeHint,
                                                 "Usable power mode hint for app "
                                                 "com.example.game/.Main, hintID : 5600, hintType "
                                                 "hex : 84, psmAction: 1, psmType: 4")));
    peer->setDebugEnabled(false);
    feature->sendEvents(event(codes::kUsablePowerModeHint, kGame, 0xFF));
    EXPECT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(fakeperf::calls().size(), callsBefore);
    EXPECT_EQ(peer->profileLock().held(), handle);
    EXPECT_EQ(peer->psmMode(), 0);
}

}  // namespace
