// The GPU stability monitor: its configuration, one tick of the game timer against fake GPU
// nodes, the phases, the profile decision and its three-in-a-row switch, and the game timer on
// virtual time.

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "feature/FeatureCodes.h"
#include "platform/GraxInfo.h"
#include "tests/support/FeatureTest.h"

namespace {

using namespace std::chrono_literals;
using pwr::test::acquiredLists;
using pwr::test::event;
using pwr::test::line;
namespace site = pwr::site;
using pwr::codes::kAppStart;
using pwr::codes::kAppStop;

constexpr char kFreqs[] = "/sys/class/grax/grax-3d0/gpu_available_frequencies";
constexpr char kClockStats[] = "/sys/class/grax/grax-3d0/gpu_clock_stats";
constexpr char kBusy[] = "/sys/class/grax/grax-3d0/gpubusy";
constexpr char kClock[] = "/sys/class/grax/grax-3d0/gpuclk";
constexpr char kGame[] = "com.example.game";

// The dynamic profiles of gpuMonitorConfig(), in key order: very high, moderate, low utilisation.
const std::vector<int> kHigh = {0x42804000, 0x3};
const std::vector<int> kMid = {0x42804000, 0x2};
const std::vector<int> kLow = {0x42804000, 0x1};
using Lists = std::vector<std::vector<int>>;

// Averages (MHz) that give each decision with the thresholds 300 and 600.
constexpr unsigned long long H = 700;
constexpr unsigned long long M = 450;
constexpr unsigned long long L = 200;

// A ready feature in PSM mode 2 whose monitor reads a GraxInfo built on the fake tree: three
// levels (100, 200, 300 MHz) whose clock statistics never move, so each tick takes the frequency
// from "gpuclk".
class GpuMonitor : public pwr::test::FeatureTest {
  protected:
    void SetUp() override {
        tree.write(kFreqs, "300000000 200000000 100000000\n");
        tree.write(kClockStats, "0 0 0\n");
        setGpu(200, 50);
        grax = std::make_unique<GraxInfo>();
        ASSERT_EQ(grax->capacities().size(), 3u);
        feature = makeFeature(pwr::test::gpuMonitorConfig("2"));
        feature->initGpuSamples();  // as when a game has just come to the foreground
        gGpuProfileChangeCount = 0;
        log.clear();
    }

    std::unique_ptr<PSMPowerOptFeature> makeFeature(const PowerOptFeatureInfo& info) {
        auto made = std::make_unique<PSMPowerOptFeature>(info);
        EXPECT_TRUE(PSMPowerOptFeatureTestPeer(*made).ready());
        PSMPowerOptFeatureTestPeer(*made).gpu().setGraxInfo(grax.get());
        return made;
    }
    PSMPowerOptFeatureTestPeer peer() { return PSMPowerOptFeatureTestPeer(*feature); }
    void setGpu(uint64_t mhz, int busyPercent) {
        tree.write(kClock, std::to_string(mhz * 1000000) + "\n");
        tree.write(kBusy, std::to_string(busyPercent) + " 100\n");
    }
    void tick(uint64_t mhz, int busyPercent) {
        setGpu(mhz, busyPercent);
        PSMPowerOptFeature::gametimerCallBack(feature.get());
    }
    int phase() { return peer().snapshot().gpuPhase; }

    std::unique_ptr<GraxInfo> grax;
    std::unique_ptr<PSMPowerOptFeature> feature;
};

// --- Configuration

TEST_F(GpuMonitor, Config_DynamicProfilesAreEveryKeyContainingTheMarkInKeyOrder) {
    PowerOptFeatureInfo info = pwr::test::gpuMonitorConfig("2");
    info.profiles.clear();
    info.profiles["PROFILE_LIGHT_MODE"] = {{0x40C00000, 0x1}};
    info.profiles["DYN_b"] = {{2}};
    info.profiles["X_DYN_a"] = {{3}};
    info.profiles["DYN_a"] = {{1}, {9}};
    info.profiles["dyn_c"] = {{4}};  // case matters
    info.profiles["DEFAULT"] = {{5}};
    PSMPowerOptFeature f(info);
    ASSERT_TRUE(PSMPowerOptFeatureTestPeer(f).ready());
    EXPECT_EQ(PSMPowerOptFeatureTestPeer(f).settings().mDynamicGpuProfiles,
              (std::vector<Profile>{{{1}, {9}}, {{2}}, {{3}}}));
}

// --- One tick: what the nodes say, and the sample (MHz, busy %) it records, if any.

struct TickCase {
    const char* name;
    const char* clock;  // nullptr: the node is missing
    const char* busy;
    bool sampled;
    uint64_t freq;
    int64_t busyPercent;
    friend void PrintTo(const TickCase& row, std::ostream* os) { *os << row.name; }
};

class GpuTick : public GpuMonitor, public ::testing::WithParamInterface<TickCase> {};

TEST_P(GpuTick, RecordsTheSampleOrNone) {
    const TickCase& c = GetParam();
    if (c.clock == nullptr) {
        tree.remove(kClock);
    } else {
        tree.write(kClock, c.clock);
    }
    tree.write(kBusy, c.busy);
    PSMPowerOptFeature::gametimerCallBack(feature.get());
    const std::vector<GPUSample> samples = peer().gpu().samples();
    if (!c.sampled) {
        EXPECT_TRUE(samples.empty());
        EXPECT_TRUE(log.messages().empty()) << ::testing::PrintToString(log.messages());
        return;
    }
    ASSERT_EQ(samples.size(), 1u);
    EXPECT_EQ(samples[0].freq, c.freq);
    EXPECT_EQ(samples[0].busy, c.busyPercent);
    EXPECT_EQ(
            log.messages(),
            (std::vector<std::string>{line(
                    site::kMeasured, "Meastured freq:" + std::to_string(static_cast<int>(c.freq)) +
                                             ", busy:" + std::to_string(c.busyPercent))}));
}

INSTANTIATE_TEST_SUITE_P(
        Nodes, GpuTick,
        ::testing::Values(TickCase{"TruncatedToMHz", "450999999\n", "37 100\n", true, 450, 37},
                          TickCase{"BusyIsAShareOfTotal", "300000000\n", "30 60\n", true, 300, 50},
                          TickCase{"ZeroClockIsNoSample", "0\n", "50 100\n", false, 0, 0},
                          TickCase{"ZeroBusyIsNoSample", "300000000\n", "0 100\n", false, 0, 0},
                          TickCase{"ZeroTotalIsNoSample", "300000000\n", "0 0\n", false, 0, 0},
                          TickCase{"BusyErrorPasses", "300000000\n", "50\n", true, 300, -22},
                          TickCase{"ClockErrorPasses", nullptr, "50 100\n", true,
                                   static_cast<uint64_t>(-5) / 1000000, 50}),
        [](const auto& info) { return std::string(info.param.name); });

TEST_F(GpuMonitor, Tick_TakesTheFrequencyOfTheAverageCapacityOnceTimePasses) {
    setGpu(100, 50);
    // 3000 ms at 300 MHz and 1000 ms at 200 MHz: capacity 938, whose level is 300 MHz.
    tree.write(kClockStats, "3000000 1000000 0\n");
    PSMPowerOptFeature::gametimerCallBack(feature.get());
    // An unreadable node gives a negative capacity, above every level: the top frequency.
    tree.write(kClockStats, "1\n");
    PSMPowerOptFeature::gametimerCallBack(feature.get());
    // No time passed since the previous average: "gpuclk" again.
    tree.write(kClockStats, "3000000 1000000 0\n");
    PSMPowerOptFeature::gametimerCallBack(feature.get());
    std::vector<uint64_t> freqs;
    for (const GPUSample& s : peer().gpu().samples()) freqs.push_back(s.freq);
    EXPECT_EQ(freqs, (std::vector<uint64_t>{300, 300, 100}));
}

TEST_F(GpuMonitor, Tick_WithoutCapacitiesAnAverageErrorSkips) {
    tree.remove(kFreqs);
    GraxInfo empty;
    ASSERT_TRUE(empty.capacities().empty());
    peer().gpu().setGraxInfo(&empty);
    tree.remove(kClockStats);
    tick(300, 50);
    PSMPowerOptFeature::gametimerCallBack(nullptr);
    EXPECT_TRUE(peer().gpu().samples().empty());
    peer().gpu().setGraxInfo(grax.get());
}

TEST_F(GpuMonitor, Tick_SampleListKeepsTheLatestSampleCountAndIsJudgedOnlyWhenFull) {
    const int ticks[] = {10, 30, 50, 70, 90, 10, 30, 50};
    for (size_t i = 0; i < std::size(ticks); ++i) {
        tick(300, ticks[i]);
        EXPECT_EQ(peer().gpu().samples().size(), std::min<size_t>(i + 1, 5));
        EXPECT_EQ(log.countContaining("isGpuStable()"), i < 4 ? 0 : static_cast<int>(i) - 3);
    }
    std::vector<int64_t> busy;
    for (const GPUSample& s : peer().gpu().samples()) busy.push_back(s.busy);
    EXPECT_EQ(busy, (std::vector<int64_t>{70, 90, 10, 30, 50}));
    EXPECT_EQ(log.count(line(site::kGpuNotStable, "GPU is not stable yet. Busy range:80")), 4);
    EXPECT_EQ(peer().snapshot().gpuStableCount, 0);
    EXPECT_EQ(phase(), PSM_GPU_PHASE_CHECKING);
}

// --- Phases

TEST_F(GpuMonitor, Phases_StableTicksStartEvaluationThenEveryTickDecides) {
    for (int busy : {40, 45, 50, 42}) tick(300, busy);
    EXPECT_EQ(peer().snapshot().gpuStableCount, 0);
    tick(300, 48);  // 40..50: range 10, at the threshold
    EXPECT_TRUE(log.contains(line(site::kGpuStable, "GPU is stable. Busy range:10")));
    EXPECT_EQ(peer().snapshot().gpuStableCount, 1);
    tick(300, 44);
    EXPECT_EQ(peer().snapshot().gpuStableCount, 2);
    EXPECT_EQ(phase(), PSM_GPU_PHASE_CHECKING);

    tick(300, 46);  // the third stable tick switches phase and decides nothing yet
    EXPECT_EQ(log.count(line(site::kGpuStableStartEvaluating,
                             "GPU behavior is stable. Start evaluating GPU status.")),
              1);
    EXPECT_EQ(phase(), PSM_GPU_PHASE_EVALUATING);
    EXPECT_EQ(log.countContaining("applyGpuProfile()"), 0);

    log.clear();
    tick(300, 90);  // evaluation no longer looks at stability
    EXPECT_EQ(log.countContaining("isGpuStable()"), 0);
    EXPECT_TRUE(log.contains(line(site::kAveragedFreq, "Averaged freq:300")));
}

TEST_F(GpuMonitor, Phases_AnUnstableTickRestartsTheStableCount) {
    for (int busy : {40, 45, 50, 42, 48, 44}) tick(300, busy);
    ASSERT_EQ(peer().snapshot().gpuStableCount, 2);
    tick(300, 90);  // 42..90
    EXPECT_TRUE(log.contains(line(site::kGpuNotStable, "GPU is not stable yet. Busy range:48")));
    EXPECT_EQ(peer().snapshot().gpuStableCount, 0);
    tick(300, 88);
    tick(300, 89);
    EXPECT_EQ(phase(), PSM_GPU_PHASE_CHECKING) << "two stable ticks after the reset are not three";
}

TEST_F(GpuMonitor, Phases_EvaluationAveragesAFullListOnly) {
    peer().gpu().setPhase(false, true);
    peer().gpu().setSamples({{100, 50}, {200, 50}, {300, 50}});
    tick(400, 50);  // four of five
    EXPECT_EQ(log.countContaining("Averaged freq"), 0);
    tick(500, 50);
    tick(1000, 50);  // 200 + 300 + 400 + 500 + 1000
    peer().gpu().setSamples({{1, 50}, {1, 50}, {1, 50}, {1, 50}});
    tick(2, 50);  // 6 / 5, truncated
    std::vector<std::string> messages = log.messages();
    messages.resize(10);  // the third differing decision goes on to switch
    EXPECT_EQ(messages, (std::vector<std::string>{
                                line(site::kMeasured, "Meastured freq:400, busy:50"),
                                line(site::kMeasured, "Meastured freq:500, busy:50"),
                                line(site::kAveragedFreq, "Averaged freq:300"),
                                line(site::kGpuModerate,
                                     "GPU is moderately utilized. Applying balanced profile."),
                                line(site::kMeasured, "Meastured freq:1000, busy:50"),
                                line(site::kAveragedFreq, "Averaged freq:480"),
                                line(site::kGpuModerate,
                                     "GPU is moderately utilized. Applying balanced profile."),
                                line(site::kMeasured, "Meastured freq:2, busy:50"),
                                line(site::kAveragedFreq, "Averaged freq:1"),
                                line(site::kGpuUnderutilized,
                                     "GPU is underutilized. Remaining power profile.")}));
}

TEST_F(GpuMonitor, InitGpuSamples_ResetsTheMonitorButNotTheChangeCount) {
    peer().gpu().setPhase(false, true);
    peer().gpu().setProfileLevel(2);
    for (int i = 0; i < 3; ++i) tick(300, 50);
    gGpuProfileChangeCount = 2;
    feature->initGpuSamples();
    const PSMFeatureSnapshot s = peer().snapshot();
    EXPECT_EQ(s.gpuPhase, PSM_GPU_PHASE_CHECKING);
    EXPECT_EQ(s.gpuStableCount, 0);
    EXPECT_EQ(s.gpuProfileLevel, 0);
    EXPECT_EQ(s.gpuSamples, 0);
    EXPECT_EQ(s.gameState, 0);
    EXPECT_EQ(gGpuProfileChangeCount, 2);
}

// --- Decision and switch

TEST_F(GpuMonitor, Decision_ThresholdsBoundTheModerateRangeInclusively) {
    const struct {
        unsigned long long avg;
        const pwr::LogSite& site;
        const char* text;
    } cases[] = {
            {299, site::kGpuUnderutilized, "GPU is underutilized. Remaining power profile."},
            {300, site::kGpuModerate, "GPU is moderately utilized. Applying balanced profile."},
            {600, site::kGpuModerate, "GPU is moderately utilized. Applying balanced profile."},
            {601, site::kGpuVeryHigh, "GPU is very highly utilized. Remaining power profile."},
            {1ULL << 40, site::kGpuVeryHigh,
             "GPU is very highly utilized. Remaining power profile."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.avg);
        log.clear();
        gGpuProfileChangeCount = 0;
        feature->applyGpuProfile(c.avg);
        EXPECT_EQ(log.messages(),
                  (std::vector<std::string>{
                          line(site::kAveragedFreq,
                               "Averaged freq:" + std::to_string(static_cast<int>(c.avg))),
                          line(c.site, c.text)}));
    }
    EXPECT_TRUE(acquiredLists().empty());
}

TEST_F(GpuMonitor, Decision_ThresholdsAreComparedSignExtended) {
    PowerOptFeatureInfo info = pwr::test::gpuMonitorConfig("2");
    info.configs["GPU_Freq_THRESHOLD_LOW"] = "-1";  // 2^64 - 1: every average is below it
    auto negative = makeFeature(info);
    log.clear();
    negative->applyGpuProfile(5000);
    EXPECT_TRUE(log.contains(
            line(site::kGpuUnderutilized, "GPU is underutilized. Remaining power profile.")));
}

// Decisions in a row, and the locks acquired, the level and the change count after them.
struct SwitchCase {
    const char* name;
    std::vector<unsigned long long> averages;
    Lists acquired;
    int level;
    int changeCount;
    friend void PrintTo(const SwitchCase& row, std::ostream* os) { *os << row.name; }
};

class GpuSwitch : public GpuMonitor, public ::testing::WithParamInterface<SwitchCase> {};

TEST_P(GpuSwitch, Sequence) {
    const SwitchCase& c = GetParam();
    for (unsigned long long avg : c.averages) feature->applyGpuProfile(avg);
    EXPECT_EQ(acquiredLists(), c.acquired);
    EXPECT_EQ(peer().snapshot().gpuProfileLevel, c.level);
    EXPECT_EQ(gGpuProfileChangeCount, c.changeCount);
    EXPECT_EQ(log.count(line(site::kReadyToChangeProfile, "Ready to change the profile.")),
              static_cast<int>(c.acquired.size()));
}

INSTANTIATE_TEST_SUITE_P(
        Decisions, GpuSwitch,
        ::testing::Values(SwitchCase{"TwoDoNotSwitch", {L, L}, {}, 0, 2},
                          SwitchCase{"ThirdSwitches", {L, L, L}, {kLow}, 2, 0},
                          SwitchCase{"AnyThreeSwitchToTheLast", {L, M, L}, {kLow}, 2, 0},
                          SwitchCase{"ThreeMixedEndingModerate", {L, L, M}, {kMid}, 1, 0},
                          SwitchCase{"TheLevelInForceResetsTheCount", {L, L, H, L, L}, {}, 0, 2},
                          SwitchCase{"SwitchThenBack", {L, L, L, H, H, H}, {kLow, kHigh}, 0, 0},
                          SwitchCase{"NewLevelDoesNotRetry", {M, M, M, M, M, M}, {kMid}, 1, 0}),
        [](const auto& info) { return std::string(info.param.name); });

TEST_F(GpuMonitor, Switch_LevelChangesEvenWhenTheLockIsRefused) {
    fakeperf::setAcquireFailure(true, -1);
    for (int i = 0; i < 3; ++i) feature->applyGpuProfile(L);
    EXPECT_EQ(peer().snapshot().gpuProfileLevel, 2);
    EXPECT_EQ(peer().profileLock().held(), -1);
    EXPECT_TRUE(
            log.contains(line(site::kProfileApplyFailed, "Failed to apply resource, handle = -1")));
}

TEST_F(GpuMonitor, Switch_ALevelWithoutAProfileOnlyReleases) {
    PowerOptFeatureInfo info = pwr::test::gpuMonitorConfig("2");
    info.profiles.erase("DYN_GPU_2_LOW");
    auto two = makeFeature(info);
    for (unsigned long long avg : {M, M, M, L, L, L}) two->applyGpuProfile(avg);
    EXPECT_TRUE(log.contains(
            line(site::kNoDynamicProfileForLevel, "No dynamic GPU profile for level 2")));
    EXPECT_EQ(PSMPowerOptFeatureTestPeer(*two).snapshot().gpuProfileLevel, 2);
    EXPECT_EQ(acquiredLists(), (Lists{kMid}));
    EXPECT_TRUE(fakeperf::heldLocks().empty());
}

// --- The game timer, on virtual time: a game start arms it, ticks switch as the GPU changes, a
// stop disarms it and gives the profile back.
TEST_F(GpuMonitor, GameTimer_SwitchesTheDynamicProfileAsTheGpuChanges) {
    fakeperf::setAppType(kGame, 2);
    PowerOptFeatureInfo info = pwr::test::gpuMonitorConfig("2");
    info.configs["GAME_TIMER"] = "10";
    info.configs["GPU_SAMPLE_COUNT"] = "3";
    info.configs["STABILITY_SAMPLE_COUNT"] = "2";
    feature = makeFeature(info);
    feature->sendEvents(event(kAppStart, std::string(kGame) + "/.Main"));

    // Three ticks fill the list, the list is stable at the third and fourth (evaluation starts),
    // and three decisions switch: at the seventh tick.
    clock.advance(9ms);
    EXPECT_EQ(peer().snapshot().gpuSamples, 0) << "the first tick comes after one period";
    clock.advance(51ms);
    EXPECT_TRUE(acquiredLists().empty());
    clock.advance(10ms);
    EXPECT_EQ(acquiredLists(), (Lists{kLow}));  // 200 MHz: underutilised

    setGpu(900, 48);
    clock.advance(5 * 10ms);  // three differing decisions switch, to the last: very high
    EXPECT_EQ(acquiredLists(), (Lists{kLow, kHigh}));

    feature->sendEvents(event(kAppStop, std::string(kGame) + "/.Main"));
    EXPECT_EQ(peer().snapshot().gameTimerArmed, 0);
    EXPECT_TRUE(fakeperf::heldLocks().empty());
}

}  // namespace
