// The classifier's binding to "perf_get_feedback" and the feature's questions built on it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "feature/LogSites.h"
#include "feature/PSMPowerOptFeature.h"
#include "host/fakeperf/FakePerf.h"
#include "platform/PowerOptClassifier.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/FeatureSetup.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestConfig.h"

namespace {

using pwr::test::LogCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(PowerOptClassifier, Create_AsksLibraryWithAppTypeRequest) {
    fakeperf::reset();
    fakeperf::setAppType("com.example.game", 2);
    fakeperf::setDefaultAppType(-7);
    LogCapture log;
    std::unique_ptr<PowerOptClassifier> classifier = PowerOptClassifier::Create();
    ASSERT_NE(classifier, nullptr);
    EXPECT_EQ(classifier->getAppType("com.example.game"), 2);
    EXPECT_EQ(classifier->getAppType("unknown"), -7);  // passed back unchanged
    EXPECT_TRUE(classifier->validateAppType("com.example.game", 2));
    EXPECT_FALSE(classifier->validateAppType("com.example.game", 3));
    EXPECT_THAT(log.messages(), IsEmpty());

    const auto calls = fakeperf::calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].kind, fakeperf::CallKind::GetFeedback);
    EXPECT_EQ(calls[0].request, 0x1601);
    EXPECT_EQ(calls[0].app, "com.example.game");
    EXPECT_EQ(calls[1].app, "unknown");
}

class FeatureClassificationTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeperf::reset();
        fakeperf::setAppType("game", 2);
        fakeperf::setAppType("browser", 3);
        fakeperf::setAppType("video", 5);
        fakeperf::setAppType("four", 4);
        fakeperf::setAppType("failing", -1);
        feature = pwr::test::createFeature(pwr::test::minimalConfig());
        peer = std::make_unique<PSMPowerOptFeatureTestPeer>(*feature);
        peer->setDebugEnabled(true);
    }

    std::unique_ptr<PSMPowerOptFeature> feature;
    std::unique_ptr<PSMPowerOptFeatureTestPeer> peer;
};

TEST_F(FeatureClassificationTest, Game_IsGameAndEligibleBothSayIsPSMType) {
    LogCapture log;
    EXPECT_TRUE(feature->isGame("game"));
    EXPECT_TRUE(feature->isPSMType("game"));
    EXPECT_FALSE(feature->isBrowser("game"));
    EXPECT_EQ(peer->psmAppType(), 2);
    EXPECT_THAT(log.messages(),
                ElementsAre(pwr::linePrefix(pwr::site::kIsGame) + "game isPSMType = 2",
                            pwr::linePrefix(pwr::site::kIsPsmType) + "game isPSMType = 2",
                            pwr::linePrefix(pwr::site::kIsBrowser) + "game isBrowser = 2"));
}

TEST_F(FeatureClassificationTest, Browser_EligibleAndBrowser) {
    LogCapture log;
    EXPECT_FALSE(feature->isGame("browser"));
    EXPECT_TRUE(feature->isPSMType("browser"));
    EXPECT_TRUE(feature->isBrowser("browser"));
    EXPECT_EQ(peer->psmAppType(), 3);
    // isGame says nothing about a non-game.
    EXPECT_THAT(log.messages(),
                ElementsAre(pwr::linePrefix(pwr::site::kIsPsmType) + "browser isPSMType = 3",
                            pwr::linePrefix(pwr::site::kIsBrowser) + "browser isBrowser = 3"));
}

TEST_F(FeatureClassificationTest, TypeFive_EligibleOnly) {
    EXPECT_FALSE(feature->isGame("video"));
    EXPECT_TRUE(feature->isPSMType("video"));
    EXPECT_FALSE(feature->isBrowser("video"));
    EXPECT_EQ(peer->psmAppType(), 5);
}

TEST_F(FeatureClassificationTest, OtherTypes_NotEligibleAndTypeKept) {
    ASSERT_TRUE(feature->isPSMType("browser"));
    LogCapture log;
    for (const char* app : {"four", "failing", "unlisted"}) {
        EXPECT_FALSE(feature->isGame(app)) << app;
        EXPECT_FALSE(feature->isPSMType(app)) << app;
        EXPECT_FALSE(feature->isBrowser(app)) << app;
    }
    EXPECT_EQ(peer->psmAppType(), 3);
    EXPECT_TRUE(log.contains(pwr::linePrefix(pwr::site::kIsPsmType) + "failing isPSMType = -1"));
    EXPECT_TRUE(log.contains(pwr::linePrefix(pwr::site::kIsBrowser) + "four isBrowser = 4"));
    EXPECT_EQ(log.countContaining("isGame()"), 0);
}

TEST_F(FeatureClassificationTest, DebugOff_NoLines) {
    peer->setDebugEnabled(false);
    LogCapture log;
    EXPECT_TRUE(feature->isGame("game"));
    EXPECT_TRUE(feature->isPSMType("video"));
    EXPECT_TRUE(feature->isBrowser("browser"));
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(FeatureClassificationTest, IsIgnored_AppKeyFoundInsideEntry) {
    peer->ignoredApps() = {"com.vendor.camera"};
    EXPECT_TRUE(feature->isIgnored("camera"));
    EXPECT_EQ(peer->ignoredIndex(), 1);
    // The entry must contain the key, not the other way round.
    EXPECT_FALSE(feature->isIgnored("com.vendor.camera.extra"));
    EXPECT_EQ(peer->ignoredIndex(), 1);
}

TEST_F(FeatureClassificationTest, IsIgnored_FirstMatchIndexAndEmptyKey) {
    peer->ignoredApps() = {"com.vendor.gallery", "com.vendor.camera", "com.other.camera"};
    EXPECT_TRUE(feature->isIgnored("camera"));
    EXPECT_EQ(peer->ignoredIndex(), 2);
    EXPECT_TRUE(feature->isIgnored("other"));
    EXPECT_EQ(peer->ignoredIndex(), 3);
    EXPECT_TRUE(feature->isIgnored(""));
    EXPECT_EQ(peer->ignoredIndex(), 1);
    EXPECT_FALSE(feature->isIgnored("music"));
    EXPECT_EQ(peer->ignoredIndex(), 1);
    // The library is never asked.
    EXPECT_THAT(fakeperf::calls(), IsEmpty());

    peer->ignoredApps().clear();
    EXPECT_FALSE(feature->isIgnored(""));
}

}  // namespace
