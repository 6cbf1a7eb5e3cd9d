// The performance binding when the library lacks "perf_hint": this program does not link the
// fake library; it loads the variant without the hint entry before anything binds.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "feature/LogSites.h"
#include "platform/PlatformLogSites.h"

#include "feature/PSMPowerOptFeature.h"
#include "platform/PowerHelper.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PerfVariant.h"
#include "tests/support/TestConfig.h"

namespace {

using pwr::test::LogCapture;
using pwr::test::PerfVariant;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class PreloadVariant : public ::testing::Environment {
  public:
    void SetUp() override { PerfVariant::load(PWR_FAKEPERF_VARIANT); }
};
const auto* const gPreload = ::testing::AddGlobalTestEnvironment(new PreloadVariant());

TEST(PerfLibraryWithoutHint, PowerHelper_OnlyHintMissing) {
    LogCapture log;
    PowerHelper helper;
    EXPECT_THAT(log.messages(), ElementsAre(pwr::linePrefix(pwr::site::kPerfHintMissing) +
                                            "Unable to get perflock_hint handle"));
    EXPECT_EQ(PowerHelper::perflock_hint, nullptr);
    char app[] = "com.example.game";
    EXPECT_EQ(helper.perfhintEnable(0x1081, app, 10, 1), 0);

    // Locks still work.
    int list[] = {1, 2, 3, 4};
    const int handle = helper.perflockAcquire(0, 100, list, 4);
    ASSERT_GE(handle, 1);
    EXPECT_EQ(PerfVariant::heldLocks().count(handle), 1u);
    helper.perflockRelease(handle);
    EXPECT_EQ(PerfVariant::heldLocks().count(handle), 0u);
}

TEST(PerfLibraryWithoutHint, Feature_ReadyAndTakesProfileLocks) {
    auto feature = pwr::test::createFeature(pwr::test::minimalConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    ASSERT_TRUE(peer.ready());
    feature->sendEvents(pwr::test::event(0x15E0, "com.example.app", 0x81));
    const int handle = peer.profileLock().held();
    ASSERT_GE(handle, 1);
    EXPECT_EQ(PerfVariant::heldLocks().at(handle), peer.settings().mLightModeProfile[0]);
    feature->releaseProfileLock();
    EXPECT_THAT(PerfVariant::heldLocks(), IsEmpty());
}

}  // namespace
