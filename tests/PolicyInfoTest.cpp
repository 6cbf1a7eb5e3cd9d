#include "platform/PolicyInfo.h"

#include <functional>
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
        tree.write("/sys/devices/system/cpu/cpu5/cpu_capacity", "1\n");
    }

    pwr::test::DeviceTree tree;
};

// The policy's nodes at construction and the tables built from them: capacities scaled to the
// capacity of its lowest CPU; construction stops at the first step that fails.
TEST_F(PolicyInfoTest, Construction_BuildsTheTablesOrStopsAtTheFirstFault) {
    const struct {
        const char* node;
        const char* text;
        U64 freqs;
        U64 cpus;
        U64 capacities;
    } cases[] = {
            {kCapacity4, "1024\n", U64{300000, 1000000, 2000000}, U64{4, 5, 6, 7},
             U64{153, 512, 1024}},
            {kCapacity4, "512\n", U64{300000, 1000000, 2000000}, U64{4, 5, 6, 7},
             U64{76, 256, 512}},
            {kCapacity4, nullptr, U64{300000, 1000000, 2000000}, U64{4, 5, 6, 7}, U64{}},
            {kTimeInState, "300000\n", U64{300000, 1000000, 2000000}, U64{4, 5, 6, 7}, U64{}},
            {kCpus, nullptr, U64{300000, 1000000, 2000000}, U64{}, U64{}},
            {kFreqs, nullptr, U64{}, U64{}, U64{}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.node) + " = " + (c.text ? c.text : "<none>"));
        SetUp();
        tree.set(c.node, c.text);
        PolicyInfo policy(kPolicy);
        EXPECT_EQ(policy.policyName(), kPolicy);
        EXPECT_EQ(policy.freqs(), c.freqs);
        EXPECT_EQ(policy.cpus(), c.cpus);
        EXPECT_EQ(policy.capacities(), c.capacities);
        EXPECT_EQ(policy.GetMaxCapacity(),
                  c.capacities.empty() ? 0 : static_cast<int>(c.capacities.back()));
    }
    SetUp();
    tree.write(kCapacity4, "512\n");
    EXPECT_EQ(PolicyInfo(kPolicy).DumpVector2String(), "300000:76, 1000000:256, 2000000:512,");
    tree.remove(kCpus);
    EXPECT_EQ(PolicyInfo(kPolicy).InitCpus(), -5);
    tree.remove(kTimeInState);
    EXPECT_EQ(PolicyInfo(kPolicy).InitTimeInState(), -5);
    tree.remove(kFreqs);
    EXPECT_EQ(PolicyInfo(kPolicy).InitFreqs(), -5);
}

// /proc/stat snapshots in turn and the utilisation each gives: the mean over the policy's CPUs of
// busy (user, nice, system, irq, softirq) over busy plus idle and iowait since the previous
// snapshot; a counter that went backwards counts no time and becomes the new reference.
TEST_F(PolicyInfoTest, GetAvgUtil_AveragesThePolicysCpusBetweenSnapshots) {
    const struct {
        const char* name;
        std::vector<std::pair<Lines, int>> snapshots;
    } cases[] = {
            {"TwoCpus",
             {{{"cpu  9000 0 9000 9000 0 0 0 0 0 0", "cpu4 100 0 100 800 0 0 0 0 0 0",
                "cpu5 200 50 0 100 0 25 25 0 0 0", "cpu0 1000 0 0 0 0 0 0 0 0 0", "intr 1 2 3", ""},
               (20 + 75) / 2},
              {{"cpu4 100 0 100 800 0 0 0 0 0 0", "cpu5 300 50 0 200 0 25 25 0 0 0"},
               (0 + 50) / 2}}},
            {"Unmoved", {{{"cpu6 500 0 500 1000 0 0 0"}, 50}, {{"cpu6 500 0 500 1000 0 0 0"}, 0}}},
            {"ShortLinesAndOtherCpus",
             {{{"cpu4 1 2 3", "cpu2 5 0 0 5 0 0 0", "cpufreq 1"}, 0}, {{}, 0}}},
            {"Backwards",
             {{{"cpu7 500 0 0 500 0 0 0"}, 50},
              {{"cpu7 100 0 0 600 0 0 0"}, 0},
              {{"cpu7 400 0 0 700 0 0 0"}, 75}}},
    };
    for (const auto& c : cases) {
        PolicyInfo policy(kPolicy);
        for (const auto& [lines, util] : c.snapshots) {
            EXPECT_EQ(policy.GetAvgUtil(lines), util) << c.name;
        }
    }
    PolicyInfo policy(kPolicy);
    EXPECT_TRUE(policy.ReadProcStats().empty());
    EXPECT_EQ(policy.GetAvgUtil(), 0);
    tree.write(kProcStat, "cpu  1 1 1 1 1 1 1\ncpu4 30 0 0 70 0 0 0\nctxt 5\n");
    EXPECT_EQ(policy.ReadProcStats(),
              (Lines{"cpu  1 1 1 1 1 1 1", "cpu4 30 0 0 70 0 0 0", "ctxt 5", ""}));
    EXPECT_EQ(policy.GetAvgUtil(), 30);
}

// time_in_state read in turn, and the average capacity each read gives since the previous one
// (the first since construction): capacity by time, an increment clamped at 10000, a counter
// that went backwards counting its whole value, a frequency outside the table counting as
// capacity 0, a lone trailing number ignored.
TEST_F(PolicyInfoTest, GetAvgCapacity_WeightsCapacityByTimeSinceTheLastRead) {
    const struct {
        const char* name;
        std::vector<std::pair<const char*, int>> reads;
        int cached;
    } cases[] = {
            {"Weighted",
             {{"300000 1100\n1000000 200\n2000000 1300\n", (153 + 1024) / 2},
              {"300000 1100\n1000000 200\n2000000 1300\n", 0}},
             0},
            {"ClampedAndBackwards",
             {{"300000 100\n1000000 50\n2000000 50300\n", (512 * 50 + 1024 * 10000) / 10050}},
             (512 * 50 + 1024 * 10000) / 10050},
            {"UnknownFrequencyAndLoneNumber",
             {{"300000 200\n1500000 100\n7", 153 / 2}, {"1", -22}, {nullptr, -5}},
             153 / 2},
    };
    for (const auto& c : cases) {
        SetUp();
        PolicyInfo policy(kPolicy);
        for (const auto& [text, average] : c.reads) {
            tree.set(kTimeInState, text);
            EXPECT_EQ(policy.GetAvgCapacity(false), average) << c.name;
        }
        EXPECT_EQ(policy.GetAvgCapacity(true), c.cached) << c.name;
    }
}

TEST_F(PolicyInfoTest, GetTimeInState_AverageFrequencyOverItsOwnInterval) {
    PolicyInfo policy(kPolicy);
    tree.write(kTimeInState, "300000 200\n1000000 200\n2000000 400\n");
    EXPECT_DOUBLE_EQ(policy.GetTimeInState(), (300000.0 * 100 + 2000000.0 * 100) / 200);
    EXPECT_EQ(policy.timeInStateDelta(), (TimeMap{{300000, 100}, {1000000, 0}, {2000000, 100}}));
    EXPECT_DOUBLE_EQ(policy.GetTimeInState(), 0.0);
    // GetAvgCapacity keeps an interval of its own, from construction: +100 at 153, +300 at 512,
    // +100 at 1024; here only the 300 at 1000000 since the last call count.
    tree.write(kTimeInState, "300000 200\n1000000 500\n2000000 400\n");
    ASSERT_EQ(policy.GetAvgCapacity(false), (153 * 100 + 512 * 300 + 1024 * 100) / 500);
    EXPECT_DOUBLE_EQ(policy.GetTimeInState(), 1000000.0);
    tree.write(kTimeInState, "5");
    EXPECT_DOUBLE_EQ(policy.GetTimeInState(), -22.0);
    tree.remove(kTimeInState);
    EXPECT_DOUBLE_EQ(policy.GetTimeInState(), -5.0);
}

TEST_F(PolicyInfoTest, CurAndAverageFrequency) {
    PolicyInfo policy(kPolicy);
    EXPECT_EQ(policy.GetCurFreq(), 1000000u);
    EXPECT_EQ(policy.GetAvgFreq(), 1000000) << "no time passed: the current frequency";
    tree.write(kTimeInState, "300000 900\n1000000 200\n2000000 300\n");  // 153: level 0
    EXPECT_EQ(policy.GetAvgFreq(), 300000);
    tree.remove(kCurFreq);
    EXPECT_EQ(policy.GetCurFreq(), static_cast<uint64_t>(-5));
}

TEST_F(PolicyInfoTest, LookupsAndLimits) {
    PolicyInfo policy(kPolicy);
    const std::pair<int64_t, int64_t> cases[] = {
            {policy.IsCpuInPolicy(4), 0},           {policy.IsCpuInPolicy(7), 3},
            {policy.IsCpuInPolicy(0), -1},          {policy.IsCpuInPolicy(8), -1},
            {policy.GetLevelByFreq(300000), 1},     {policy.GetLevelByFreq(1000001), 2},
            {policy.GetLevelByCap(-1), 1},          {policy.ConvertCap2Freq(153), 300000},
            {policy.ConvertCap2Freq(154), 1000000}, {policy.GetFreqByLevel(-3), 300000},
            {policy.GetCapByLevel(9), 1024},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_EQ(cases[i].first, cases[i].second) << "look-up " << i;
    }
    policy.SetLimitFreqEnable(false, "min");
    policy.SetLimitFreqPerfCode(3, "max");
    policy.SetLimitFreqPerfCode(4, "MIN");
    EXPECT_FALSE(policy.minLimitEnable());
    EXPECT_TRUE(policy.maxLimitEnable());
    EXPECT_EQ(policy.maxLimitPerfCode(), 3);
    EXPECT_EQ(policy.minLimitPerfCode(), 0);
}

}  // namespace
