// Construction, configuration and destruction of the feature, and what it inherits from the
// host's base class.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <stdexcept>

#include "feature/LogSites.h"
#include "feature/PSMPowerOptFeature.h"
#include "host/PluginHost.h"
#include "host/fakeperf/FakePerf.h"
#include "platform/Properties.h"
#include "tests/support/DeepModeConfig.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/FeatureSetup.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestConfig.h"
#include "tests/support/TimerSyscalls.h"

namespace {

using pwr::test::createFeature;
using pwr::test::event;
using pwr::test::LogCapture;
using pwr::test::minimalConfig;
using pwr::test::TimerSyscalls;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kConstructed =
        pwr::linePrefix(pwr::site::kConstructor) + "Constructor PSMPowerOptFeature";
const std::string kMissingConfigs =
        pwr::linePrefix(pwr::site::kMissingConfigs) + "Missing feature configs, return !!";

class PSMPowerOptFeatureTest : public ::testing::Test {
  protected:
    void SetUp() override { fakeperf::reset(); }
};

// Events of every kind, for checking that a not-ready feature ignores them all.
void sendEveryKindOfEvent(PSMPowerOptFeature& feature) {
    for (int32_t code : {0x1001, 0x1003, 0x1002, 0x1004, 0x1093, 0x1040}) {
        feature.sendEvents(event(code, "com.example.game/.Main"));
    }
    feature.sendEvents(event(0x15E0, "com.example.game", 0x81));
}

TEST_F(PSMPowerOptFeatureTest, MinimalConfig_ReadyInConfiguredMode) {
    LogCapture log;
    auto feature = createFeature(minimalConfig("2"));
    PSMPowerOptFeatureTestPeer peer(*feature);
    EXPECT_TRUE(peer.ready());
    EXPECT_EQ(peer.settings().mPsmState, 2);
    EXPECT_EQ(peer.psmMode(), 2);
    EXPECT_EQ(peer.gameState(), 0);
    EXPECT_EQ(peer.profileLock().held(), -1);
    EXPECT_EQ(peer.settings().mLightModeProfile, (Profile{{0x40C00000, 0x1, 0x40804000, 0x5DC}}));
    EXPECT_EQ(feature->name, "PSMPowerOptFeature");
    // Neither optional part is set up: no timers.
    EXPECT_EQ(peer.gpu().timer(), nullptr);
    EXPECT_EQ(peer.battery().timer(), nullptr);
    EXPECT_THAT(log.messages(), ElementsAre(kConstructed));
}

TEST_F(PSMPowerOptFeatureTest, PsmState_TruncatedTowardZero) {
    const std::pair<const char*, int> cases[] = {{"3.7", 3}, {"-0.5", 0}, {"2.9", 2}, {"1", 1}};
    for (const auto& [text, expected] : cases) {
        auto feature = createFeature(minimalConfig(text));
        PSMPowerOptFeatureTestPeer peer(*feature);
        EXPECT_EQ(peer.settings().mPsmState, expected) << text;
        EXPECT_EQ(peer.psmMode(), expected) << text;
        EXPECT_TRUE(peer.ready()) << text;
    }
}

TEST_F(PSMPowerOptFeatureTest, DebugFlag_CopiedFromTraceProperty) {
    ASSERT_EQ(property_set("vendor.debug.trace.power", "true"), 0);
    auto traced = createFeature(minimalConfig());
    ASSERT_EQ(property_set("vendor.debug.trace.power", "false"), 0);
    auto quiet = createFeature(minimalConfig());
    EXPECT_TRUE(PSMPowerOptFeatureTestPeer(*traced).debugEnabled());
    EXPECT_FALSE(PSMPowerOptFeatureTestPeer(*quiet).debugEnabled());
}

TEST_F(PSMPowerOptFeatureTest, MissingPsmState_NotReadyAndIgnoresEvents) {
    PowerOptFeatureInfo info = minimalConfig();
    info.configs.erase("PSM_STATE");
    LogCapture log;
    auto feature = createFeature(info);
    ASSERT_NE(feature, nullptr);
    EXPECT_FALSE(PSMPowerOptFeatureTestPeer(*feature).ready());
    EXPECT_THAT(log.messages(),
                ElementsAre(pwr::linePrefix(pwr::site::kMissPsmState) + "miss PSM_STATE",
                            kMissingConfigs));

    log.clear();
    fakeperf::setDefaultAppType(2);
    sendEveryKindOfEvent(*feature);
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_THAT(fakeperf::calls(), IsEmpty());
}

TEST_F(PSMPowerOptFeatureTest, MissingOrEmptyLightProfile_NotReady) {
    PowerOptFeatureInfo missing = minimalConfig();
    missing.profiles.erase("PROFILE_LIGHT_MODE");
    PowerOptFeatureInfo empty = minimalConfig();
    empty.profiles["PROFILE_LIGHT_MODE"] = {};
    for (const PowerOptFeatureInfo& info : {missing, empty}) {
        LogCapture log;
        auto feature = createFeature(info);
        EXPECT_FALSE(PSMPowerOptFeatureTestPeer(*feature).ready());
        EXPECT_THAT(log.messages(),
                    ElementsAre(pwr::linePrefix(pwr::site::kNoLightProfile) + "No  Default Profile "
                                                                              "specified\n",
                                kMissingConfigs));
    }
    // The host's record is copied on the way in and never changed.
    EXPECT_EQ(missing.profiles.count("PROFILE_LIGHT_MODE"), 0u);
}

TEST_F(PSMPowerOptFeatureTest, MissingLightProfile_LookupEntersEmptyProfileIntoCopy) {
    auto feature = createFeature(minimalConfig());
    PowerOptFeatureInfo copy = minimalConfig();
    copy.profiles.erase("PROFILE_LIGHT_MODE");
    EXPECT_FALSE(feature->initAnalyzeConfigs(copy));
    ASSERT_EQ(copy.profiles.count("PROFILE_LIGHT_MODE"), 1u);
    EXPECT_TRUE(copy.profiles["PROFILE_LIGHT_MODE"].empty());
}

TEST_F(PSMPowerOptFeatureTest, MissingDeepMode_NotReadyWithoutOwnMessage) {
    PowerOptFeatureInfo info = minimalConfig();
    info.configs.erase("DEEP_MODE");
    LogCapture log;
    auto feature = createFeature(info);
    EXPECT_FALSE(PSMPowerOptFeatureTestPeer(*feature).ready());
    EXPECT_THAT(log.messages(), ElementsAre(kMissingConfigs));
}

TEST_F(PSMPowerOptFeatureTest, MissingGpuMode_NotReady) {
    PowerOptFeatureInfo info = minimalConfig();
    info.configs.erase("GPUMode");
    LogCapture log;
    auto feature = createFeature(info);
    EXPECT_FALSE(PSMPowerOptFeatureTestPeer(*feature).ready());
    EXPECT_THAT(log.messages(),
                ElementsAre(pwr::linePrefix(pwr::site::kMissGpuMode) + "miss GPUMode",
                            kMissingConfigs));
}

TEST_F(PSMPowerOptFeatureTest, NotReady_KeepsWhatWasCreatedUntilDestroyed) {
    pwr::test::DeviceTree tree;
    tree.mkdirs(pwr::test::kStoreDirectory);
    PowerOptFeatureInfo info = pwr::test::deepModeConfig("3");
    info.configs.erase("GPUMode");
    TimerSyscalls::reset();
    auto feature = createFeature(info);
    PSMPowerOptFeatureTestPeer peer(*feature);
    EXPECT_FALSE(peer.ready());
    ASSERT_NE(peer.battery().timer(), nullptr);
    const timer_t battery = peer.battery().timer()->timerId;
    EXPECT_THAT(TimerSyscalls::deleted(), IsEmpty());
    feature.reset();
    EXPECT_THAT(TimerSyscalls::deleted(), ElementsAre(battery));
}

TEST_F(PSMPowerOptFeatureTest, GpuModeZero_ReadsNoGpuSetting) {
    PowerOptFeatureInfo info = minimalConfig();
    // Unparsable on purpose: reading any of them would throw.
    for (const char* key :
         {"GAME_TIMER", "GPU_SAMPLE_COUNT", "STABILITY_SAMPLE_COUNT",
          "GPU_BUSY_STABILITY_THRESHOLD", "GPU_Freq_THRESHOLD_LOW", "GPU_Freq_THRESHOLD_HIGH"}) {
        info.configs[key] = "not-a-number";
    }
    std::unique_ptr<PSMPowerOptFeature> feature;
    ASSERT_NO_THROW(feature = createFeature(info));
    PSMPowerOptFeatureTestPeer peer(*feature);
    EXPECT_TRUE(peer.ready());
    EXPECT_EQ(peer.gpu().timer(), nullptr);
    EXPECT_EQ(peer.settings().mGameTimerMs, 0);
}

TEST_F(PSMPowerOptFeatureTest, UnparsableNumber_ThrowsOutOfFactory) {
    const std::pair<const char*, const char*> cases[] = {
            {"PSM_STATE", "abc"}, {"DEEP_MODE", "x1"}, {"GPUMode", "on"}};
    for (const auto& [key, value] : cases) {
        PowerOptFeatureInfo info = minimalConfig();
        info.configs[key] = value;
        std::string error;
        EXPECT_THROW(pwr::host::PluginHost::create("PSMPowerOptFeature", info, &error),
                     std::invalid_argument)
                << key;
    }
}

TEST_F(PSMPowerOptFeatureTest, UnparsableNumber_TimersCreatedBeforeAreDeleted) {
    pwr::test::DeviceTree tree;
    tree.mkdirs(pwr::test::kStoreDirectory);
    PowerOptFeatureInfo info = pwr::test::deepModeConfig("3");
    info.configs["GPUMode"] = "on";  // read after deep mode has created the battery timer
    TimerSyscalls::reset();
    EXPECT_THROW(createFeature(info), std::invalid_argument);
    const std::vector<timer_t> created = TimerSyscalls::created();
    ASSERT_FALSE(created.empty());
    EXPECT_EQ(TimerSyscalls::deleted(), created);
}

TEST_F(PSMPowerOptFeatureTest, OutOfRangeNumber_ThrowsInsteadOfTruncating) {
    for (const char* value : {"1e10", "-3e9", "nan", "inf"}) {
        EXPECT_THROW(createFeature(minimalConfig(value)), std::out_of_range) << value;
    }
}

TEST_F(PSMPowerOptFeatureTest, GetData_BaseDefaultAnswers) {
    std::unique_ptr<PowerOptFeature> feature = createFeature(minimalConfig());
    featureData out;
    out.status = 7;
    EXPECT_EQ(feature->getData("any key", out, 0), 0);
    EXPECT_EQ(out.status, -1);
}

void noop(void*) {}

TEST_F(PSMPowerOptFeatureTest, Destructor_DeletesTimersInOrderAndKeepsProfileLock) {
    pwr::test::DeviceTree tree;
    tree.mkdirs(pwr::test::kStoreDirectory);
    PowerOptFeatureInfo info = pwr::test::deepModeConfig("2");
    pwr::test::addGpuMonitorSettings(info);
    auto feature = createFeature(info);
    PSMPowerOptFeatureTestPeer peer(*feature);
    ASSERT_TRUE(peer.ready());
    peer.deep().adoptTimer(pwr::TimerHandle(&noop, nullptr));
    ASSERT_NE(peer.deep().timers().first, nullptr);
    ASSERT_NE(peer.gpu().timer(), nullptr);
    ASSERT_NE(peer.battery().timer(), nullptr);
    const timer_t deep = peer.deep().timers().first->timerId;
    const timer_t game = peer.gpu().timer()->timerId;
    const timer_t battery = peer.battery().timer()->timerId;

    // A running game timer and a held profile at the time of deletion.
    fakeperf::setAppType("com.example.game", 2);
    feature->sendEvents(event(0x1001, "com.example.game/.Main"));
    ASSERT_TRUE(Timer().Timer_isActive(peer.gpu().timer()));
    Profile profile{{0x40800000, 0x5DC}};
    feature->applyProfileLock(profile);
    const int handle = peer.profileLock().held();
    ASSERT_GE(handle, 1);

    LogCapture log;
    TimerSyscalls::reset();
    const size_t callsBefore = fakeperf::calls().size();
    feature.reset();
    EXPECT_THAT(TimerSyscalls::deleted(), ElementsAre(deep, game, battery));
    EXPECT_TRUE(log.contains(pwr::linePrefix(pwr::site::kDestructor) +
                             "Destructor PSMPowerOptFeature"));
    // The lock stays with the library: no perf_lock_rel, no other call.
    EXPECT_EQ(fakeperf::calls().size(), callsBefore);
    EXPECT_EQ(fakeperf::heldLocks().count(handle), 1u);
}

}  // namespace
