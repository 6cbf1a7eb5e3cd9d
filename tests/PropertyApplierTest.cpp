// Property lists: tokenising configured text, applying name/value pairs with each old first
// character saved in the state store, and putting the saved characters back.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "feature/LogSites.h"
#include "feature/PSMPowerOptFeature.h"
#include "host/fakeperf/FakePerf.h"
#include "tests/support/DeepModeConfig.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/FeatureFactory.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestConfig.h"

namespace {

using pwr::test::DeviceTree;
using pwr::test::FeatureHandle;
using pwr::test::LogCapture;
using pwr::test::propertyValue;
using pwr::test::setProperty;
using ::testing::ElementsAre;

class PropertyApply : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeperf::reset();
        tree.mkdirs(pwr::test::kStoreDirectory);
    }

    DeviceTree tree;  // properties and the store live under the fake root
    LogCapture log;
};

// A feature without deep mode has no state store: saving does nothing, reading yields 0.
TEST_F(PropertyApply, ConvertToStringArray_DropsEmptyTokensKeepsBlanksAndCallerText) {
    FeatureHandle feature(pwr::test::minimalConfig());
    PSMPowerOptFeatureTestPeer(*feature).setDebugEnabled(true);
    const char text[] = "a,,b , c,";
    std::vector<std::string> out = {"kept"};

    feature->ConvertToStringArray(text, out);

    EXPECT_THAT(out, ElementsAre("kept", "a", "b ", " c"));
    EXPECT_STREQ(text, "a,,b , c,") << "the caller's text must not be tokenised in place";
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kPropToken) + "pch[a]; pSave[,b , c,]\n"), 1)
            << ::testing::PrintToString(log.messages());
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kPropToken) + "pch[b ]; pSave[ c,]\n"), 1);
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kPropToken) + "pch[ c]; pSave[]\n"), 1);
}

TEST_F(PropertyApply, ConvertToStringArray_NullAddsNothing) {
    FeatureHandle feature(pwr::test::minimalConfig());
    std::vector<std::string> out;

    feature->ConvertToStringArray(nullptr, out);
    EXPECT_EQ(log.countContaining("No props"), 0) << "diagnostic lines need debugEnabled";
    PSMPowerOptFeatureTestPeer(*feature).setDebugEnabled(true);
    feature->ConvertToStringArray(nullptr, out);

    EXPECT_TRUE(out.empty());
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kNoPropsText) + "No props \n"), 1);
}

TEST_F(PropertyApply, ApplyProp_SetsWholePairsOnlyAndReturnsOldLength) {
    FeatureHandle feature(pwr::test::minimalConfig());
    PSMPowerOptFeatureTestPeer(*feature).setDebugEnabled(true);
    setProperty("vendor.pwr.a", "128");
    std::vector<std::string> odd = {"vendor.pwr.a", "1", "vendor.pwr.dangling"};

    EXPECT_EQ(feature->applyProp(odd.data(), 3, 0), 3) << "length of the old value 128";
    EXPECT_EQ(propertyValue("vendor.pwr.a"), "1");
    EXPECT_EQ(propertyValue("vendor.pwr.dangling"), "<unset>");
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kPropParam) + "param for config:vendor.pwr.a,1"),
              1)
            << ::testing::PrintToString(log.messages());

    // The count, not the list, bounds the walk; fewer than two elements is nothing to do.
    std::vector<std::string> two = {"vendor.pwr.b", "x", "vendor.pwr.c", "y"};
    EXPECT_EQ(feature->applyProp(two.data(), 2, 0), 1) << "unset reads as the default \"0\"";
    EXPECT_EQ(propertyValue("vendor.pwr.b"), "x");
    EXPECT_EQ(propertyValue("vendor.pwr.c"), "<unset>");
    EXPECT_EQ(feature->applyProp(two.data(), 1, 0), -1);
    EXPECT_EQ(feature->applyProp(two.data(), 0, 0), -1);
    EXPECT_EQ(propertyValue("vendor.pwr.c"), "<unset>");
}

TEST_F(PropertyApply, ReadAndApplyProp_EmptyListAndSize) {
    FeatureHandle feature(pwr::test::minimalConfig());
    PSMPowerOptFeatureTestPeer(*feature).setDebugEnabled(true);

    EXPECT_EQ(feature->readAndApplyProp({}, 0), -1);
    EXPECT_EQ(log.countContaining("Prop size"), 0);

    EXPECT_EQ(feature->readAndApplyProp({"vendor.pwr.a", "1", "vendor.pwr.b"}, 0), 1);
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kPropSize) + "Prop size 3"), 1);
    EXPECT_EQ(propertyValue("vendor.pwr.a"), "1");
    EXPECT_EQ(propertyValue("vendor.pwr.b"), "<unset>");
    EXPECT_EQ(feature->readAndApplyProp({"vendor.pwr.a"}, 0), -1);
}

TEST_F(PropertyApply, ReleaseProp_ShortListDoesNothingAndNoSavedValueClears) {
    FeatureHandle feature(pwr::test::minimalConfig());
    PSMPowerOptFeatureTestPeer(*feature).setDebugEnabled(true);
    setProperty("vendor.pwr.a", "1");

    feature->releaseProp({"vendor.pwr.a"});
    EXPECT_EQ(propertyValue("vendor.pwr.a"), "1");
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kReleasePropSize) + " Array size 1"), 1)
            << ::testing::PrintToString(log.messages());

    // Nothing was saved for the name (and this feature has no store): the value becomes empty.
    // Value elements are not looked at.
    feature->releaseProp({"vendor.pwr.a", "ignored"});
    EXPECT_EQ(propertyValue("vendor.pwr.a", ""), "");
}

// --- With the state store (deep mode configured on) ---

TEST_F(PropertyApply, UnsetPropertyIsSavedAsZeroAndRestoredAsZero) {
    FeatureHandle feature(pwr::test::deepModeConfig());
    ASSERT_TRUE(PSMPowerOptFeatureTestPeer(*feature).ready());
    const std::vector<std::string> list = {"vendor.pwr.fresh", "1"};

    feature->readAndApplyProp(list, 0);
    ASSERT_EQ(propertyValue("vendor.pwr.fresh"), "1");
    feature->releaseProp(list);

    EXPECT_EQ(propertyValue("vendor.pwr.fresh"), "0");
}

TEST_F(PropertyApply, MultiCharacterOldValueComesBackAsItsFirstCharacter) {
    FeatureHandle feature(pwr::test::deepModeConfig());
    setProperty("vendor.pwr.level", "128");
    setProperty("vendor.pwr.mode", "performance");
    const std::vector<std::string> list = {"vendor.pwr.level", "0", "vendor.pwr.mode", "saving",
                                           "vendor.pwr.trailing"};

    EXPECT_EQ(feature->readAndApplyProp(list, 0), 11) << "length of \"performance\"";
    EXPECT_EQ(propertyValue("vendor.pwr.level"), "0");
    EXPECT_EQ(propertyValue("vendor.pwr.mode"), "saving");
    feature->releaseProp(list);

    EXPECT_EQ(propertyValue("vendor.pwr.level"), "1");
    EXPECT_EQ(propertyValue("vendor.pwr.mode"), "p");
    EXPECT_EQ(propertyValue("vendor.pwr.trailing"), "<unset>") << "a name without a value";
    // The saved characters were consumed: a second release finds none and clears.
    feature->releaseProp({"vendor.pwr.level", "0"});
    EXPECT_EQ(propertyValue("vendor.pwr.level", ""), "");
    // Empty reads as unset: the next apply saves the default '0', which comes back.
    EXPECT_EQ(feature->readAndApplyProp({"vendor.pwr.level", "7"}, 0), 1);
    feature->releaseProp({"vendor.pwr.level", "7"});
    EXPECT_EQ(propertyValue("vendor.pwr.level"), "0");
}

// The store's own debug line is written once the row is on disk; at that moment the property
// must still hold its old value.
TEST_F(PropertyApply, OldCharacterIsSavedBeforeThePropertyChanges) {
    FeatureHandle feature(pwr::test::deepModeConfig());
    PSMPowerOptFeatureTestPeer(*feature).setDebugEnabled(true);
    setProperty("vendor.pwr.x", "5");
    std::mutex mutex;
    std::vector<std::string> seen;  // "<name>=<value at the moment its row was written>"
    log.setObserver([&](const pwr::test::LogLine& line) {
        const std::string marker = "DB Row key name=";
        const size_t at = line.message.find(marker);
        if (at == std::string::npos) return;
        const size_t start = at + marker.size();
        const std::string name = line.message.substr(start, line.message.find(',', start) - start);
        std::lock_guard<std::mutex> lock(mutex);
        seen.push_back(name + "=" + propertyValue(name));
    });

    feature->readAndApplyProp({"vendor.pwr.x", "9", "vendor.pwr.y", "4"}, 0);
    log.setObserver(nullptr);

    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_THAT(seen, ElementsAre("vendor.pwr.x=5", "vendor.pwr.y=<unset>"))
            << ::testing::PrintToString(log.messages());
    EXPECT_EQ(log.countContaining("DB Row key name=vendor.pwr.x, writing properties 5"), 1);
    EXPECT_EQ(log.countContaining("DB Row key name=vendor.pwr.y, writing properties 0"), 1);
}

}  // namespace
