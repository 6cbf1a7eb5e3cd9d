#include "platform/GraxInfo.h"

#include <map>
#include <string>
#include <thread>
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

constexpr uint64_t kReadError = static_cast<uint64_t>(-5);

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

TEST_F(GraxInfoTest, InitCapacity_ScalesTo1024) {
    GraxInfo info;
    EXPECT_EQ(info.freqs(), (U64{100000000, 200000000, 300000000}));
    EXPECT_EQ(info.capacities(), (U64{341, 682, 1024}));
    EXPECT_EQ(info.GetMaxCapacity(), 1024);
    EXPECT_EQ(info.DumpVector2String(), "100000000:341, 200000000:682, 300000000:1024,");
}

TEST_F(GraxInfoTest, DumpVector2String_KeepsTheFinalComma) {
    tree.write(kFreqs, "200 100");
    GraxInfo info;
    EXPECT_EQ(info.DumpVector2String(), "100:512, 200:1024,");
}

TEST_F(GraxInfoTest, InitFreqs_MissingOrEmptyNodeLeavesEverythingEmpty) {
    tree.remove(kFreqs);
    GraxInfo missing;
    EXPECT_TRUE(missing.freqs().empty());
    EXPECT_TRUE(missing.capacities().empty());
    EXPECT_TRUE(missing.timeInState().empty());
    EXPECT_EQ(missing.InitFreqs(), -5);
    EXPECT_EQ(missing.DumpVector2String(), "");
    EXPECT_EQ(missing.GetMaxCapacity(), 0);

    tree.write(kFreqs, "\n");
    GraxInfo empty;
    EXPECT_EQ(empty.InitFreqs(), -22);
    EXPECT_TRUE(empty.capacities().empty());
}

TEST_F(GraxInfoTest, Constructor_StopsWhenTimeInStateCannotBeSeeded) {
    tree.write(kClockStats, "5\n");  // fewer than two numbers
    GraxInfo info;
    EXPECT_EQ(info.freqs().size(), 3u);
    EXPECT_TRUE(info.capacities().empty());
    EXPECT_EQ(info.InitTimeInState(), -22);
    tree.remove(kClockStats);
    EXPECT_EQ(info.InitTimeInState(), -5);
}

TEST_F(GraxInfoTest, InitTimeInState_PairsFileOrderWithAscendingFrequencyUndivided) {
    tree.write(kClockStats, "5000000 7000 9\n");
    GraxInfo info;
    // The last number is not used, and the values are kept as read.
    EXPECT_EQ(info.timeInState(), (TimeMap{{100000000, 5000000}, {200000000, 7000}}));
}

TEST_F(GraxInfoTest, InitTimeInState_SeedsOnlyLevelsTheTableHas) {
    tree.write(kFreqs, "100 200");
    tree.write(kClockStats, "1 2 3 4 5");
    GraxInfo info;
    EXPECT_EQ(info.timeInState(), (TimeMap{{100, 1}, {200, 2}}));
}

TEST_F(GraxInfoTest, GetAvgUtil_BusyOverTotal) {
    GraxInfo info;
    EXPECT_EQ(info.GetAvgUtil(), 25);
    tree.write(kBusy, "0 0\n");
    EXPECT_EQ(info.GetAvgUtil(), 0);
    tree.write(kBusy, "999 1000");
    EXPECT_EQ(info.GetAvgUtil(), 99);  // truncated
    // Computed in 64 bits: busy * 100 would overflow 32.
    tree.write(kBusy, "4000000000 4000000000");
    EXPECT_EQ(info.GetAvgUtil(), 100);
}

TEST_F(GraxInfoTest, GetAvgUtil_WrongCountOrUnreadable) {
    GraxInfo info;
    tree.write(kBusy, "250\n");
    EXPECT_EQ(info.GetAvgUtil(), -22);
    tree.write(kBusy, "1 2 3");
    EXPECT_EQ(info.GetAvgUtil(), -22);
    tree.write(kBusy, "");
    EXPECT_EQ(info.GetAvgUtil(), -22);
    tree.write(kBusy, "250 x");
    EXPECT_EQ(info.GetAvgUtil(), -5);
    tree.remove(kBusy);
    EXPECT_EQ(info.GetAvgUtil(), -5);
}

TEST_F(GraxInfoTest, GetAvgCapacity_WeightsCapacityByTimeHighestFrequencyFirst) {
    GraxInfo info;
    // 3000 ms at 300 MHz (1024), 1000 ms at 200 MHz (682): (3072000 + 682000) / 4000.
    tree.write(kClockStats, "3000000 1000000 0");
    EXPECT_EQ(info.GetAvgCapacity(false), 938);
    EXPECT_EQ(info.GetAvgCapacity(true), 938);
    // Increments since the previous call: 1000 at 300 MHz, 5000 at 100 MHz (341).
    tree.write(kClockStats, "4000000 1000000 5000000");
    EXPECT_EQ(info.GetAvgCapacity(false), (1024 * 1000 + 341 * 5000) / 6000);
    EXPECT_EQ(info.timeInState(),
              (TimeMap{{100000000, 5000}, {200000000, 1000}, {300000000, 4000}}));
}

TEST_F(GraxInfoTest, GetAvgCapacity_CounterGoingBackwardsCountsItsWholeValue) {
    GraxInfo info;
    tree.write(kClockStats, "0 0 8000000");
    ASSERT_EQ(info.GetAvgCapacity(false), 341);
    // 100 MHz fell from 8000 to 2000 (a reset: 2000 counts), 300 MHz rose by 2000.
    tree.write(kClockStats, "2000000 0 2000000");
    EXPECT_EQ(info.GetAvgCapacity(false), (1024 * 2000 + 341 * 2000) / 4000);
}

TEST_F(GraxInfoTest, GetAvgCapacity_ClampsOneIncrementAt10000) {
    GraxInfo info;
    // 300 MHz ran 50000 ms, counted as 10000; 100 MHz ran 10000.
    tree.write(kClockStats, "50000000 0 10000000");
    EXPECT_EQ(info.GetAvgCapacity(false), (1024 * 10000 + 341 * 10000) / 20000);
}

TEST_F(GraxInfoTest, GetAvgCapacity_FirstAverageStartsFromTheSeedAsPaired) {
    // The seed gives 100 MHz (the first number, paired with the lowest frequency) 1000, kept
    // undivided; the first average then reads 3000 for 100 MHz and 2000 for 300 MHz.
    tree.write(kClockStats, "1000 0 0");
    GraxInfo info;
    tree.write(kClockStats, "2000000 0 3000000");
    EXPECT_EQ(info.GetAvgCapacity(false), (1024 * 2000 + 341 * 2000) / 4000);
}

TEST_F(GraxInfoTest, GetAvgCapacity_UndividedSeedLooksLikeAReset) {
    // 5000000 seeded raw is above the 6000 the first average reads (divided), so the whole 6000
    // counts, next to 2000 at 300 MHz.
    tree.write(kClockStats, "5000000 0 0");
    GraxInfo info;
    tree.write(kClockStats, "2000000 0 6000000");
    EXPECT_EQ(info.GetAvgCapacity(false), (1024 * 2000 + 341 * 6000) / 8000);
}

TEST_F(GraxInfoTest, GetAvgCapacity_NoTimePassedGivesZero) {
    GraxInfo info;
    EXPECT_EQ(info.GetAvgCapacity(false), 0);
    EXPECT_EQ(info.GetAvgCapacity(true), 0);
}

TEST_F(GraxInfoTest, GetAvgCapacity_ErrorsLeaveCacheAndCountersUnchanged) {
    GraxInfo info;
    tree.write(kClockStats, "3000000 1000000 0");
    ASSERT_EQ(info.GetAvgCapacity(false), 938);
    const TimeMap before = info.timeInState();

    tree.write(kClockStats, "7");
    EXPECT_EQ(info.GetAvgCapacity(false), -22);
    tree.write(kClockStats, "1 2 3 4");  // more values than levels
    EXPECT_EQ(info.GetAvgCapacity(false), -22);
    tree.write(kClockStats, "1 2 three");
    EXPECT_EQ(info.GetAvgCapacity(false), -5);
    tree.remove(kClockStats);
    EXPECT_EQ(info.GetAvgCapacity(false), -5);

    EXPECT_EQ(info.GetAvgCapacity(true), 938);
    EXPECT_EQ(info.timeInState(), before);
}

TEST_F(GraxInfoTest, GetAvgCapacity_Accepts64BitCounters) {
    GraxInfo info;
    // Beyond 32 bits: read with the 64-bit reader.
    tree.write(kClockStats, "8000000000 0 0");
    EXPECT_EQ(info.GetAvgCapacity(false), 1024);
}

TEST_F(GraxInfoTest, GetCurFreq_FirstNumberOrReadError) {
    GraxInfo info;
    EXPECT_EQ(info.GetCurFreq(), 200000000u);
    tree.write(kClock, "300000000 1 2");
    EXPECT_EQ(info.GetCurFreq(), 300000000u);
    tree.write(kClock, "fast");
    EXPECT_EQ(info.GetCurFreq(), kReadError);
    tree.remove(kClock);
    EXPECT_EQ(info.GetCurFreq(), kReadError);
}

TEST_F(GraxInfoTest, GetAvgFreq_FrequencyOfTheAverageCapacity) {
    GraxInfo info;
    // No time passed: the current frequency.
    EXPECT_EQ(info.GetAvgFreq(), 200000000);
    // Average 938: the first level at or above it is 300 MHz.
    tree.write(kClockStats, "3000000 1000000 0");
    EXPECT_EQ(info.GetAvgFreq(), 300000000);
    // Only 100 MHz ran: 341, level 0.
    tree.write(kClockStats, "3000000 1000000 1000000");
    EXPECT_EQ(info.GetAvgFreq(), 100000000);
    // An error code finds no level: the highest frequency.
    tree.remove(kClockStats);
    EXPECT_EQ(info.GetAvgFreq(), 300000000);
}

TEST_F(GraxInfoTest, ConvertCap2Freq_FirstLevelAtOrAboveFromLevelZero) {
    GraxInfo info;
    EXPECT_EQ(info.ConvertCap2Freq(0), 100000000);
    EXPECT_EQ(info.ConvertCap2Freq(341), 100000000);
    EXPECT_EQ(info.ConvertCap2Freq(342), 200000000);
    EXPECT_EQ(info.ConvertCap2Freq(1024), 300000000);
    EXPECT_EQ(info.ConvertCap2Freq(5000), 300000000);
}

TEST_F(GraxInfoTest, GetLevelByFreq_ScanStartsAtLevelOne) {
    GraxInfo info;
    EXPECT_EQ(info.GetLevelByFreq(100000000), 1);  // the lowest frequency is still level 1
    EXPECT_EQ(info.GetLevelByFreq(0), 1);
    EXPECT_EQ(info.GetLevelByFreq(200000000), 1);
    EXPECT_EQ(info.GetLevelByFreq(200000001), 2);
    EXPECT_EQ(info.GetLevelByFreq(999999999), 2);
}

TEST_F(GraxInfoTest, GetLevelByCap_NegativeCountsAsZero) {
    GraxInfo info;
    EXPECT_EQ(info.GetLevelByCap(-5), 1);
    EXPECT_EQ(info.GetLevelByCap(682), 1);
    EXPECT_EQ(info.GetLevelByCap(683), 2);
    EXPECT_EQ(info.GetLevelByCap(4096), 2);
}

TEST_F(GraxInfoTest, Levels_SmallTables) {
    tree.write(kFreqs, "500");
    GraxInfo one;
    EXPECT_EQ(one.capacities(), (U64{1024}));
    EXPECT_EQ(one.GetLevelByFreq(1), 0);
    EXPECT_EQ(one.GetLevelByCap(99999), 0);

    tree.remove(kFreqs);
    GraxInfo none;
    EXPECT_EQ(none.GetLevelByFreq(1), 0);
    EXPECT_EQ(none.GetLevelByCap(1), 0);
    EXPECT_EQ(none.ConvertCap2Freq(1), 0);
    EXPECT_EQ(none.GetFreqByLevel(0), 0);
    EXPECT_EQ(none.GetCapByLevel(0), 0);
}

TEST_F(GraxInfoTest, GetFreqAndCapByLevel_ClampIntoTheTable) {
    GraxInfo info;
    EXPECT_EQ(info.GetFreqByLevel(-1), 100000000);
    EXPECT_EQ(info.GetFreqByLevel(1), 200000000);
    EXPECT_EQ(info.GetFreqByLevel(99), 300000000);
    EXPECT_EQ(info.GetCapByLevel(-7), 341);
    EXPECT_EQ(info.GetCapByLevel(2), 1024);
    EXPECT_EQ(info.GetCapByLevel(3), 1024);
}

TEST_F(GraxInfoTest, InitCapacity_AllZeroTableHasNoScale) {
    tree.write(kFreqs, "0 0");
    GraxInfo info;
    EXPECT_EQ(info.capacities(), (U64{0, 0}));
}

TEST_F(GraxInfoTest, SetLimits_OnlyExactMaxOrMin) {
    GraxInfo info;
    info.SetLimitFreqEnable(false, "max");
    info.SetLimitFreqPerfCode(0x40800000, "min");
    EXPECT_FALSE(info.maxLimitEnable());
    EXPECT_TRUE(info.minLimitEnable());
    EXPECT_EQ(info.minLimitPerfCode(), 0x40800000);
    EXPECT_EQ(info.maxLimitPerfCode(), 0);

    for (const char* other : {"Max", "maximum", "mi", "", "min "}) {
        info.SetLimitFreqEnable(false, other);
        info.SetLimitFreqPerfCode(7, other);
    }
    EXPECT_TRUE(info.minLimitEnable());
    EXPECT_EQ(info.minLimitPerfCode(), 0x40800000);
    EXPECT_EQ(info.maxLimitPerfCode(), 0);
}

TEST(GraxInfo, GetInstance_OneInstanceForAllThreads) {
    GraxInfo* fromThread = nullptr;
    std::thread other([&] { fromThread = GraxInfo::getInstance(); });
    GraxInfo* here = GraxInfo::getInstance();
    other.join();
    EXPECT_NE(here, nullptr);
    EXPECT_EQ(here, fromThread);
    EXPECT_EQ(GraxInfo::getInstance(), here);
}

}  // namespace
