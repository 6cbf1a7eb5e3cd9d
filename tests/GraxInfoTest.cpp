#include "platform/GraxInfo.h"

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/DeviceTree.h"

namespace {

using U64 = std::vector<uint64_t>;
using TimeMap = std::map<uint64_t, uint64_t>;

constexpr char kFreqs[] = "/sys/class/grax/grax-3d0/gpu_available_frequencies";
constexpr char kClockStats[] = "/sys/class/grax/grax-3d0/gpu_clock_stats";
constexpr char kBusy[] = "/sys/class/grax/grax-3d0/gpubusy";
constexpr char kClock[] = "/sys/class/grax/grax-3d0/gpuclk";

// A GPU with three levels, 100, 200 and 300 MHz (capacities 341, 682, 1024), whose clock
// statistics start at zero.
class GraxInfoTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tree.write(kFreqs, "300000000 200000000 100000000\n");
        tree.write(kClockStats, "0 0 0\n");
        tree.write(kBusy, "250 1000\n");
        tree.write(kClock, "200000000\n");
    }

    pwr::test::DeviceTree tree;
};

// The frequency and clock-statistics nodes at construction, and the tables built from them:
// frequencies ascending, capacities on a 0..1024 scale, times seeded from the statistics in file
// order against ascending frequencies (undivided, the last number unused).
TEST_F(GraxInfoTest, Construction_BuildsTheTablesOrStopsAtTheFirstFault) {
    const struct {
        const char* freqs;
        const char* stats;
        U64 freqTable;
        U64 capacities;
        TimeMap times;
        const char* dump;
    } cases[] = {
            {"300000000 200000000 100000000\n", "5000000 7000 9\n",
             U64{100000000, 200000000, 300000000}, U64{341, 682, 1024},
             TimeMap{{100000000, 5000000}, {200000000, 7000}},
             "100000000:341, 200000000:682, 300000000:1024,"},
            {"200 100", "1 2 3 4 5", U64{100, 200}, U64{512, 1024}, TimeMap{{100, 1}, {200, 2}},
             "100:512, 200:1024,"},
            {"500", "0 0", U64{500}, U64{1024}, TimeMap{{500, 0}}, "500:1024,"},
            {"0 0", "0 0", U64{0, 0}, U64{0, 0}, TimeMap{{0, 0}}, "0:0, 0:0,"},
            {"300 100", "5\n", U64{100, 300}, U64{}, TimeMap{}, ""},  // fewer than two stats
            {"300 100", nullptr, U64{100, 300}, U64{}, TimeMap{}, ""},
            {"\n", "0 0", U64{}, U64{}, TimeMap{}, ""},
            {nullptr, "0 0", U64{}, U64{}, TimeMap{}, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.freqs ? c.freqs : "<none>") + " / " +
                     (c.stats ? c.stats : "<none>"));
        tree.set(kFreqs, c.freqs);
        tree.set(kClockStats, c.stats);
        GraxInfo info;
        EXPECT_EQ(info.freqs(), c.freqTable);
        EXPECT_EQ(info.capacities(), c.capacities);
        EXPECT_EQ(info.timeInState(), c.times);
        EXPECT_EQ(info.DumpVector2String(), c.dump);
        EXPECT_EQ(info.GetMaxCapacity(),
                  c.capacities.empty() ? 0 : static_cast<int>(c.capacities.back()));
    }
    tree.set(kFreqs, nullptr);
    EXPECT_EQ(GraxInfo().InitFreqs(), -5);
    tree.set(kFreqs, "\n");
    EXPECT_EQ(GraxInfo().InitFreqs(), -22);
}

TEST_F(GraxInfoTest, GetAvgUtil_BusyPercentOfTotalOrAnError) {
    GraxInfo info;
    const std::pair<const char*, int> cases[] = {
            {"250 1000\n", 25},
            {"0 0\n", 0},
            {"999 1000", 99},
            {"4000000000 4000000000", 100},  // in 64 bits: busy * 100 overflows 32
            {"250\n", -22},
            {"1 2 3", -22},
            {"", -22},
            {"250 x", -5},
            {nullptr, -5},
    };
    for (const auto& [text, util] : cases) {
        tree.set(kBusy, text);
        EXPECT_EQ(info.GetAvgUtil(), util) << (text ? text : "<none>");
    }
}

// Statistics read in turn (highest frequency first, in ms after dividing by 1000) and the average
// capacity each read gives: capacity weighted by the time each level ran since the last read, an
// increment clamped at 10000, a counter that went backwards counting its whole value; an error
// leaves the cached average and the counters alone.
TEST_F(GraxInfoTest, GetAvgCapacity_WeightsCapacityByTimeSinceTheLastRead) {
    const struct {
        const char* name;
        const char* seed;
        std::vector<std::pair<const char*, int>> reads;
        int cached;
    } cases[] = {
            {"Weighted",
             "0 0 0",
             {{"3000000 1000000 0", (1024 * 3000 + 682 * 1000) / 4000},
              {"4000000 1000000 5000000", (1024 * 1000 + 341 * 5000) / 6000},
              {"4000000 1000000 5000000", 0}},
             0},
            {"Backwards", "0 0 0", {{"0 0 8000000", 341}, {"2000000 0 2000000", 682}}, 682},
            {"Clamped", "0 0 0", {{"50000000 0 10000000", (1024 + 341) / 2}}, 682},
            {"SeedPairedAscendingUndivided", "1000 0 0", {{"2000000 0 3000000", 682}}, 682},
            {"UndividedSeedLooksLikeAReset",
             "5000000 0 0",
             {{"2000000 0 6000000", (1024 * 2000 + 341 * 6000) / 8000}},
             (1024 * 2000 + 341 * 6000) / 8000},
            {"SixtyFourBit", "0 0 0", {{"8000000000 0 0", 1024}}, 1024},
            {"Errors",
             "0 0 0",
             {{"3000000 1000000 0", 938},
              {"7", -22},
              {"1 2 3 4", -22},
              {"1 2 three", -5},
              {nullptr, -5}},
             938},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        tree.set(kClockStats, c.seed);
        GraxInfo info;
        for (const auto& [stats, average] : c.reads) {
            tree.set(kClockStats, stats);
            EXPECT_EQ(info.GetAvgCapacity(false), average) << (stats ? stats : "<none>");
        }
        EXPECT_EQ(info.GetAvgCapacity(true), c.cached);
    }
}

TEST_F(GraxInfoTest, CurAndAverageFrequency) {
    GraxInfo info;
    EXPECT_EQ(info.GetCurFreq(), 200000000u);
    EXPECT_EQ(info.GetAvgFreq(), 200000000) << "no time passed: the current frequency";
    tree.write(kClockStats, "3000000 1000000 0");  // 938: the first level at or above is 300
    EXPECT_EQ(info.GetAvgFreq(), 300000000);
    tree.write(kClockStats, "3000000 1000000 1000000");  // only 100 MHz ran: 341
    EXPECT_EQ(info.GetAvgFreq(), 100000000);
    tree.remove(kClockStats);  // an error code finds no level: the highest frequency
    EXPECT_EQ(info.GetAvgFreq(), 300000000);
    const std::pair<const char*, uint64_t> clocks[] = {{"300000000 1 2", 300000000},
                                                       {"fast", static_cast<uint64_t>(-5)},
                                                       {nullptr, static_cast<uint64_t>(-5)}};
    for (const auto& [text, freq] : clocks) {
        tree.set(kClock, text);
        EXPECT_EQ(info.GetCurFreq(), freq);
    }
}

// Level look-ups on the three-level table and on tables of one and of no level: capacities and
// frequencies are searched from level 1 (level 0 only for a one-level table), the conversion from
// level 0, and levels are clamped into the table.
TEST_F(GraxInfoTest, LevelLookups) {
    GraxInfo info;
    const std::pair<int64_t, int64_t> threeLevels[] = {
            {info.GetLevelByFreq(0), 1},
            {info.GetLevelByFreq(200000000), 1},
            {info.GetLevelByFreq(200000001), 2},
            {info.GetLevelByCap(-5), 1},
            {info.GetLevelByCap(682), 1},
            {info.GetLevelByCap(683), 2},
            {info.ConvertCap2Freq(0), 100000000},
            {info.ConvertCap2Freq(341), 100000000},
            {info.ConvertCap2Freq(342), 200000000},
            {info.GetFreqByLevel(-1), 100000000},
            {info.GetFreqByLevel(1), 200000000},
            {info.GetFreqByLevel(99), 300000000},
            {info.GetCapByLevel(-7), 341},
            {info.GetCapByLevel(3), 1024},
    };
    for (size_t i = 0; i < std::size(threeLevels); ++i) {
        EXPECT_EQ(threeLevels[i].first, threeLevels[i].second) << "look-up " << i;
    }
    tree.write(kFreqs, "500");
    GraxInfo one;
    EXPECT_EQ(one.GetLevelByFreq(1), 0);
    EXPECT_EQ(one.GetLevelByCap(99999), 0);
    tree.write(kFreqs, "");
    GraxInfo none;
    for (int64_t level : {int64_t{none.GetLevelByFreq(1)}, int64_t{none.GetLevelByCap(1)},
                          none.ConvertCap2Freq(1), none.GetFreqByLevel(0), none.GetCapByLevel(0)}) {
        EXPECT_EQ(level, 0);
    }
}

TEST_F(GraxInfoTest, LimitsAreSetOnlyForExactlyMaxOrMin) {
    GraxInfo info;
    info.SetLimitFreqEnable(false, "max");
    info.SetLimitFreqPerfCode(0x40800000, "min");
    for (const char* other : {"Max", "maximum", "mi", "", "min "}) {
        info.SetLimitFreqEnable(false, other);
        info.SetLimitFreqPerfCode(7, other);
    }
    EXPECT_FALSE(info.maxLimitEnable());
    EXPECT_TRUE(info.minLimitEnable());
    EXPECT_EQ(info.minLimitPerfCode(), 0x40800000);
    EXPECT_EQ(info.maxLimitPerfCode(), 0);
}

}  // namespace
