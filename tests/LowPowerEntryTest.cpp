// Low-power entry (usable power mode hint of type 3): the deep-mode timer, and the switch
// recorded under "PSM" in the state store.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "feature/PSMPowerOptFeature.h"
#include "host/fakeperf/FakePerf.h"
#include "tests/support/DeepModeConfig.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/FeatureFactory.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestConfig.h"
#include "tests/support/ThreadTimers.h"

namespace {

using pwr::test::deepModeConfig;
using pwr::test::DeviceTree;
using pwr::test::FeatureHandle;
using pwr::test::LogCapture;
using pwr::test::powerModeHint;
using pwr::test::propertyValue;
using pwr::test::setProperty;

// The POSIX timers this process holds (the test program provides the timer calls).
int processTimers() {
    return pwr::test::liveTimers();
}

class LowPowerEntry : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeperf::reset();
        tree.mkdirs(pwr::test::kStoreDirectory);
    }

    DeviceTree tree;
    LogCapture log;
};

TEST_F(LowPowerEntry, DeepModeOnArmsTheDeepTimer) {
    FeatureHandle feature(deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    peer.setDebugEnabled(true);

    feature->sendEvents(powerModeHint(3));

    ASSERT_NE(peer.deep().timers().first, nullptr);
    EXPECT_EQ(peer.deep().timers().second, peer.deep().timers().first);
    EXPECT_TRUE(Timer().Timer_isActive(peer.deep().timers().first));
    EXPECT_EQ(log.count("PSMPOWEROPT: lowPowerInit() 1087: Timer started \n"), 1)
            << ::testing::PrintToString(log.messages());
    EXPECT_EQ(log.countContaining("Timer couldn't be started"), 0);
    EXPECT_EQ(peer.psmMode(), 0) << "low-power entry leaves the PSM mode alone";
}

// Each entry creates and arms a new timer; the earlier one is deleted, so the feature never
// holds more than one deep-mode timer.
TEST_F(LowPowerEntry, EnteringTwiceReplacesTheTimer) {
    FeatureHandle feature(deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    peer.setDebugEnabled(true);
    const int before = processTimers();
    ASSERT_GE(before, 1) << "the battery timer";

    feature->sendEvents(powerModeHint(3));
    EXPECT_EQ(processTimers(), before + 1);
    feature->sendEvents(powerModeHint(3));
    EXPECT_EQ(processTimers(), before + 1);

    EXPECT_TRUE(Timer().Timer_isActive(peer.deep().timers().first));
    EXPECT_EQ(log.count("PSMPOWEROPT: lowPowerInit() 1087: Timer started \n"), 2);
    feature.reset();
    EXPECT_EQ(processTimers(), before - 1) << "the destructor deletes what is left";
}

TEST_F(LowPowerEntry, DeepModeOffArmsNothingAndTouchesNoProperty) {
    FeatureHandle feature(pwr::test::minimalConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    peer.setDebugEnabled(true);
    setProperty("vendor.pwr.sync", "8");

    feature->sendEvents(powerModeHint(3));

    EXPECT_EQ(peer.deep().timers().first, nullptr);
    EXPECT_EQ(log.countContaining("lowPowerInit()"), 0);
    EXPECT_EQ(log.countContaining("releaseProp()"), 0);
    EXPECT_EQ(propertyValue("vendor.pwr.sync"), "8");
}

// --- With the state store ---

TEST_F(LowPowerEntry, RecordsTheDeepModeSwitchUnderPsm) {
    FeatureHandle feature(deepModeConfig());
    ASSERT_TRUE(PSMPowerOptFeatureTestPeer(*feature).store().database() != nullptr);

    feature->sendEvents(powerModeHint(3));
    feature->sendEvents(powerModeHint(3));

    // The second entry consumed the first one's row and wrote its own.
    EXPECT_EQ(feature->pmDbRead("PSM"), '1');
    EXPECT_EQ(feature->pmDbRead("PSM"), 0);
}

// A feature with deep mode off has no state store: a '1' recorded by an earlier run with deep
// mode on is neither consumed nor acted on, and nothing is written over it.
TEST_F(LowPowerEntry, DeepModeOffLeavesTheStoredSwitchAlone) {
    {
        FeatureHandle earlier(deepModeConfig());
        earlier->pmDbWrite("PSM", '1');
        earlier->pmDbWrite("vendor.pwr.sync", '0');
    }
    setProperty("vendor.pwr.sync", "8");
    {
        FeatureHandle off(pwr::test::minimalConfig());
        off->sendEvents(powerModeHint(3));
    }
    EXPECT_EQ(propertyValue("vendor.pwr.sync"), "8");

    FeatureHandle later(deepModeConfig());
    EXPECT_EQ(later->pmDbRead("PSM"), '1');
    EXPECT_EQ(later->pmDbRead("vendor.pwr.sync"), '0');
}

}  // namespace
