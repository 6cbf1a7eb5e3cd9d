// Construction, configuration and destruction of the feature, and pwr_psm_snapshot, the exported
// entry point tools read the feature's state through.

#include <dlfcn.h>

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

// One setting taken out of a configuration with deep mode and the GPU monitor on (or an edit), and
// what the feature logs (its deep-mode list lines aside): settings are read in order, the first one
// missing stops the reading and leaves the feature not ready.
struct ConfigCase {
    const char* name;
    std::function<void(PowerOptFeatureInfo&)> edit;
    std::vector<std::string> lines;  // empty: ready
    friend void PrintTo(const ConfigCase& row, std::ostream* os) { *os << row.name; }
};

ConfigCase without(const char* key, std::vector<std::string> lines) {
    return {key,
            [key](PowerOptFeatureInfo& i) {
                i.configs.erase(key);
                i.profiles.erase(key);
            },
            std::move(lines)};
}
ConfigCase missing(const char* key, const pwr::LogSite& at, const std::string& message) {
    return without(key, {line(at, message), kMissingConfigs});
}

class Configuration : public PSMPowerOptFeatureTest,
                      public ::testing::WithParamInterface<ConfigCase> {};

TEST_P(Configuration, ReadyOnlyWithEveryRequiredSetting) {
    PowerOptFeatureInfo info = pwr::test::deepModeConfig("2");
    pwr::test::addGpuMonitorSettings(info);
    info.configs["GPUMode"] = "1";
    GetParam().edit(info);
    fakeperf::setDefaultAppType(2);
    auto feature = createFeature(info);
    PSMPowerOptFeatureTestPeer peer(*feature);
    std::vector<std::string> lines;
    for (const std::string& m : log.messages()) {
        if (m.find("List ") == std::string::npos) lines.push_back(m);
    }
    const bool ready = GetParam().lines.empty();
    EXPECT_EQ(lines,
              ready ? pwr::test::lines(line(site::kConstructor, "Constructor PSMPowerOptFeature"))
                    : GetParam().lines);
    ASSERT_EQ(peer.ready(), ready);
    EXPECT_EQ(feature->name, "PSMPowerOptFeature");
    if (ready) return;
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

const ConfigCase kConfigCases[] = {
        {"Complete", [](auto&) {}, {}},
        // The GPU monitor's settings are not read with GPUMode 0: unparsable ones would throw.
        {"GpuModeZero",
         [](auto& i) {
             i.configs["GPUMode"] = "0";
             i.configs["GAME_TIMER"] = "not-a-number";
         },
         {}},
        // An empty first list of the boost resource is accepted: the boost acquires nothing.
        {"EmptyBoostList", [](auto& i) { i.profiles["PSM_OPT_RESOURCE"] = {{}}; }, {}},
        missing("PSM_STATE", site::kMissPsmState, "miss PSM_STATE"),
        missing("PROFILE_LIGHT_MODE", site::kNoLightProfile, "No  Default Profile specified\n"),
        {"EmptyLightProfile",
         [](auto& i) { i.profiles["PROFILE_LIGHT_MODE"] = {}; },
         {line(site::kNoLightProfile, "No  Default Profile specified\n"), kMissingConfigs}},
        without("DEEP_MODE", {kMissingConfigs}),
        without("VIDEO_SCALING_UP", {kMissingConfigs}),
        without("SCALING_DOWN_TASK_LOAD_BOOST", {kMissingConfigs}),
        without("CPUPOLICY", {kMissingConfigs}),
        missing("DEFAULT", site::kNoDeepProfile, "No Deep Profile specified\n"),
        missing("PSM_OPT_RESOURCE", site::kNoBoostOpcode, "No TASK_LOAD_BOOST opcode specified\n"),
        missing("GPUMode", site::kMissGpuMode, "miss GPUMode"),
        missing("GAME_TIMER", site::kMissGameTimer, "miss GAME_TIMER"),
        missing("GPU_SAMPLE_COUNT", site::kMissGpuSampleCount, "miss GPU_SAMPLE_COUNT"),
        missing("STABILITY_SAMPLE_COUNT", site::kMissStabilitySampleCount,
                "miss STABILITY_SAMPLE_COUNT"),
        missing("GPU_BUSY_STABILITY_THRESHOLD", site::kMissBusyThreshold,
                "miss GPU_BUSY_STABILITY_THRESHOLD"),
        missing("GPU_Freq_THRESHOLD_LOW", site::kMissFreqThresholdLow,
                "miss GPU_Freq_THRESHOLD_LOW"),
        missing("GPU_Freq_THRESHOLD_HIGH", site::kMissFreqThresholdHigh,
                "miss GPU_Freq_THRESHOLD_HIGH"),
        {"NoDynamicProfile",
         [](auto& i) {
             for (const char* name : {"DYN_GPU_0_HIGH", "DYN_GPU_1_MID", "DYN_GPU_2_LOW"}) {
                 i.profiles.erase(name);
             }
         },
         {line(site::kMissDynamicProfile, "miss Dynamic GPU profile"), kMissingConfigs}},
};

INSTANTIATE_TEST_SUITE_P(Settings, Configuration, ::testing::ValuesIn(kConfigCases),
                         [](const auto& info) { return std::string(info.param.name); });

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

class FeatureSnapshot : public pwr::test::FeatureTest {
  protected:
    PSMFeatureSnapshot take(const PowerOptFeature* feature, int expected = 0) {
        const auto snapshot =
                reinterpret_cast<PwrPsmSnapshotFn>(dlsym(RTLD_DEFAULT, "pwr_psm_snapshot"));
        PSMFeatureSnapshot out{};
        EXPECT_NE(snapshot, nullptr) << "not exported";
        const int result = snapshot != nullptr ? snapshot(feature, &out) : -2;
        EXPECT_EQ(result, expected);
        return out;
    }
};

TEST_F(FeatureSnapshot, RefusesWhatIsNotAFeatureOfThisPlugIn) {
    EXPECT_EQ(take(nullptr, -1).version, 0u) << "nothing written on refusal";
    // The registration object is a PowerOptFeature of another class.
    EXPECT_EQ(take(&PSMPowerOptFeature::featureInstance, -1).version, 0u);
    const auto snapshot =
            reinterpret_cast<PwrPsmSnapshotFn>(dlsym(RTLD_DEFAULT, "pwr_psm_snapshot"));
    auto feature = pwr::test::createFeature(pwr::test::minimalConfig());
    EXPECT_EQ(snapshot(feature.get(), nullptr), -1);
}

TEST_F(FeatureSnapshot, FollowsEventsAndHoldsTheSettingsAsRead) {
    fakeperf::setAppType("com.example.game", 2);
    PowerOptFeatureInfo info = pwr::test::gpuMonitorConfig("2", "1000.9");
    info.configs["GPU_Freq_THRESHOLD_HIGH"] = "-600.5";
    auto feature = pwr::test::createFeature(info);
    PSMFeatureSnapshot s = take(feature.get());
    EXPECT_EQ(s.version, static_cast<uint32_t>(PSM_FEATURE_SNAPSHOT_VERSION));
    EXPECT_EQ(s.size, sizeof(PSMFeatureSnapshot));
    EXPECT_EQ(
            (std::vector<int>{s.ready, s.psmState, s.psmMode, s.gameState, s.heldProfileHandle,
                              s.gpuPhase, s.lastDecision, s.gameTimerExists, s.gameTimerArmed,
                              s.batteryTimerExists, s.deepTimerExists, s.gameTimerMs,
                              s.gpuFreqThresholdHigh, s.gpuSampleCount}),
            (std::vector<int>{1, 2, 2, 0, -1, PSM_GPU_PHASE_IDLE, -1, 1, 0, 0, 0, 1000, -600, 5}));
    feature->sendEvents(event(0x1001, "com.example.game/.Main"));
    s = take(feature.get());
    EXPECT_EQ((std::vector<int>{s.gameState, s.gpuPhase, s.gameTimerArmed}),
              (std::vector<int>{1, PSM_GPU_PHASE_CHECKING, 1}));
    feature->sendEvents(event(0x1002, "com.example.game/.Main"));
    s = take(feature.get());
    EXPECT_EQ((std::vector<int>{s.gameState, s.gameTimerArmed}), (std::vector<int>{2, 0}));
    info.configs.erase("GPUMode");
    EXPECT_EQ(take(pwr::test::createFeature(info).get()).ready, 0);
}

}  // namespace
