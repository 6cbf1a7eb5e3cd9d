// pwr_psm_snapshot: the exported entry point tools read the feature's state through.

#include <dlfcn.h>

#include <gtest/gtest.h>

#include "feature/FeatureSnapshot.h"
#include "host/fakeperf/FakePerf.h"
#include "tests/support/DeepModeConfig.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/FeatureSetup.h"
#include "tests/support/LogCapture.h"

namespace {

using pwr::test::event;

PwrPsmSnapshotFn exported() {
    return reinterpret_cast<PwrPsmSnapshotFn>(dlsym(RTLD_DEFAULT, "pwr_psm_snapshot"));
}

TEST(FeatureSnapshot, RefusesWhatIsNotAFeatureOfThisPlugIn) {
    const PwrPsmSnapshotFn snapshot = exported();
    ASSERT_NE(snapshot, nullptr) << "not exported";
    PSMFeatureSnapshot out{};
    auto feature = pwr::test::createFeature(pwr::test::minimalConfig());
    EXPECT_EQ(snapshot(nullptr, &out), -1);
    EXPECT_EQ(snapshot(feature.get(), nullptr), -1);
    // The registration object is a PowerOptFeature of another class.
    EXPECT_EQ(snapshot(&PSMPowerOptFeature::featureInstance, &out), -1);
    EXPECT_EQ(out.version, 0u) << "nothing written on refusal";
}

TEST(FeatureSnapshot, FollowsEventsAndHoldsTheSettingsAsRead) {
    pwr::test::DeviceTree tree;
    pwr::test::LogCapture log;
    fakeperf::reset();
    fakeperf::setAppType("com.example.game", 2);
    PowerOptFeatureInfo info = pwr::test::gpuMonitorConfig("2", "1000.9");
    info.configs["GPU_Freq_THRESHOLD_HIGH"] = "-600.5";
    auto feature = pwr::test::createFeature(info);
    PSMFeatureSnapshot s{};
    ASSERT_EQ(exported()(feature.get(), &s), 0);
    EXPECT_EQ(s.version, static_cast<uint32_t>(PSM_FEATURE_SNAPSHOT_VERSION));
    EXPECT_EQ(s.size, sizeof(PSMFeatureSnapshot));
    EXPECT_EQ(s.ready, 1);
    EXPECT_EQ(s.psmState, 2);
    EXPECT_EQ(s.psmMode, 2);
    EXPECT_EQ(s.gameState, 0);
    EXPECT_EQ(s.heldProfileHandle, -1);
    EXPECT_EQ(s.gpuPhase, PSM_GPU_PHASE_IDLE);
    EXPECT_EQ(s.lastDecision, -1);
    EXPECT_EQ(s.gameTimerExists, 1);
    EXPECT_EQ(s.gameTimerArmed, 0);
    EXPECT_EQ(s.batteryTimerExists, 0) << "deep mode is off";
    EXPECT_EQ(s.deepTimerExists, 0);
    EXPECT_EQ(s.gameTimerMs, 1000) << "truncated toward zero";
    EXPECT_EQ(s.gpuFreqThresholdHigh, -600);
    EXPECT_EQ(s.gpuSampleCount, 5);

    feature->sendEvents(event(0x1001, "com.example.game/.Main"));
    ASSERT_EQ(exported()(feature.get(), &s), 0);
    EXPECT_EQ(s.gameState, 1);
    EXPECT_EQ(s.gpuPhase, PSM_GPU_PHASE_CHECKING);
    EXPECT_EQ(s.gameTimerArmed, 1);

    feature->sendEvents(event(0x1002, "com.example.game/.Main"));
    ASSERT_EQ(exported()(feature.get(), &s), 0);
    EXPECT_EQ(s.gameState, 2);
    EXPECT_EQ(s.gameTimerArmed, 0);
}

TEST(FeatureSnapshot, NotReadyFeature) {
    pwr::test::LogCapture log;
    PowerOptFeatureInfo info = pwr::test::minimalConfig();
    info.configs.erase("GPUMode");
    auto feature = pwr::test::createFeature(info);
    PSMFeatureSnapshot s{};
    ASSERT_EQ(exported()(feature.get(), &s), 0);
    EXPECT_EQ(s.ready, 0);
}

}  // namespace
