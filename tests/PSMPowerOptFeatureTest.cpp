// Construction, configuration and destruction of the feature, and what it inherits from the
// host's base class.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <stdexcept>

#include "host/PluginHost.h"
#include "platform/Properties.h"
#include "tests/support/FeatureTest.h"
#include "tests/support/TimerSyscalls.h"

namespace {

using pwr::test::createFeature;
using pwr::test::event;
using pwr::test::line;
using pwr::test::minimalConfig;
using pwr::test::TimerSyscalls;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
namespace site = pwr::site;

const std::string kMissingConfigs =
        line(site::kMissingConfigs, "Missing feature configs, return !!");

class PSMPowerOptFeatureTest : public pwr::test::FeatureTest {
  protected:
    void SetUp() override { tree.mkdirs(pwr::test::kStoreDirectory); }
};

// A change to the smallest configuration, whether the feature ends ready, and what it logs.
// Settings are read in order and the first one missing stops the reading.
TEST_F(PSMPowerOptFeatureTest, Configuration_ReadyOnlyWithEveryRequiredSetting) {
    using Edit = std::function<void(PowerOptFeatureInfo&)>;
    const struct {
        const char* name;
        Edit edit;
        bool ready;
        std::vector<std::string> lines;
    } cases[] = {
            {"Minimal",
             [](auto&) {},
             true,
             {line(site::kConstructor, "Constructor PSMPowerOptFeature")}},
            {"NoPsmState",
             [](auto& i) { i.configs.erase("PSM_STATE"); },
             false,
             {line(site::kMissPsmState, "miss PSM_STATE"), kMissingConfigs}},
            {"NoLightProfile",
             [](auto& i) { i.profiles.erase("PROFILE_LIGHT_MODE"); },
             false,
             {line(site::kNoLightProfile, "No  Default Profile specified\n"), kMissingConfigs}},
            {"EmptyLightProfile",
             [](auto& i) { i.profiles["PROFILE_LIGHT_MODE"] = {}; },
             false,
             {line(site::kNoLightProfile, "No  Default Profile specified\n"), kMissingConfigs}},
            {"NoDeepMode", [](auto& i) { i.configs.erase("DEEP_MODE"); }, false, {kMissingConfigs}},
            {"NoGpuMode",
             [](auto& i) { i.configs.erase("GPUMode"); },
             false,
             {line(site::kMissGpuMode, "miss GPUMode"), kMissingConfigs}},
            // GPUMode 0 reads none of the monitor's settings: unparsable ones would throw.
            {"GpuModeZeroSkipsTheMonitor",
             [](auto& i) {
                 for (const char* key : {"GAME_TIMER", "GPU_SAMPLE_COUNT", "STABILITY_SAMPLE_COUNT",
                                         "GPU_BUSY_STABILITY_THRESHOLD", "GPU_Freq_THRESHOLD_LOW",
                                         "GPU_Freq_THRESHOLD_HIGH"}) {
                     i.configs[key] = "not-a-number";
                 }
             },
             true,
             {line(site::kConstructor, "Constructor PSMPowerOptFeature")}},
    };
    fakeperf::setDefaultAppType(2);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        PowerOptFeatureInfo info = minimalConfig("2");
        c.edit(info);
        log.clear();
        auto feature = createFeature(info);
        PSMPowerOptFeatureTestPeer peer(*feature);
        EXPECT_EQ(peer.ready(), c.ready);
        EXPECT_EQ(log.messages(), c.lines);
        EXPECT_EQ(feature->name, "PSMPowerOptFeature");
        const PSMFeatureSnapshot s = peer.snapshot();
        EXPECT_EQ((std::vector<int>{s.gameState, s.heldProfileHandle, s.gameTimerExists,
                                    s.batteryTimerExists}),
                  (std::vector<int>{0, -1, 0, 0}));
        if (c.ready) continue;
        // A feature that is not ready ignores every event.
        log.clear();
        fakeperf::reset();
        for (int32_t code : {0x1001, 0x1003, 0x1002, 0x1004, 0x1093, 0x1040}) {
            feature->sendEvents(event(code, "com.example.game/.Main"));
        }
        feature->sendEvents(event(0x15E0, "com.example.game", 0x81));
        EXPECT_THAT(log.messages(), IsEmpty());
        EXPECT_THAT(fakeperf::calls(), IsEmpty());
    }
}

// PSM_STATE is read with std::stod and truncated toward zero; what no int holds, or no number
// is, throws out of the factory, as DEEP_MODE and GPUMode (read with std::stoi) do.
TEST_F(PSMPowerOptFeatureTest, Configuration_NumbersAreTruncatedOrThrow) {
    for (const auto& [text, mode] : {std::pair{"3.7", 3}, {"-0.5", 0}, {"2.9", 2}, {"1", 1}}) {
        auto feature = createFeature(minimalConfig(text));
        const PSMFeatureSnapshot s = PSMPowerOptFeatureTestPeer(*feature).snapshot();
        EXPECT_EQ(s.psmState, mode) << text;
        EXPECT_EQ(s.psmMode, mode) << text << ": the mode starts as configured";
    }
    for (const char* value : {"1e10", "-3e9", "nan", "inf"}) {
        EXPECT_THROW(createFeature(minimalConfig(value)), std::out_of_range) << value;
    }
    for (const auto& [key, value] :
         {std::pair{"PSM_STATE", "abc"}, {"DEEP_MODE", "x1"}, {"GPUMode", "on"}}) {
        PowerOptFeatureInfo info = minimalConfig();
        info.configs[key] = value;
        std::string error;
        EXPECT_THROW(pwr::host::PluginHost::create("PSMPowerOptFeature", info, &error),
                     std::invalid_argument)
                << key;
    }
}

TEST_F(PSMPowerOptFeatureTest, Configuration_DebugFlagIsCopiedFromTheTraceProperty) {
    pwr::test::setProperty("vendor.debug.trace.power", "true");
    auto traced = createFeature(minimalConfig());
    pwr::test::setProperty("vendor.debug.trace.power", "false");
    auto quiet = createFeature(minimalConfig());
    EXPECT_TRUE(PSMPowerOptFeatureTestPeer(*traced).debugEnabled());
    EXPECT_FALSE(PSMPowerOptFeatureTestPeer(*quiet).debugEnabled());
}

// The host's record is copied on the way in; the profile look-up enters an empty profile into
// the copy it reads.
TEST_F(PSMPowerOptFeatureTest, Configuration_TheLightProfileLookUpEntersAnEmptyProfile) {
    auto feature = createFeature(minimalConfig());
    PowerOptFeatureInfo copy = minimalConfig();
    copy.profiles.erase("PROFILE_LIGHT_MODE");
    EXPECT_FALSE(feature->initAnalyzeConfigs(copy));
    ASSERT_EQ(copy.profiles.count("PROFILE_LIGHT_MODE"), 1u);
    EXPECT_TRUE(copy.profiles["PROFILE_LIGHT_MODE"].empty());
}

// Timers created before configuration stops are kept until the feature goes (not ready) or
// deleted as the constructor throws.
TEST_F(PSMPowerOptFeatureTest, Configuration_TimersOfAFailedSetUpAreDeletedOnce) {
    PowerOptFeatureInfo info = pwr::test::deepModeConfig("3");
    info.configs.erase("GPUMode");
    TimerSyscalls::reset();
    auto feature = createFeature(info);
    ASSERT_FALSE(PSMPowerOptFeatureTestPeer(*feature).ready());
    EXPECT_EQ(TimerSyscalls::created().size(), 1u) << "the battery timer";
    EXPECT_THAT(TimerSyscalls::deleted(), IsEmpty());
    feature.reset();
    EXPECT_EQ(TimerSyscalls::deleted(), TimerSyscalls::created());

    info.configs["GPUMode"] = "on";  // read after deep mode has created the battery timer
    TimerSyscalls::reset();
    EXPECT_THROW(createFeature(info), std::invalid_argument);
    EXPECT_EQ(TimerSyscalls::created().size(), 1u);
    EXPECT_EQ(TimerSyscalls::deleted(), TimerSyscalls::created());
}

TEST_F(PSMPowerOptFeatureTest, GetData_IsTheBaseDefault) {
    std::unique_ptr<PowerOptFeature> feature = createFeature(minimalConfig());
    featureData out;
    out.status = 7;
    EXPECT_EQ(feature->getData("any key", out, 0), 0);
    EXPECT_EQ(out.status, -1);
}

void noop(void*) {}

TEST_F(PSMPowerOptFeatureTest, Destructor_DeletesTheDeepGameAndBatteryTimersAndKeepsTheLock) {
    PowerOptFeatureInfo info = pwr::test::deepModeConfig("2");
    pwr::test::addGpuMonitorSettings(info);
    auto feature = createFeature(info);
    PSMPowerOptFeatureTestPeer peer(*feature);
    ASSERT_TRUE(peer.ready());
    peer.deep().adoptTimer(pwr::TimerHandle(&noop, nullptr));
    const timer_t deep = peer.deep().timers().first->timerId;
    const timer_t game = peer.gpu().timer()->timerId;
    const timer_t battery = peer.battery().timer()->timerId;
    fakeperf::setAppType("com.example.game", 2);
    feature->sendEvents(event(0x1001, "com.example.game/.Main"));  // the game timer runs
    Profile profile{{0x40800000, 0x5DC}};
    feature->applyProfileLock(profile);
    const int handle = peer.profileLock().held();
    ASSERT_GE(handle, 1);

    log.clear();
    TimerSyscalls::reset();
    const size_t callsBefore = fakeperf::calls().size();
    feature.reset();
    EXPECT_THAT(TimerSyscalls::deleted(), ElementsAre(deep, game, battery));
    EXPECT_TRUE(log.contains(line(site::kDestructor, "Destructor PSMPowerOptFeature")));
    EXPECT_EQ(fakeperf::calls().size(), callsBefore) << "no perf_lock_rel, no other call";
    EXPECT_EQ(fakeperf::heldLocks().count(handle), 1u);
}

}  // namespace
