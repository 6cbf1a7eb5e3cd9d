// The feature and its performance binding in a process where "libvyr-perfd-client.so" cannot
// be found: this program does not link the fake library and loads none of its variants.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "feature/LogSites.h"
#include "platform/PlatformLogSites.h"

#include "feature/PSMPowerOptFeature.h"
#include "platform/PowerHelper.h"
#include "platform/PowerOptClassifier.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestConfig.h"

namespace {

using pwr::test::LogCapture;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

const std::string kHelperOpen =
        pwr::linePrefix(pwr::site::kPerfLibMissing) + "Unable to open perf lib: ";
const std::string kClassifierOpen =
        pwr::linePrefix(pwr::site::kClassifierLibMissing) + "Unable to open perf lib: ";

TEST(PerfLibraryAbsent, PowerHelper_OneMessageAndNoActuation) {
    LogCapture log;
    PowerHelper helper;
    const auto messages = log.messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_THAT(messages[0], StartsWith(kHelperOpen));
    EXPECT_THAT(messages[0], HasSubstr("libvyr-perfd-client.so"));  // the loader's reason
    ASSERT_EQ(PowerHelper::perf_handle, nullptr);
    EXPECT_EQ(PowerHelper::perflock_acq, nullptr);
    EXPECT_EQ(PowerHelper::perflock_rel, nullptr);
    EXPECT_EQ(PowerHelper::perflock_hint, nullptr);

    log.clear();
    int list[] = {1, 2};
    char app[] = "com.example.game";
    EXPECT_EQ(helper.perflockAcquire(0, 100, list, 2), -1);
    EXPECT_EQ(helper.perfhintEnable(0x1081, app, 10, 1), 0);
    helper.perflockRelease(3);
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(PerfLibraryAbsent, Classifier_CreateFails) {
    LogCapture log;
    EXPECT_EQ(PowerOptClassifier::Create(), nullptr);
    const auto messages = log.messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_THAT(messages[0], StartsWith(kClassifierOpen));
}

TEST(PerfLibraryAbsent, Feature_NotReadyAndQuiet) {
    LogCapture log;
    auto feature = pwr::test::createFeature(pwr::test::minimalConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    EXPECT_FALSE(peer.ready());
    const auto messages = log.messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_THAT(messages[0], StartsWith(kHelperOpen));
    EXPECT_THAT(messages[1], StartsWith(kClassifierOpen));
    EXPECT_EQ(messages[2],
              pwr::linePrefix(pwr::site::kClassifierMissing) + "mPowerOptClassifier is nullptr !!");

    // Without a classifier every question answers no, silently, even when debugging.
    log.clear();
    peer.setDebugEnabled(true);
    EXPECT_FALSE(feature->isGame("com.example.game"));
    EXPECT_FALSE(feature->isPSMType("com.example.game"));
    EXPECT_FALSE(feature->isBrowser("com.example.game"));
    feature->sendEvents(pwr::test::event(0x15E0, "com.example.game", 0x81));
    feature->sendEvents(pwr::test::event(0x1001, "com.example.game"));
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(PerfLibraryAbsent, ProfileLock_FailureLoggedEveryTime) {
    auto feature = pwr::test::createFeature(pwr::test::minimalConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    Profile profile{{1, 2}};
    LogCapture log;
    feature->applyProfileLock(profile);
    feature->applyProfileLock(profile);
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kProfileApplyFailed) +
                        "Failed to apply resource, handle = -1"),
              2);
    EXPECT_EQ(peer.profileLock().held(), -1);
    int list[] = {1, 2};
    EXPECT_EQ(feature->applyProfile(list, 2, 10), -1);
    feature->releaseProfileLock();
    EXPECT_EQ(log.countContaining("Releasing"), 0);
}

}  // namespace
