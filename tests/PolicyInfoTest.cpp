#include "platform/PolicyInfo.h"

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/DeviceTree.h"

namespace {

using U64 = std::vector<uint64_t>;
using Lines = std::vector<std::string>;
using TimeMap = std::map<uint64_t, uint64_t>;

constexpr char kPolicy[] = "policy4";
constexpr char kFreqs[] = "/sys/devices/system/cpu/cpufreq/policy4/scaling_available_frequencies";
constexpr char kCpus[] = "/sys/devices/system/cpu/cpufreq/policy4/related_cpus";
constexpr char kCurFreq[] = "/sys/devices/system/cpu/cpufreq/policy4/scaling_cur_freq";
constexpr char kTimeInState[] = "/sys/devices/system/cpu/cpufreq/policy4/stats/time_in_state";
constexpr char kCapacity4[] = "/sys/devices/system/cpu/cpu4/cpu_capacity";
constexpr char kCapacity5[] = "/sys/devices/system/cpu/cpu5/cpu_capacity";
constexpr char kProcStat[] = "/proc/stat";

// A four-CPU policy (CPUs 4 to 7) with three frequencies in kHz; CPU 4's capacity is 1024.
class PolicyInfoTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tree.write(kFreqs, "2000000 300000 1000000 \n");
        tree.write(kCpus, "7 4 6 5\n");
        tree.write(kCurFreq, "1000000\n");
        tree.write(kTimeInState, "300000 100\n1000000 200\n2000000 300\n");
        tree.write(kCapacity4, "1024\n");
        tree.write(kCapacity5, "1\n");
    }

    pwr::test::DeviceTree tree;
};

TEST_F(PolicyInfoTest, InitCapacity_ScalesToTheLowestCpusCapacity) {
    PolicyInfo policy(kPolicy);
    EXPECT_EQ(policy.policyName(), kPolicy);
    EXPECT_EQ(policy.cpus(), (U64{4, 5, 6, 7}));
    EXPECT_EQ(policy.freqs(), (U64{300000, 1000000, 2000000}));
    EXPECT_EQ(policy.capacities(), (U64{153, 512, 1024}));
    EXPECT_EQ(policy.GetMaxCapacity(), 1024);

    tree.write(kCapacity4, "512\n");
    PolicyInfo little(kPolicy);
    EXPECT_EQ(little.capacities(), (U64{76, 256, 512}));
    EXPECT_EQ(little.GetMaxCapacity(), 512);
    EXPECT_EQ(little.DumpVector2String(), "300000:76, 1000000:256, 2000000:512,");
}

TEST_F(PolicyInfoTest, Constructor_StopsAtTheFirstFailingStep) {
    tree.remove(kCpus);
    PolicyInfo noCpus(kPolicy);
    EXPECT_EQ(noCpus.freqs().size(), 3u);
    EXPECT_TRUE(noCpus.cpus().empty());
    EXPECT_TRUE(noCpus.capacities().empty());
    EXPECT_EQ(noCpus.InitCpus(), -5);
    EXPECT_EQ(noCpus.InitCapacity(), -22);

    tree.write(kCpus, "\n");
    PolicyInfo emptyCpus(kPolicy);
    EXPECT_EQ(emptyCpus.InitCpus(), -22);
    EXPECT_TRUE(emptyCpus.capacities().empty());

    tree.write(kCpus, "4 5");
    tree.write(kTimeInState, "300000\n");
    PolicyInfo shortStats(kPolicy);
    EXPECT_EQ(shortStats.cpus(), (U64{4, 5}));
    EXPECT_TRUE(shortStats.capacities().empty());
    EXPECT_EQ(shortStats.InitTimeInState(), -22);
    tree.remove(kTimeInState);
    EXPECT_EQ(shortStats.InitTimeInState(), -5);

    tree.remove(kFreqs);
    PolicyInfo noFreqs(kPolicy);
    EXPECT_TRUE(noFreqs.freqs().empty());
    EXPECT_TRUE(noFreqs.cpus().empty());
    EXPECT_EQ(noFreqs.InitFreqs(), -5);
}

TEST_F(PolicyInfoTest, InitCapacity_NeedsTheCpusCapacity) {
    tree.remove(kCapacity4);
    PolicyInfo policy(kPolicy);
    EXPECT_TRUE(policy.capacities().empty());
    EXPECT_EQ(policy.InitCapacity(), -5);
    tree.write(kCapacity4, "");
    EXPECT_EQ(policy.InitCapacity(), -5);
}

TEST_F(PolicyInfoTest, IsCpuInPolicy_IndexInTheSortedList) {
    PolicyInfo policy(kPolicy);
    EXPECT_EQ(policy.IsCpuInPolicy(4), 0);
    EXPECT_EQ(policy.IsCpuInPolicy(7), 3);
    EXPECT_EQ(policy.IsCpuInPolicy(0), -1);
    EXPECT_EQ(policy.IsCpuInPolicy(8), -1);
}

TEST_F(PolicyInfoTest, GetAvgUtil_AveragesThePolicysCpusBetweenSnapshots) {
    PolicyInfo policy(kPolicy);
    const Lines first = {
            "cpu  9000 0 9000 9000 0 0 0 0 0 0",  // the aggregate line
            "cpu4 100 0 100 800 0 0 0 0 0 0",     // busy 200 of 1000: 20
            "cpu5 200 50 0 100 0 25 25 0 0 0",    // busy 300 of 400: 75
            "cpu0 1000 0 0 0 0 0 0 0 0 0",        // outside the policy
            "intr 1 2 3",
            "",
    };
    EXPECT_EQ(policy.GetAvgUtil(first), (20 + 75) / 2);

    const Lines second = {
            "cpu4 100 0 100 800 0 0 0 0 0 0",   // did not move: 0
            "cpu5 300 50 0 200 0 25 25 0 0 0",  // +100 busy, +100 idle: 50
    };
    EXPECT_EQ(policy.GetAvgUtil(second), (0 + 50) / 2);
}

TEST_F(PolicyInfoTest, GetAvgUtil_UnmovedCountersGiveZero) {
    PolicyInfo policy(kPolicy);
    const Lines snapshot = {"cpu6 500 0 500 1000 0 0 0"};
    ASSERT_EQ(policy.GetAvgUtil(snapshot), 50);
    EXPECT_EQ(policy.GetAvgUtil(snapshot), 0);
}

TEST_F(PolicyInfoTest, GetAvgUtil_SkipsShortLinesAndOtherCpus) {
    PolicyInfo policy(kPolicy);
    EXPECT_EQ(policy.GetAvgUtil(Lines{"cpu4 1 2 3", "cpu2 5 0 0 5 0 0 0", "cpufreq 1"}), 0);
    EXPECT_EQ(policy.GetAvgUtil(Lines{}), 0);
}

TEST_F(PolicyInfoTest, GetAvgUtil_CountersGoingBackwardsCountAsNoTime) {
    PolicyInfo policy(kPolicy);
    ASSERT_EQ(policy.GetAvgUtil(Lines{"cpu7 500 0 0 500 0 0 0"}), 50);
    // user fell (not counted), idle rose by 100: 0% busy.
    EXPECT_EQ(policy.GetAvgUtil(Lines{"cpu7 100 0 0 600 0 0 0"}), 0);
    // The fallen value is now the reference: +300 busy, +100 idle.
    EXPECT_EQ(policy.GetAvgUtil(Lines{"cpu7 400 0 0 700 0 0 0"}), 75);
}

TEST_F(PolicyInfoTest, ReadProcStats_LinesOfTheNode) {
    PolicyInfo policy(kPolicy);
    EXPECT_TRUE(policy.ReadProcStats().empty());
    EXPECT_EQ(policy.GetAvgUtil(), 0);

    tree.write(kProcStat, "cpu  1 1 1 1 1 1 1\ncpu4 30 0 0 70 0 0 0\nctxt 5\n");
    EXPECT_EQ(policy.ReadProcStats(),
              (Lines{"cpu  1 1 1 1 1 1 1", "cpu4 30 0 0 70 0 0 0", "ctxt 5", ""}));
    EXPECT_EQ(policy.GetAvgUtil(), 30);
}

TEST_F(PolicyInfoTest, GetAvgCapacity_WeightsPairsSinceTheSeed) {
    PolicyInfo policy(kPolicy);
    // +1000 at 300000 (153), +1000 at 2000000 (1024), since construction; times used as read.
    tree.write(kTimeInState, "300000 1100\n1000000 200\n2000000 1300\n");
    EXPECT_EQ(policy.GetAvgCapacity(false), (153 * 1000 + 1024 * 1000) / 2000);
    EXPECT_EQ(policy.GetAvgCapacity(true), (153 * 1000 + 1024 * 1000) / 2000);
    // Nothing moved.
    EXPECT_EQ(policy.GetAvgCapacity(false), 0);
}

TEST_F(PolicyInfoTest, GetAvgCapacity_ClampsAndRestartsCounters) {
    PolicyInfo policy(kPolicy);
    // 2000000 ran 50000 (counted 10000); 1000000 went backwards to 50 (counts 50).
    tree.write(kTimeInState, "300000 100\n1000000 50\n2000000 50300\n");
    EXPECT_EQ(policy.GetAvgCapacity(false), (512 * 50 + 1024 * 10000) / 10050);
}

TEST_F(PolicyInfoTest, GetAvgCapacity_IgnoresALoneTrailingNumberAndCountsUnknownFrequencies) {
    PolicyInfo policy(kPolicy);
    // 300000 +100; 1500000 is not in the table (capacity 0) but its 100 counts as time; 7 has no
    // pair.
    tree.write(kTimeInState, "300000 200\n1500000 100\n7");
    EXPECT_EQ(policy.GetAvgCapacity(false), (153 * 100 + 0 * 100) / 200);
    tree.write(kTimeInState, "1");
    EXPECT_EQ(policy.GetAvgCapacity(false), -22);
    tree.remove(kTimeInState);
    EXPECT_EQ(policy.GetAvgCapacity(false), -5);
    EXPECT_EQ(policy.GetAvgCapacity(true), (153 * 100) / 200);
}

TEST_F(PolicyInfoTest, GetTimeInState_AverageFrequencyOverTheInterval) {
    PolicyInfo policy(kPolicy);
    tree.write(kTimeInState, "300000 200\n1000000 200\n2000000 400\n");
    EXPECT_DOUBLE_EQ(policy.GetTimeInState(), (300000.0 * 100 + 2000000.0 * 100) / 200);
    EXPECT_EQ(policy.timeInStateDelta(), (TimeMap{{300000, 100}, {1000000, 0}, {2000000, 100}}));

    // Nothing moved since the previous call.
    EXPECT_DOUBLE_EQ(policy.GetTimeInState(), 0.0);
    EXPECT_EQ(policy.timeInStateDelta(), (TimeMap{{300000, 0}, {1000000, 0}, {2000000, 0}}));
}

TEST_F(PolicyInfoTest, GetTimeInState_KeepsItsOwnIntervalBesideGetAvgCapacity) {
    PolicyInfo policy(kPolicy);
    tree.write(kTimeInState, "300000 100\n1000000 500\n2000000 300\n");
    ASSERT_EQ(policy.GetAvgCapacity(false), 512);
    // GetAvgCapacity consumed its own interval only: all 300 still count here.
    EXPECT_DOUBLE_EQ(policy.GetTimeInState(), 1000000.0);
}

TEST_F(PolicyInfoTest, GetTimeInState_Errors) {
    PolicyInfo policy(kPolicy);
    tree.write(kTimeInState, "5");
    EXPECT_DOUBLE_EQ(policy.GetTimeInState(), -22.0);
    tree.remove(kTimeInState);
    EXPECT_DOUBLE_EQ(policy.GetTimeInState(), -5.0);
}

TEST_F(PolicyInfoTest, GetCurAndAvgFreq) {
    PolicyInfo policy(kPolicy);
    EXPECT_EQ(policy.GetCurFreq(), 1000000u);
    // No time passed since the seed: the current frequency.
    EXPECT_EQ(policy.GetAvgFreq(), 1000000);
    // Only 300000 ran: capacity 153, level 0.
    tree.write(kTimeInState, "300000 900\n1000000 200\n2000000 300\n");
    EXPECT_EQ(policy.GetAvgFreq(), 300000);

    tree.remove(kCurFreq);
    EXPECT_EQ(policy.GetCurFreq(), static_cast<uint64_t>(-5));
}

TEST_F(PolicyInfoTest, LevelsAndLimits) {
    PolicyInfo policy(kPolicy);
    EXPECT_EQ(policy.GetLevelByFreq(300000), 1);
    EXPECT_EQ(policy.GetLevelByFreq(1000001), 2);
    EXPECT_EQ(policy.GetLevelByCap(-1), 1);
    EXPECT_EQ(policy.ConvertCap2Freq(153), 300000);
    EXPECT_EQ(policy.GetFreqByLevel(-3), 300000);
    EXPECT_EQ(policy.GetCapByLevel(9), 1024);

    policy.SetLimitFreqEnable(false, "min");
    policy.SetLimitFreqPerfCode(3, "max");
    policy.SetLimitFreqPerfCode(4, "MIN");
    EXPECT_FALSE(policy.minLimitEnable());
    EXPECT_TRUE(policy.maxLimitEnable());
    EXPECT_EQ(policy.maxLimitPerfCode(), 3);
    EXPECT_EQ(policy.minLimitPerfCode(), 0);
}

}  // namespace
