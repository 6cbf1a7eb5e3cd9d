// Property lists: splitting the configuration text, applying whole name/value pairs with the old
// first character saved first, and putting the saved characters back.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>

#include "tests/support/FeatureTest.h"

namespace {

using pwr::test::line;
using pwr::test::propertyValue;
using pwr::test::setProperty;
using ::testing::ElementsAre;
namespace site = pwr::site;

// Without deep mode the feature has no state store: nothing is saved, every read gives 0.
class PropertyApply : public pwr::test::BuiltFeatureTest {
  protected:
    PSMPowerOptFeature& built(const PowerOptFeatureInfo& info = pwr::test::minimalConfig()) {
        build(info);
        log.clear();
        return **feature;
    }
};

TEST_F(PropertyApply, SplitDropsEmptyTokensKeepsBlanksAndLeavesTheCallersText) {
    PSMPowerOptFeature& f = built();
    const char text[] = "a,,b , c,";
    std::vector<std::string> out = {"kept"};
    f.ConvertToStringArray(text, out);
    f.ConvertToStringArray(nullptr, out);
    EXPECT_THAT(out, ElementsAre("kept", "a", "b ", " c"));
    EXPECT_STREQ(text, "a,,b , c,");
    EXPECT_THAT(log.messages(), ElementsAre(line(site::kPropToken, "pch[a]; pSave[,b , c,]\n"),
                                            line(site::kPropToken, "pch[b ]; pSave[ c,]\n"),
                                            line(site::kPropToken, "pch[ c]; pSave[]\n"),
                                            line(site::kNoPropsText, "No props \n")));
}

// Only whole pairs within the count are set; the result is the length of the last old value read
// (an unset one reads as "0"), -1 for fewer than two elements.
TEST_F(PropertyApply, ApplySetsWholePairsOnly) {
    PSMPowerOptFeature& f = built();
    setProperty("vendor.pwr.a", "128");
    std::vector<std::string> list = {"vendor.pwr.a", "1", "vendor.pwr.b", "x", "vendor.pwr.c"};
    EXPECT_EQ(f.applyProp(list.data(), 1, 0), -1);
    EXPECT_EQ(f.readAndApplyProp({}, 0), -1);
    EXPECT_EQ(f.applyProp(list.data(), 2, 0), 3) << "the length of 128";
    EXPECT_EQ(f.readAndApplyProp(list, 0), 1) << "vendor.pwr.b was unset";
    EXPECT_EQ(propertyValue("vendor.pwr.a"), "1");
    EXPECT_EQ(propertyValue("vendor.pwr.b"), "x");
    EXPECT_EQ(propertyValue("vendor.pwr.c"), "<unset>");
    EXPECT_EQ(log.count(line(site::kPropParam, "param for config:vendor.pwr.a,1")), 2);
    EXPECT_EQ(log.count(line(site::kPropSize, "Prop size 5")), 1);

    f.releaseProp({"vendor.pwr.a"});  // fewer than two elements: nothing
    EXPECT_EQ(propertyValue("vendor.pwr.a"), "1");
    EXPECT_EQ(log.count(line(site::kReleasePropSize, " Array size 1")), 1);
    f.releaseProp({"vendor.pwr.a", "ignored"});  // nothing saved: the property becomes empty
    EXPECT_EQ(propertyValue("vendor.pwr.a", ""), "");
}

// With the state store: each property comes back as the first character it had (an unset one as
// "0"), once; a second release finds nothing saved and clears it.
TEST_F(PropertyApply, ReleasePutsBackTheSavedFirstCharactersOnce) {
    PSMPowerOptFeature& f = built(pwr::test::deepModeConfig());
    setProperty("vendor.pwr.level", "128");
    setProperty("vendor.pwr.mode", "performance");
    const std::vector<std::string> list = {"vendor.pwr.level", "0", "vendor.pwr.mode",    "saving",
                                           "vendor.pwr.fresh", "1", "vendor.pwr.trailing"};
    EXPECT_EQ(f.readAndApplyProp(list, 0), 1);
    f.releaseProp(list);
    EXPECT_EQ(propertyValue("vendor.pwr.level"), "1");
    EXPECT_EQ(propertyValue("vendor.pwr.mode"), "p");
    EXPECT_EQ(propertyValue("vendor.pwr.fresh"), "0");
    EXPECT_EQ(propertyValue("vendor.pwr.trailing"), "<unset>") << "a name without a value";
    f.releaseProp({"vendor.pwr.level", "0"});
    EXPECT_EQ(propertyValue("vendor.pwr.level", ""), "");
}

// The store's own debug line is written once the row is on disk; at that moment the property
// must still hold its old value.
TEST_F(PropertyApply, TheOldCharacterIsSavedBeforeThePropertyChanges) {
    PSMPowerOptFeature& f = built(pwr::test::deepModeConfig());
    setProperty("vendor.pwr.x", "5");
    std::mutex mutex;
    std::vector<std::string> seen;  // "<name>=<value at the moment its row was written>"
    log.setObserver([&](const pwr::test::LogLine& logged) {
        const std::string marker = "DB Row key name=";
        const size_t at = logged.message.find(marker);
        if (at == std::string::npos) return;
        const size_t start = at + marker.size();
        const std::string name =
                logged.message.substr(start, logged.message.find(',', start) - start);
        std::lock_guard<std::mutex> lock(mutex);
        seen.push_back(name + "=" + propertyValue(name));
    });
    f.readAndApplyProp({"vendor.pwr.x", "9", "vendor.pwr.y", "4"}, 0);
    log.setObserver(nullptr);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_THAT(seen, ElementsAre("vendor.pwr.x=5", "vendor.pwr.y=<unset>"));
    EXPECT_EQ(log.countContaining("DB Row key name=vendor.pwr.x, writing properties 5"), 1);
    EXPECT_EQ(log.countContaining("DB Row key name=vendor.pwr.y, writing properties 0"), 1);
}

}  // namespace
