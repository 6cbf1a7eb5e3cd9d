// pwr_psm_snapshot: the exported entry point tools read the feature's state through.

#include <dlfcn.h>

#include <gtest/gtest.h>

#include "tests/support/FeatureTest.h"

namespace {

using pwr::test::event;

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
