// The GPU stability monitor: its configuration, one tick of the game timer against fake GPU
// nodes, the profile decision and its three-in-a-row switch, real ticks of the game timer, and
// events racing with ticks.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "feature/FeatureCodes.h"
#include "feature/LogSites.h"
#include "feature/PSMPowerOptFeature.h"
#include "host/fakeperf/FakePerf.h"
#include "platform/GraxInfo.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestConfig.h"

#if defined(__SANITIZE_THREAD__)
#define PWR_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define PWR_UNDER_TSAN 1
#endif
#endif

namespace {

using namespace std::chrono_literals;
using fakeperf::CallKind;
using pwr::test::DeviceTree;
using pwr::test::LogCapture;

constexpr char kFreqs[] = "/sys/class/grax/grax-3d0/gpu_available_frequencies";
constexpr char kClockStats[] = "/sys/class/grax/grax-3d0/gpu_clock_stats";
constexpr char kBusy[] = "/sys/class/grax/grax-3d0/gpubusy";
constexpr char kClock[] = "/sys/class/grax/grax-3d0/gpuclk";

constexpr char kGame[] = "com.example.game";
constexpr char kOtherApp[] = "com.example.mail";

using pwr::codes::kAppStart;
using pwr::codes::kAppStop;
using pwr::codes::kAppStopOther;
using pwr::codes::kGameOff;

// The dynamic profiles, in key order: very high, moderate, low utilisation.
const std::vector<int> kHighList = {0x40C00000, 0x3, 0x42804000, 0x7};
const std::vector<int> kBalancedList = {0x40C00000, 0x2, 0x42804000, 0x5};
const std::vector<int> kLowList = {0x40C00000, 0x1, 0x42804000, 0x3};

// Averages (MHz) that give each decision with the thresholds 300 and 600.
constexpr unsigned long long kHighAvg = 700;
constexpr unsigned long long kModerateAvg = 450;
constexpr unsigned long long kLowAvg = 200;

std::string line(const char* func, int number, const std::string& message) {
    return std::string("PSMPOWEROPT: ") + func + "() " + std::to_string(number) + ": " + message;
}

std::string line(const pwr::LogSite& site, const std::string& message) {
    return pwr::linePrefix(site) + message;
}

PowerOptFeatureInfo gpuConfig() {
    PowerOptFeatureInfo info = pwr::test::minimalConfig("2");
    info.configs["GPUMode"] = "1";
    info.configs["GAME_TIMER"] = "1000";
    info.configs["GPU_SAMPLE_COUNT"] = "5";
    info.configs["STABILITY_SAMPLE_COUNT"] = "3";
    info.configs["GPU_BUSY_STABILITY_THRESHOLD"] = "10";
    info.configs["GPU_Freq_THRESHOLD_LOW"] = "300";
    info.configs["GPU_Freq_THRESHOLD_HIGH"] = "600";
    info.profiles["DYN_0_HIGH"] = {kHighList};
    info.profiles["DYN_1_BALANCED"] = {kBalancedList, {0x1, 0x1}};
    info.profiles["DYN_2_LOW"] = {kLowList};
    return info;
}

AsyncTriggerPayload event(int32_t id, const std::string& app) {
    AsyncTriggerPayload payload;
    payload.hintId = id;
    payload.appName = app;
    return payload;
}

std::vector<std::vector<int>> acquiredLists() {
    std::vector<std::vector<int>> lists;
    for (const fakeperf::Call& call : fakeperf::calls()) {
        if (call.kind == CallKind::LockAcquire) lists.push_back(call.list);
    }
    return lists;
}

// Writes the GPU nodes: three levels (100, 200, 300 MHz) whose clock statistics never move, so
// each tick takes the frequency from "gpuclk".
void writeGpuNodes(const DeviceTree& tree) {
    tree.write(kFreqs, "300000000 200000000 100000000\n");
    tree.write(kClockStats, "0 0 0\n");
    tree.write(kClock, "200000000\n");
    tree.write(kBusy, "50 100\n");
}

void setGpu(const DeviceTree& tree, uint64_t mhz, int busyPercent) {
    tree.write(kClock, std::to_string(mhz * 1000000) + "\n");
    tree.write(kBusy, std::to_string(busyPercent) + " 100\n");
}

// ---------------------------------------------------------------------------------------------
// Configuration

TEST(GpuMonitorConfig, ReadsEverySettingTruncatedTowardZero) {
    fakeperf::reset();
    PowerOptFeatureInfo info = gpuConfig();
    info.configs["GAME_TIMER"] = "1000.9";
    info.configs["GPU_SAMPLE_COUNT"] = "5.99";
    info.configs["GPU_BUSY_STABILITY_THRESHOLD"] = "-0.5";
    PSMPowerOptFeature feature(info);
    PSMPowerOptFeatureTestPeer peer(feature);
    ASSERT_TRUE(peer.ready());
    EXPECT_NE(peer.gpu().timer(), nullptr);
    EXPECT_EQ(peer.settings().mGameTimerMs, 1000);
    EXPECT_EQ(peer.settings().mGpuSampleCount, 5);
    EXPECT_EQ(peer.settings().mStabilitySampleCount, 3);
    EXPECT_EQ(peer.settings().mGpuBusyStabilityThreshold, 0);
    EXPECT_EQ(peer.settings().mGpuFreqThresholdLow, 300);
    EXPECT_EQ(peer.settings().mGpuFreqThresholdHigh, 600);
    EXPECT_EQ(peer.gpu().graxInfo(), GraxInfo::getInstance());
}

TEST(GpuMonitorConfig, EachMissingSettingIsNamedAndStopsConfiguration) {
    const struct {
        const char* key;
        int line;
    } settings[] = {
            {"GAME_TIMER", 130},
            {"GPU_SAMPLE_COUNT", 137},
            {"STABILITY_SAMPLE_COUNT", 144},
            {"GPU_BUSY_STABILITY_THRESHOLD", 151},
            {"GPU_Freq_THRESHOLD_LOW", 158},
            {"GPU_Freq_THRESHOLD_HIGH", 165},
    };
    for (const auto& missing : settings) {
        SCOPED_TRACE(missing.key);
        fakeperf::reset();
        LogCapture log;
        PowerOptFeatureInfo info = gpuConfig();
        info.configs.erase(missing.key);
        // Settings after the missing one are not looked at: their absence is not reported.
        bool after = false;
        for (const auto& other : settings) {
            if (after) info.configs.erase(other.key);
            after = after || other.key == missing.key;
        }
        PSMPowerOptFeature feature(info);
        EXPECT_FALSE(PSMPowerOptFeatureTestPeer(feature).ready());
        EXPECT_EQ(log.countContaining("initGpuMonitor()"), 1)
                << ::testing::PrintToString(log.messages());
        EXPECT_TRUE(log.contains(
                line("initGpuMonitor", missing.line, std::string("miss ") + missing.key)));
        EXPECT_TRUE(log.contains(
                line(pwr::site::kMissingConfigs, "Missing feature configs, return !!")));
    }
}

TEST(GpuMonitorConfig, DynamicProfilesAreTakenInKeyOrder) {
    fakeperf::reset();
    PowerOptFeatureInfo info = gpuConfig();
    info.profiles.clear();
    info.profiles["PROFILE_LIGHT_MODE"] = {{0x40C00000, 0x1}};
    info.profiles["DYN_b"] = {{2}};
    info.profiles["X_DYN_a"] = {{3}};  // "DYN_" anywhere in the key
    info.profiles["DYN_a"] = {{1}, {9}};
    info.profiles["dyn_c"] = {{4}};  // case matters
    info.profiles["DEFAULT"] = {{5}};
    PSMPowerOptFeature feature(info);
    PSMPowerOptFeatureTestPeer peer(feature);
    ASSERT_TRUE(peer.ready());
    EXPECT_EQ(peer.settings().mDynamicGpuProfiles,
              (std::vector<Profile>{{{1}, {9}}, {{2}}, {{3}}}));
}

TEST(GpuMonitorConfig, NoDynamicProfileFailsConfiguration) {
    fakeperf::reset();
    LogCapture log;
    PowerOptFeatureInfo info = gpuConfig();
    info.profiles.erase("DYN_0_HIGH");
    info.profiles.erase("DYN_1_BALANCED");
    info.profiles.erase("DYN_2_LOW");
    PSMPowerOptFeature feature(info);
    EXPECT_FALSE(PSMPowerOptFeatureTestPeer(feature).ready());
    EXPECT_TRUE(log.contains(line(pwr::site::kMissDynamicProfile, "miss Dynamic GPU profile")));
}

TEST(GpuMonitorConfig, UnparsableOrOutOfRangeSettingThrows) {
    fakeperf::reset();
    PowerOptFeatureInfo info = gpuConfig();
    info.configs["GAME_TIMER"] = "fast";
    EXPECT_THROW(PSMPowerOptFeature{info}, std::invalid_argument);
    info.configs["GAME_TIMER"] = "3e9";
    EXPECT_THROW(PSMPowerOptFeature{info}, std::out_of_range);
    info.configs["GAME_TIMER"] = "nan";
    EXPECT_THROW(PSMPowerOptFeature{info}, std::out_of_range);
}

TEST(GpuMonitorConfig, GpuModeZeroReadsNoGpuSettingAndTicksDoNothing) {
    fakeperf::reset();
    DeviceTree tree;
    writeGpuNodes(tree);
    GraxInfo grax;
    LogCapture log;
    PowerOptFeatureInfo info = pwr::test::minimalConfig("2");  // GPUMode 0, no GPU keys
    PSMPowerOptFeature feature(info);
    PSMPowerOptFeatureTestPeer peer(feature);
    ASSERT_TRUE(peer.ready());
    EXPECT_EQ(peer.gpu().timer(), nullptr);
    peer.gpu().setGraxInfo(&grax);
    log.clear();
    PSMPowerOptFeature::gametimerCallBack(&feature);
    PSMPowerOptFeature::gametimerCallBack(nullptr);
    EXPECT_TRUE(peer.gpu().samples().empty());
    EXPECT_TRUE(log.messages().empty()) << ::testing::PrintToString(log.messages());
}

// ---------------------------------------------------------------------------------------------
// Fixture: a ready feature in PSM mode 2 whose monitor reads a GraxInfo built on a fake tree.

class GpuMonitorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeperf::reset();
        writeGpuNodes(tree);
        grax = std::make_unique<GraxInfo>();
        ASSERT_EQ(grax->capacities().size(), 3u);
        feature = makeFeature(gpuConfig());
        // As when a game has just come to the foreground.
        feature->initGpuSamples();
        gGpuProfileChangeCount = 0;
        log.clear();
    }

    std::unique_ptr<PSMPowerOptFeature> makeFeature(const PowerOptFeatureInfo& info) {
        auto made = std::make_unique<PSMPowerOptFeature>(info);
        PSMPowerOptFeatureTestPeer peer(*made);
        EXPECT_TRUE(peer.ready());
        peer.gpu().setGraxInfo(grax.get());
        return made;
    }

    PSMPowerOptFeatureTestPeer peer() { return PSMPowerOptFeatureTestPeer(*feature); }

    void tick(uint64_t mhz, int busyPercent) {
        setGpu(tree, mhz, busyPercent);
        PSMPowerOptFeature::gametimerCallBack(feature.get());
    }

    void decide(std::initializer_list<unsigned long long> averages) {
        for (unsigned long long avg : averages) feature->applyGpuProfile(avg);
    }

    std::vector<int64_t> busyValues() {
        std::vector<int64_t> values;
        for (const GPUSample& s : peer().gpu().samples()) values.push_back(s.busy);
        return values;
    }

    DeviceTree tree;
    LogCapture log;
    std::unique_ptr<GraxInfo> grax;
    std::unique_ptr<PSMPowerOptFeature> feature;
};

// --- One tick ---

TEST_F(GpuMonitorTest, Tick_RecordsAndLogsTheSampleInMHz) {
    setGpu(tree, 0, 37);
    tree.write(kClock, "450999999\n");  // truncated to 450 MHz
    PSMPowerOptFeature::gametimerCallBack(feature.get());
    EXPECT_TRUE(log.contains(line(pwr::site::kMeasured, "Meastured freq:450, busy:37")))
            << ::testing::PrintToString(log.messages());
    const std::vector<GPUSample> samples = peer().gpu().samples();
    ASSERT_EQ(samples.size(), 1u);
    EXPECT_EQ(samples[0].freq, 450u);
    EXPECT_EQ(samples[0].busy, 37);
}

TEST_F(GpuMonitorTest, Tick_ZeroFrequencyOrBusyMeansNoSample) {
    tree.write(kClock, "0\n");
    tree.write(kBusy, "50 100\n");
    PSMPowerOptFeature::gametimerCallBack(feature.get());
    setGpu(tree, 300, 0);
    PSMPowerOptFeature::gametimerCallBack(feature.get());
    tree.write(kBusy, "0 0\n");
    PSMPowerOptFeature::gametimerCallBack(feature.get());
    EXPECT_TRUE(peer().gpu().samples().empty());
    EXPECT_TRUE(log.messages().empty()) << ::testing::PrintToString(log.messages());
}

TEST_F(GpuMonitorTest, Tick_ErrorCodesPassAsSamples) {
    setGpu(tree, 300, 50);
    tree.write(kBusy, "50\n");  // -22
    PSMPowerOptFeature::gametimerCallBack(feature.get());
    tree.remove(kClock);  // GetCurFreq: 2^64 - 5 Hz
    tree.write(kBusy, "50 100\n");
    PSMPowerOptFeature::gametimerCallBack(feature.get());

    const std::vector<GPUSample> samples = peer().gpu().samples();
    ASSERT_EQ(samples.size(), 2u);
    EXPECT_EQ(samples[0].freq, 300u);
    EXPECT_EQ(samples[0].busy, -22);
    EXPECT_EQ(samples[1].freq, static_cast<uint64_t>(-5) / 1000000);
    EXPECT_EQ(samples[1].busy, 50);
}

TEST_F(GpuMonitorTest, Tick_TakesTheFrequencyOfTheAverageCapacityOnceTimePasses) {
    setGpu(tree, 100, 50);
    // 3000 ms at 300 MHz and 1000 ms at 200 MHz: capacity 938, whose level is 300 MHz.
    tree.write(kClockStats, "3000000 1000000 0\n");
    PSMPowerOptFeature::gametimerCallBack(feature.get());
    // An unreadable node gives a negative capacity, above every level: the top frequency.
    tree.write(kClockStats, "1\n");
    PSMPowerOptFeature::gametimerCallBack(feature.get());
    // No time passed since the previous average: "gpuclk" again.
    tree.write(kClockStats, "3000000 1000000 0\n");
    PSMPowerOptFeature::gametimerCallBack(feature.get());

    const std::vector<GPUSample> samples = peer().gpu().samples();
    ASSERT_EQ(samples.size(), 3u);
    EXPECT_EQ(samples[0].freq, 300u);
    EXPECT_EQ(samples[1].freq, 300u);
    EXPECT_EQ(samples[2].freq, 100u);
}

TEST_F(GpuMonitorTest, Tick_WithoutCapacitiesAndAnAverageErrorSkips) {
    tree.remove(kFreqs);
    GraxInfo empty;
    ASSERT_TRUE(empty.capacities().empty());
    peer().gpu().setGraxInfo(&empty);
    tree.remove(kClockStats);  // -5 from GetAvgCapacity, and no capacity table to look it up in
    tick(300, 50);
    EXPECT_TRUE(peer().gpu().samples().empty());
    peer().gpu().setGraxInfo(grax.get());
}

TEST_F(GpuMonitorTest, Tick_SampleListIsBoundedBySampleCount) {
    const int busy[] = {10, 30, 50, 70, 90, 10, 30, 50};
    for (size_t i = 0; i < std::size(busy); ++i) {
        tick(300, busy[i]);
        EXPECT_EQ(peer().gpu().samples().size(), std::min<size_t>(i + 1, 5));
        // Stability is not judged before the list is full.
        if (i < 4) {
            EXPECT_EQ(log.countContaining("isGpuStable()"), 0);
        }
    }
    EXPECT_EQ(busyValues(), (std::vector<int64_t>{70, 90, 10, 30, 50}));
    EXPECT_EQ(log.count(line(pwr::site::kGpuNotStable, "GPU is not stable yet. Busy range:80")), 4);
    EXPECT_EQ(peer().snapshot().gpuStableCount, 0);
    EXPECT_TRUE((peer().snapshot().gpuPhase == PSM_GPU_PHASE_CHECKING));
}

// --- Phases ---

TEST_F(GpuMonitorTest, Phases_StableTicksStartEvaluationThenEveryTickDecides) {
    feature->initGpuSamples();
    for (int busy : {40, 45, 50, 42}) tick(300, busy);
    EXPECT_EQ(peer().snapshot().gpuStableCount, 0);
    tick(300, 48);  // 40..50: range 10, at the threshold
    EXPECT_TRUE(log.contains(line(pwr::site::kGpuStable, "GPU is stable. Busy range:10")));
    EXPECT_EQ(peer().snapshot().gpuStableCount, 1);
    tick(300, 44);
    EXPECT_EQ(peer().snapshot().gpuStableCount, 2);
    EXPECT_FALSE((peer().snapshot().gpuPhase == PSM_GPU_PHASE_EVALUATING));

    tick(300, 46);  // the third stable tick switches phase and decides nothing yet
    EXPECT_EQ(log.count(line("gametimerCallBack", 517,
                             "GPU behavior is stable. Start evaluating GPU status.")),
              1);
    EXPECT_FALSE((peer().snapshot().gpuPhase == PSM_GPU_PHASE_CHECKING));
    EXPECT_TRUE((peer().snapshot().gpuPhase == PSM_GPU_PHASE_EVALUATING));
    EXPECT_EQ(log.countContaining("applyGpuProfile()"), 0);

    log.clear();
    tick(300, 90);  // evaluation no longer looks at stability
    EXPECT_EQ(log.countContaining("isGpuStable()"), 0);
    EXPECT_TRUE(log.contains(line(pwr::site::kAveragedFreq, "Averaged freq:300")));
}

TEST_F(GpuMonitorTest, Phases_AnUnstableTickRestartsTheStableCount) {
    for (int busy : {40, 45, 50, 42, 48, 44}) tick(300, busy);
    ASSERT_EQ(peer().snapshot().gpuStableCount, 2);
    tick(300, 90);  // 42..90
    EXPECT_TRUE(
            log.contains(line(pwr::site::kGpuNotStable, "GPU is not stable yet. Busy range:48")));
    EXPECT_EQ(peer().snapshot().gpuStableCount, 0);
    EXPECT_TRUE((peer().snapshot().gpuPhase == PSM_GPU_PHASE_CHECKING));
}

TEST_F(GpuMonitorTest, Phases_EvaluationAveragesAFullListOnly) {
    peer().gpu().setPhase(false, true);
    peer().gpu().setSamples({{100, 50}, {200, 50}, {300, 50}});
    tick(400, 50);  // four of five
    EXPECT_EQ(log.countContaining("Averaged freq"), 0);
    tick(500, 50);
    EXPECT_TRUE(log.contains(line(pwr::site::kAveragedFreq, "Averaged freq:300")));
    log.clear();
    tick(1000, 50);  // 200 + 300 + 400 + 500 + 1000
    EXPECT_TRUE(log.contains(line(pwr::site::kAveragedFreq, "Averaged freq:480")));

    peer().gpu().setSamples({{1, 50}, {1, 50}, {1, 50}, {1, 50}});
    log.clear();
    tick(2, 50);  // 6 / 5, truncated
    EXPECT_TRUE(log.contains(line(pwr::site::kAveragedFreq, "Averaged freq:1")));
}

TEST_F(GpuMonitorTest, Phases_WithNeitherPhaseATickOnlyRecords) {
    peer().gpu().setPhase(false, false);
    for (int i = 0; i < 6; ++i) tick(300, 50);
    EXPECT_EQ(peer().gpu().samples().size(), 5u);
    EXPECT_EQ(log.countContaining("isGpuStable()"), 0);
    EXPECT_EQ(log.countContaining("applyGpuProfile()"), 0);
}

TEST_F(GpuMonitorTest, InitGpuSamples_ResetsTheMonitorButNotTheChangeCount) {
    peer().gpu().setPhase(false, true);
    peer().gpu().setProfileLevel(2);
    for (int i = 0; i < 3; ++i) tick(300, 50);
    gGpuProfileChangeCount = 2;

    feature->initGpuSamples();
    EXPECT_TRUE((peer().snapshot().gpuPhase == PSM_GPU_PHASE_CHECKING));
    EXPECT_FALSE((peer().snapshot().gpuPhase == PSM_GPU_PHASE_EVALUATING));
    EXPECT_EQ(peer().snapshot().gpuStableCount, 0);
    EXPECT_EQ(peer().snapshot().gpuProfileLevel, 0);
    EXPECT_TRUE(peer().gpu().samples().empty());
    EXPECT_EQ(peer().gameState(), 0);
    EXPECT_EQ(gGpuProfileChangeCount, 2);
}

// --- Stability ---

TEST_F(GpuMonitorTest, IsGpuStable_RangeAtTheThresholdIsStable) {
    PowerOptFeatureInfo info = gpuConfig();
    info.configs["GPU_SAMPLE_COUNT"] = "3";
    auto three = makeFeature(info);
    log.clear();
    std::vector<GPUSample> samples = {{300, 40}, {300, 45}, {300, 50}};
    EXPECT_TRUE(three->isGpuStable(samples));
    EXPECT_TRUE(log.contains(line(pwr::site::kGpuStable, "GPU is stable. Busy range:10")));
    samples = {{300, 40}, {300, 51}, {300, 45}};
    EXPECT_FALSE(three->isGpuStable(samples));
    EXPECT_TRUE(
            log.contains(line(pwr::site::kGpuNotStable, "GPU is not stable yet. Busy range:11")));

    log.clear();
    samples = {{300, 40}, {300, 40}};  // fewer than GPU_SAMPLE_COUNT
    EXPECT_FALSE(three->isGpuStable(samples));
    EXPECT_TRUE(log.messages().empty());
}

// --- Decision and switch ---

TEST_F(GpuMonitorTest, Decision_Thresholds) {
    const struct {
        unsigned long long avg;
        int line;
        const char* text;
    } cases[] = {
            {299, 575, "GPU is underutilized. Remaining power profile."},
            {300, 578, "GPU is moderately utilized. Applying balanced profile."},
            {600, 578, "GPU is moderately utilized. Applying balanced profile."},
            {601, 581, "GPU is very highly utilized. Remaining power profile."},
            {1ULL << 40, 581, "GPU is very highly utilized. Remaining power profile."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.avg);
        log.clear();
        gGpuProfileChangeCount = 0;
        feature->applyGpuProfile(c.avg);
        EXPECT_EQ(log.messages(),
                  (std::vector<std::string>{
                          line("applyGpuProfile", 569,
                               "Averaged freq:" + std::to_string(static_cast<int>(c.avg))),
                          line("applyGpuProfile", c.line, c.text)}));
    }
    EXPECT_TRUE(acquiredLists().empty());
}

TEST_F(GpuMonitorTest, Decision_ThresholdsAreComparedSignExtended) {
    PowerOptFeatureInfo info = gpuConfig();
    info.configs["GPU_Freq_THRESHOLD_LOW"] = "-1";  // 2^64 - 1: every average is below it
    auto negative = makeFeature(info);
    log.clear();
    negative->applyGpuProfile(5000);
    EXPECT_TRUE(log.contains(
            line(pwr::site::kGpuUnderutilized, "GPU is underutilized. Remaining power profile.")));
}

TEST_F(GpuMonitorTest, Switch_OnTheThirdDifferingDecision) {
    decide({kLowAvg, kLowAvg});
    EXPECT_TRUE(acquiredLists().empty());
    EXPECT_EQ(gGpuProfileChangeCount, 2);
    decide({kLowAvg});
    EXPECT_EQ(acquiredLists(), (std::vector<std::vector<int>>{kLowList}));
    EXPECT_EQ(peer().snapshot().gpuProfileLevel, 2);
    EXPECT_EQ(gGpuProfileChangeCount, 0);
    EXPECT_EQ(log.count(line(pwr::site::kReadyToChangeProfile, "Ready to change the profile.")), 1);
    EXPECT_GT(peer().profileLock().held(), 0);
}

TEST_F(GpuMonitorTest, Switch_AnyThreeDifferingDecisionsSwitchToTheLast) {
    decide({kLowAvg, kModerateAvg, kLowAvg});
    EXPECT_EQ(acquiredLists(), (std::vector<std::vector<int>>{kLowList}));
    EXPECT_EQ(peer().snapshot().gpuProfileLevel, 2);
}

TEST_F(GpuMonitorTest, Switch_ADecisionEqualToTheLevelResetsTheCount) {
    decide({kLowAvg, kHighAvg, kLowAvg});
    EXPECT_EQ(gGpuProfileChangeCount, 1);
    decide({kHighAvg});
    EXPECT_EQ(gGpuProfileChangeCount, 0);
    decide({kLowAvg, kLowAvg, kHighAvg});
    EXPECT_TRUE(acquiredLists().empty());
    EXPECT_EQ(gGpuProfileChangeCount, 0);
    EXPECT_EQ(peer().snapshot().gpuProfileLevel, 0);
    decide({kModerateAvg, kModerateAvg, kModerateAvg});
    EXPECT_EQ(acquiredLists(), (std::vector<std::vector<int>>{kBalancedList}));
}

TEST_F(GpuMonitorTest, Switch_ReleasesTheHeldProfileFirst) {
    decide({kLowAvg, kLowAvg, kLowAvg});
    const int lowHandle = peer().profileLock().held();
    ASSERT_GT(lowHandle, 0);
    decide({kModerateAvg, kModerateAvg, kModerateAvg});

    const std::vector<fakeperf::Call> calls = fakeperf::calls();
    ASSERT_GE(calls.size(), 3u);
    const fakeperf::Call& release = calls[calls.size() - 2];
    const fakeperf::Call& acquire = calls.back();
    EXPECT_EQ(release.kind, CallKind::LockRelease);
    EXPECT_EQ(release.handle, lowHandle);
    EXPECT_EQ(acquire.kind, CallKind::LockAcquire);
    EXPECT_EQ(acquire.list, kBalancedList);  // only the first list of the profile
    EXPECT_EQ(acquire.duration, INT_MAX);
    EXPECT_EQ(fakeperf::heldLocks(),
              (std::map<int, std::vector<int>>{{acquire.result, kBalancedList}}));
    EXPECT_EQ(peer().profileLock().held(), acquire.result);
}

TEST_F(GpuMonitorTest, Switch_TheChangeCountIsSharedByTheProcess) {
    auto other = makeFeature(gpuConfig());
    decide({kLowAvg, kLowAvg});
    other->applyGpuProfile(kLowAvg);
    EXPECT_EQ(PSMPowerOptFeatureTestPeer(*other).snapshot().gpuProfileLevel, 2);
    EXPECT_EQ(peer().snapshot().gpuProfileLevel, 0);
}

TEST_F(GpuMonitorTest, Switch_LevelChangesEvenWhenTheLockIsRefused) {
    fakeperf::setAcquireFailure(true, -1);
    decide({kLowAvg, kLowAvg, kLowAvg});
    EXPECT_EQ(peer().snapshot().gpuProfileLevel, 2);
    EXPECT_EQ(peer().profileLock().held(), -1);
    EXPECT_TRUE(log.contains(
            line(pwr::site::kProfileApplyFailed, "Failed to apply resource, handle = -1")));
    // Decisions equal to the new level do not retry.
    log.clear();
    decide({kLowAvg, kLowAvg, kLowAvg});
    EXPECT_EQ(log.countContaining("applyProfileLock()"), 0);
}

TEST_F(GpuMonitorTest, Switch_ALevelWithoutAProfileOnlyReleases) {
    PowerOptFeatureInfo info = gpuConfig();
    info.profiles.erase("DYN_2_LOW");
    auto twoProfiles = makeFeature(info);
    twoProfiles->applyGpuProfile(kModerateAvg);
    twoProfiles->applyGpuProfile(kModerateAvg);
    twoProfiles->applyGpuProfile(kModerateAvg);
    ASSERT_EQ(acquiredLists(), (std::vector<std::vector<int>>{kBalancedList}));
    log.clear();
    for (int i = 0; i < 3; ++i) twoProfiles->applyGpuProfile(kLowAvg);
    EXPECT_TRUE(log.contains(
            line(pwr::site::kNoDynamicProfileForLevel, "No dynamic GPU profile for level 2")));
    EXPECT_EQ(PSMPowerOptFeatureTestPeer(*twoProfiles).snapshot().gpuProfileLevel, 2);
    EXPECT_EQ(acquiredLists().size(), 1u);
    EXPECT_TRUE(fakeperf::heldLocks().empty());
}

// ---------------------------------------------------------------------------------------------
// Real ticks of the game timer and events racing with ticks.

// Records the performance library's calls as they arrive, for bounded waits. The recording state
// is shared with the observer so that a late call after the watch has gone stays harmless.
class PerfWatch {
  public:
    PerfWatch() : mState(std::make_shared<State>()) {
        fakeperf::setObserver([state = mState](const fakeperf::Call& call) {
            // The feature calls the library under its profile lock, so the held set seen here is
            // the one this call left.
            const size_t held = fakeperf::heldLocks().size();
            {
                std::lock_guard<std::mutex> lock(state->mutex);
                state->calls.push_back(call);
                state->maxHeld = std::max(state->maxHeld, held);
            }
            state->changed.notify_all();
        });
    }
    ~PerfWatch() { fakeperf::setObserver(nullptr); }

    size_t size() const {
        std::lock_guard<std::mutex> lock(mState->mutex);
        return mState->calls.size();
    }
    std::vector<fakeperf::Call> calls() const {
        std::lock_guard<std::mutex> lock(mState->mutex);
        return mState->calls;
    }
    size_t maxHeld() const {
        std::lock_guard<std::mutex> lock(mState->mutex);
        return mState->maxHeld;
    }
    // Waits until a call at index `from` or later acquires `list`; returns its index or -1.
    int waitForAcquire(const std::vector<int>& list, size_t from,
                       std::chrono::milliseconds timeout = 10s) const {
        std::unique_lock<std::mutex> lock(mState->mutex);
        int found = -1;
        mState->changed.wait_for(lock, timeout, [&] {
            for (size_t i = from; i < mState->calls.size(); ++i) {
                const fakeperf::Call& c = mState->calls[i];
                if (c.kind == CallKind::LockAcquire && c.list == list && c.result > 0) {
                    found = static_cast<int>(i);
                    return true;
                }
            }
            return false;
        });
        return found;
    }

  private:
    struct State {
        mutable std::mutex mutex;
        std::condition_variable changed;
        std::vector<fakeperf::Call> calls;
        size_t maxHeld = 0;
    };
    std::shared_ptr<State> mState;
};

// A feature whose game timer is armed for real, with the GraxInfo it reads. When the test ends
// the timer is disabled and both are parked until the process exits instead of destroyed:
// disabling a POSIX timer does not wait for an expiry thread the C library has already started,
// and the destructor frees the timer record such a thread reads. Parked objects stay reachable,
// so leak checkers stay quiet.
class TimedFeature {
  public:
    explicit TimedFeature(const PowerOptFeatureInfo& info)
        : mGrax(std::make_unique<GraxInfo>()),
          mFeature(std::make_unique<PSMPowerOptFeature>(info)) {
        PSMPowerOptFeatureTestPeer(*mFeature).gpu().setGraxInfo(mGrax.get());
    }
    ~TimedFeature() {
        Timer().Timer_disable(PSMPowerOptFeatureTestPeer(*mFeature).gpu().timer());
        static auto* parked = new std::vector<
                std::pair<std::unique_ptr<GraxInfo>, std::unique_ptr<PSMPowerOptFeature>>>();
        static std::mutex parkedMutex;
        std::lock_guard<std::mutex> lock(parkedMutex);
        parked->emplace_back(std::move(mGrax), std::move(mFeature));
    }
    PSMPowerOptFeature* operator->() { return mFeature.get(); }
    PSMPowerOptFeature* get() { return mFeature.get(); }
    PSMPowerOptFeatureTestPeer peer() { return PSMPowerOptFeatureTestPeer(*mFeature); }

  private:
    std::unique_ptr<GraxInfo> mGrax;
    std::unique_ptr<PSMPowerOptFeature> mFeature;
};

TEST(GpuMonitorTimer, RealTicksSwitchTheDynamicProfileAsTheGpuChanges) {
#ifdef PWR_UNDER_TSAN
    GTEST_SKIP() << "ThreadSanitizer cannot run SIGEV_THREAD timers (the C library's timer "
                    "thread bypasses it); GpuMonitorConcurrency.EventsWhileTicking covers the "
                    "races with a ticking thread instead";
#endif
    fakeperf::reset();
    fakeperf::setAppType(kGame, 2);
    gGpuProfileChangeCount = 0;
    DeviceTree tree;
    writeGpuNodes(tree);
    setGpu(tree, 200, 50);
    LogCapture log;
    PerfWatch watch;

    PowerOptFeatureInfo info = gpuConfig();
    info.configs["GAME_TIMER"] = "10";
    info.configs["GPU_SAMPLE_COUNT"] = "3";
    info.configs["STABILITY_SAMPLE_COUNT"] = "2";
    TimedFeature feature(info);
    ASSERT_TRUE(feature.peer().ready());

    feature->sendEvents(event(kAppStart, std::string(kGame) + "/.Main"));
    EXPECT_TRUE(log.contains(line(pwr::site::kGamingOn, "Triggering Gaming Usable Mode.")));
    EXPECT_TRUE(Timer().Timer_isActive(feature.peer().gpu().timer()));
    EXPECT_EQ(feature.peer().gameState(), 1);

    // 200 MHz: underutilised, the third profile.
    const int low = watch.waitForAcquire(kLowList, 0);
    ASSERT_GE(low, 0) << ::testing::PrintToString(log.messages());
    EXPECT_TRUE(log.contains(line(pwr::site::kMeasured, "Meastured freq:200, busy:50")));
    EXPECT_TRUE(log.contains(line("gametimerCallBack", 517,
                                  "GPU behavior is stable. Start evaluating GPU status.")));

    // 450 MHz: moderately utilised, the second profile, after releasing the third.
    setGpu(tree, 450, 52);
    const int balanced = watch.waitForAcquire(kBalancedList, low + 1);
    ASSERT_GT(balanced, low) << ::testing::PrintToString(log.messages());
    std::vector<fakeperf::Call> calls = watch.calls();
    EXPECT_EQ(calls[balanced - 1].kind, CallKind::LockRelease);
    EXPECT_EQ(calls[balanced - 1].handle, calls[low].result);

    // 900 MHz: very highly utilised, the first profile.
    setGpu(tree, 900, 48);
    const int high = watch.waitForAcquire(kHighList, balanced + 1);
    ASSERT_GT(high, balanced) << ::testing::PrintToString(log.messages());
    calls = watch.calls();
    EXPECT_EQ(calls[high - 1].kind, CallKind::LockRelease);
    EXPECT_EQ(calls[high - 1].handle, calls[balanced].result);
    EXPECT_EQ(feature.peer().profileLock().held(), calls[high].result);

    // The game stops: the timer is disarmed and the profile given back. The GPU is steady at the
    // level in force, so a tick still under way switches nothing.
    feature->sendEvents(event(kAppStop, std::string(kGame) + "/.Main"));
    EXPECT_FALSE(Timer().Timer_isActive(feature.peer().gpu().timer()));
    EXPECT_EQ(feature.peer().gameState(), 2);
    EXPECT_EQ(feature.peer().profileLock().held(), -1);
    EXPECT_TRUE(fakeperf::heldLocks().empty());
    EXPECT_EQ(watch.maxHeld(), 1u);
}

enum class TickSource { kGameTimer, kTickerThread };

// Events (game start, stops, game-off, a non-game start) arrive on one thread while the game
// timer ticks on its own. The feature must never hold more than one lock in the library, never
// release a lock it does not hold, and end with its handle matching what the library holds.
class GpuMonitorConcurrency : public ::testing::TestWithParam<TickSource> {};

TEST_P(GpuMonitorConcurrency, EventsWhileTicking) {
    const bool realTimer = GetParam() == TickSource::kGameTimer;
#ifdef PWR_UNDER_TSAN
    if (realTimer) GTEST_SKIP() << "ThreadSanitizer cannot run SIGEV_THREAD timers";
#endif
    fakeperf::reset();
    fakeperf::setAppType(kGame, 2);
    pwr::test::installNullLogger();
    DeviceTree tree;
    writeGpuNodes(tree);
    setGpu(tree, 200, 50);
    PerfWatch watch;

    PowerOptFeatureInfo info = gpuConfig();
    // The ticking thread stands in for the timer: a period of 0 arms nothing at the system level.
    info.configs["GAME_TIMER"] = realTimer ? "2" : "0";
    info.configs["GPU_SAMPLE_COUNT"] = "2";
    info.configs["STABILITY_SAMPLE_COUNT"] = "1";
    TimedFeature feature(info);
    ASSERT_TRUE(feature.peer().ready());
    const std::vector<std::vector<int>> dynamicLists = {kHighList, kBalancedList, kLowList};

    std::mutex tickerMutex;
    std::condition_variable tickerStop;
    bool stopTicking = false;
    std::thread ticker;
    if (!realTimer) {
        ticker = std::thread([&] {
            std::unique_lock<std::mutex> lock(tickerMutex);
            while (!stopTicking) {
                lock.unlock();
                PSMPowerOptFeature::gametimerCallBack(feature.get());
                lock.lock();
                tickerStop.wait_for(lock, 200us, [&] { return stopTicking; });
            }
        });
    }

    constexpr int kCycles = 24;
    int switchesSeen = 0;
    std::thread events([&] {
        for (int cycle = 0; cycle < kCycles; ++cycle) {
            const size_t before = watch.size();
            feature->sendEvents(event(kAppStart, std::string(kGame) + "/.Main"));
            // In half of the cycles let the monitor switch before the game leaves.
            if (cycle % 2 == 0 && watch.waitForAcquire(kLowList, before) >= 0) ++switchesSeen;
            switch (cycle % 4) {
                case 0:
                    feature->sendEvents(event(kAppStop, kGame));
                    break;
                case 1:
                    feature->sendEvents(event(kGameOff, kGame));
                    break;
                case 2:
                    feature->sendEvents(event(kAppStart, kOtherApp));
                    break;
                default:
                    feature->sendEvents(event(kAppStopOther, kGame));
                    break;
            }
        }
    });
    events.join();
    if (!realTimer) {
        {
            std::lock_guard<std::mutex> lock(tickerMutex);
            stopTicking = true;
        }
        tickerStop.notify_all();
        ticker.join();
    }

    EXPECT_EQ(switchesSeen, kCycles / 2);
    EXPECT_EQ(watch.maxHeld(), 1u);
    for (const fakeperf::Call& call : watch.calls()) {
        if (call.kind == CallKind::LockRelease) {
            EXPECT_EQ(call.result, 0) << "released handle " << call.handle << " was not held";
        } else if (call.kind == CallKind::LockAcquire) {
            EXPECT_NE(std::find(dynamicLists.begin(), dynamicLists.end(), call.list),
                      dynamicLists.end());
        }
    }
    EXPECT_LE(feature.peer().gpu().samples().size(), 2u);
    EXPECT_EQ(feature.peer().gameState(), 2);

    // A real tick may still be switching; the handle and the library agree under the profile
    // lock, and a final release leaves nothing held.
    {
        ProfileLock& locks = feature.peer().profileLock();
        pwr::MutexLock lock(locks.profileMutex);
        const int handle = locks.heldLocked();
        const std::map<int, std::vector<int>> held = fakeperf::heldLocks();
        if (handle > 0) {
            EXPECT_EQ(held.size(), 1u);
            EXPECT_EQ(held.count(handle), 1u);
        } else {
            EXPECT_TRUE(held.empty());
        }
    }
    Timer().Timer_disable(feature.peer().gpu().timer());
    feature->releaseProfileLock();
    if (!realTimer) {
        EXPECT_TRUE(fakeperf::heldLocks().empty());
    }
}

INSTANTIATE_TEST_SUITE_P(TickSources, GpuMonitorConcurrency,
                         ::testing::Values(TickSource::kGameTimer, TickSource::kTickerThread),
                         [](const ::testing::TestParamInfo<TickSource>& param) {
                             return param.param == TickSource::kGameTimer ? "GameTimer"
                                                                          : "TickerThread";
                         });

}  // namespace
