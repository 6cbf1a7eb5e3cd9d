// The classifier's binding to "perf_get_feedback" and the feature's questions built on it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/PowerOptClassifier.h"
#include "tests/support/FeatureTest.h"

namespace {

using pwr::test::line;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
namespace site = pwr::site;

TEST(PowerOptClassifier, AsksTheLibraryWithTheAppTypeRequest) {
    fakeperf::reset();
    fakeperf::setAppType("com.example.game", 2);
    fakeperf::setDefaultAppType(-7);
    pwr::test::LogCapture log;
    std::unique_ptr<PowerOptClassifier> classifier = PowerOptClassifier::Create();
    ASSERT_NE(classifier, nullptr);
    EXPECT_EQ(classifier->getAppType("com.example.game"), 2);
    EXPECT_EQ(classifier->getAppType("unknown"), -7) << "passed back unchanged";
    EXPECT_TRUE(classifier->validateAppType("com.example.game", 2));
    EXPECT_FALSE(classifier->validateAppType("com.example.game", 3));
    EXPECT_THAT(log.messages(), IsEmpty());
    const auto calls = fakeperf::calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].kind, fakeperf::CallKind::GetFeedback);
    EXPECT_EQ(calls[0].request, 0x1601);
    EXPECT_EQ(calls[1].app, "unknown");
}

class Classification : public pwr::test::FeatureTest {
  protected:
    void SetUp() override {
        feature = pwr::test::createFeature(pwr::test::minimalConfig());
        peer = std::make_unique<PSMPowerOptFeatureTestPeer>(*feature);
        peer->setDebugEnabled(true);
        log.clear();
    }

    std::unique_ptr<PSMPowerOptFeature> feature;
    std::unique_ptr<PSMPowerOptFeatureTestPeer> peer;
};

// Each application's answers to isGame, isPSMType (game, browser, type 5) and isBrowser, the
// eligible type kept (another type keeps the last eligible one, here the browser's), and the
// debug lines: isGame speaks only of a game, and in the words of isPSMType.
TEST_F(Classification, EachQuestionAnswersForItsTypes) {
    const struct {
        const char* app;
        int type;  // the library's answer
        bool game, eligible, browser;
        int keptType;
    } cases[] = {{"game", 2, true, true, false, 2},
                 {"video", 5, false, true, false, 5},
                 {"browser", 3, false, true, true, 3},
                 {"four", 4, false, false, false, 3},
                 {"failing", -1, false, false, false, 3}};
    for (const auto& c : cases) {
        fakeperf::setAppType(c.app, c.type);
        log.clear();
        EXPECT_EQ(feature->isGame(c.app), c.game) << c.app;
        EXPECT_EQ(feature->isPSMType(c.app), c.eligible) << c.app;
        EXPECT_EQ(feature->isBrowser(c.app), c.browser) << c.app;
        EXPECT_EQ(peer->psmAppType(), c.keptType) << c.app;
        const std::string type = " = " + std::to_string(c.type);
        std::vector<std::string> lines = {line(site::kIsPsmType, c.app + (" isPSMType" + type)),
                                          line(site::kIsBrowser, c.app + (" isBrowser" + type))};
        if (c.game) lines.insert(lines.begin(), line(site::kIsGame, c.app + (" isPSMType" + type)));
        EXPECT_EQ(log.messages(), lines) << c.app;
    }
    peer->setDebugEnabled(false);
    log.clear();
    EXPECT_TRUE(feature->isGame("game"));
    EXPECT_TRUE(feature->isBrowser("browser"));
    EXPECT_THAT(log.messages(), IsEmpty());
}

// An application key is ignored when an entry of the list contains it; the index of the first
// such entry, counted from 1, is kept. The library is never asked.
TEST_F(Classification, IsIgnored_TheFirstEntryContainingTheKey) {
    peer->ignoredApps() = {"com.vendor.gallery", "com.vendor.camera", "com.other.camera"};
    const struct {
        const char* app;
        bool ignored;
        int index;
    } cases[] = {{"camera", true, 2},
                 {"other", true, 3},
                 {"", true, 1},
                 {"com.vendor.camera.x", false, 1},
                 {"music", false, 1}};
    for (const auto& c : cases) {
        EXPECT_EQ(feature->isIgnored(c.app), c.ignored) << c.app;
        EXPECT_EQ(peer->ignoredIndex(), c.index) << c.app;
    }
    EXPECT_THAT(fakeperf::calls(), IsEmpty());
    peer->ignoredApps().clear();
    EXPECT_FALSE(feature->isIgnored(""));
}

}  // namespace
