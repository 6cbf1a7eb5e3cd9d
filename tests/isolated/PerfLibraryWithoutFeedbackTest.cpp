// The classifier when the library lacks "perf_get_feedback": this program does not link the fake
// library; it loads the variant without the feedback entry before anything binds.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "feature/LogSites.h"
#include "platform/PlatformLogSites.h"

#include "feature/PSMPowerOptFeature.h"
#include "platform/PowerHelper.h"
#include "platform/PowerOptClassifier.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PerfVariant.h"
#include "tests/support/TestConfig.h"

namespace {

using pwr::test::LogCapture;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class PreloadVariant : public ::testing::Environment {
  public:
    void SetUp() override { pwr::test::PerfVariant::load(PWR_FAKEPERF_VARIANT); }
};
const auto* const gPreload = ::testing::AddGlobalTestEnvironment(new PreloadVariant());

const std::string kNoFeedback =
        pwr::linePrefix(pwr::site::kClassifierEntryMissing) + "Unable to get perf_get_feedback: ";

TEST(PerfLibraryWithoutFeedback, Classifier_CreateFailsWithLoaderReason) {
    LogCapture log;
    EXPECT_EQ(PowerOptClassifier::Create(), nullptr);
    const auto messages = log.messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_THAT(messages[0], StartsWith(kNoFeedback));
    EXPECT_THAT(messages[0], HasSubstr("undefined symbol"));  // dlerror's text
}

TEST(PerfLibraryWithoutFeedback, Feature_NotReadyButLocksBound) {
    LogCapture log;
    auto feature = pwr::test::createFeature(pwr::test::minimalConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    EXPECT_FALSE(peer.ready());
    const auto messages = log.messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_THAT(messages[0], StartsWith(kNoFeedback));
    EXPECT_EQ(messages[1],
              pwr::linePrefix(pwr::site::kClassifierMissing) + "mPowerOptClassifier is nullptr !!");
    // The helper's own binding is complete.
    EXPECT_NE(PowerHelper::perflock_acq, nullptr);
    EXPECT_NE(PowerHelper::perflock_rel, nullptr);
    EXPECT_NE(PowerHelper::perflock_hint, nullptr);

    log.clear();
    feature->sendEvents(pwr::test::event(0x15E0, "com.example.app", 0x81));
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_THAT(pwr::test::PerfVariant::calls(), IsEmpty());
}

}  // namespace
