// Deep mode: its set-up from the configuration, the deep timer's callback and the reset; the
// whole cycle through event dispatch with the 1.5 s deep timer on virtual time; low-power entry
// and the switch it records under "PSM" in the state store; and its property lists: split from
// the configuration text, applied in whole pairs with the old first character saved first, and
// put back.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <android-base/strings.h>

#include "tests/support/FeatureTest.h"

namespace {

using namespace std::chrono_literals;
using pwr::test::deepModeConfig;
using pwr::test::line;
using pwr::test::powerModeHint;
using pwr::test::propertyValue;
using pwr::test::setProperty;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
namespace site = pwr::site;

const std::string kApplied = line(site::kDeepTimerDisabled, "Timer disabled, Current state: 3");

// Name/value pairs of a property list, as applyProp walks them.
std::vector<std::pair<std::string, std::string>> pairsOf(const std::vector<std::string>& list) {
    std::vector<std::pair<std::string, std::string>> pairs;
    for (size_t i = 0; i + 1 < list.size(); i += 2) pairs.emplace_back(list[i], list[i + 1]);
    return pairs;
}

using DeepMode = pwr::test::BuiltFeatureTest;

TEST_F(DeepMode, Configure_ReadsEverySettingProfilesInNameOrderAndEveryValueButPsmAsProperties) {
    const PowerOptFeatureInfo info = deepModeConfig();
    build(info);
    ASSERT_TRUE(peer->ready()) << ::testing::PrintToString(log.messages());
    EXPECT_THAT(peer->scalingThresholds(), ElementsAre(700, 100, 800, 200, 900, 300));
    const FeatureSettings& s = peer->settings();
    EXPECT_EQ(s.mMaxSampleNum, 5);
    EXPECT_EQ(s.taskLoadBoostScale, -20);
    EXPECT_EQ(s.mCpuNode + s.mCpuPolicy, "cpu0policy0");
    EXPECT_EQ(s.mDeepProfile, info.profiles.at("DEFAULT"));
    EXPECT_EQ(s.taskBoostOpcodes, info.profiles.at("PSM_OPT_RESOURCE"));
    EXPECT_THAT(peer->ignoredApps(), ElementsAre("com.example.ignored"));
    EXPECT_THAT(peer->deep().profileList(),
                ElementsAre(info.profiles.at("DEFAULT"), info.profiles.at("PROFILE_LIGHT_MODE"),
                            info.profiles.at("PSM_OPT_RESOURCE")));
    std::vector<std::string> expected = {
            line(site::kProfileListEntry, " ProfileList DEFAULT"),
            line(site::kProfileListEntry, " ProfileList PROFILE_LIGHT_MODE"),
            line(site::kProfileListEntry, " ProfileList PSM_OPT_RESOURCE")};
    // Each value's comma-separated tokens, in the order of the map's own walk, "PSM" skipped.
    std::vector<std::string> tokens;
    for (const auto& [key, value] : info.configs) {
        expected.push_back(line(site::kPropsListEntry, " PropsList " + key));
        if (key == "PSM") continue;
        for (const std::string& token : android::base::Split(value, ",")) {
            if (!token.empty()) tokens.push_back(token);
        }
    }
    EXPECT_EQ(peer->deep().propList(), tokens);
    const std::vector<std::string> messages = log.messages();
    EXPECT_TRUE(std::search(messages.begin(), messages.end(), expected.begin(), expected.end()) !=
                messages.end())
            << ::testing::PrintToString(messages);
}

TEST_F(DeepMode, DeepTimer_ReturnsTheLengthOfTheLastOldValue) {
    build(deepModeConfig());
    const auto pairs = pairsOf(peer->deep().propList());
    PSMPowerOptFeature::deeptimerCallBack(nullptr);
    EXPECT_THAT(fakeperf::calls(), IsEmpty());
    setProperty(pairs.back().first, "performance");
    PSMPowerOptFeature::deeptimerCallBack(&**feature);
    EXPECT_EQ(peer->deep().propResult(), 11) << "length of the last old value, \"performance\"";
    EXPECT_EQ(log.count(line(site::kPropSize,
                             "Prop size " + std::to_string(peer->deep().propList().size()))),
              1);
    EXPECT_EQ(log.count(kApplied), 1);
}

TEST_F(DeepMode, Reset_ReleasesTheSavedValuesUnlessTheLastReadWasEmpty) {
    build(deepModeConfig());
    log.clear();
    const std::string name = peer->deep().propList()[0];
    setProperty(name, "1");
    peer->deep().setPropResult(0);
    (*feature)->resetDeepMode();
    EXPECT_THAT(log.messages(), ElementsAre(line(site::kResetDeepMode, "Reset")));
    EXPECT_EQ(propertyValue(name), "1");

    // Nothing applied (-1) still releases; with nothing saved, the property is cleared.
    peer->deep().setPropResult(-1);
    (*feature)->resetDeepMode();
    EXPECT_EQ(log.count(line(site::kReleasePropSize,
                             " Array size " + std::to_string(peer->deep().propList().size()))),
              1);
    EXPECT_EQ(propertyValue(name, ""), "");
    EXPECT_EQ(peer->deep().state(), 0);
}

// --- The whole cycle, on virtual time, with the state store.

class DeepModeCycle : public DeepMode {
  protected:
    void SetUp() override {
        build(deepModeConfig());
        ASSERT_TRUE(peer->ready());
        pairs = pairsOf(peer->deep().propList());
        ASSERT_GE(pairs.size(), 5u);
        // Old values of every kind: unset, single characters, longer texts.
        const char* const olds[] = {nullptr, "1", "128", "performance"};
        for (size_t i = 0; i < pairs.size(); ++i) {
            const char* old = olds[i % 4];
            if (old != nullptr) setProperty(pairs[i].first, old);
            oldValues[pairs[i].first] = old != nullptr ? old : "<unset>";
        }
    }

    // The one character each property was saved as: an unset one reads as "0".
    std::string saved(const std::string& name) {
        const std::string& old = oldValues.at(name);
        return old == "<unset>" ? "0" : old.substr(0, 1);
    }
    void expectApplied() {
        for (const auto& [name, value] : pairs) EXPECT_EQ(propertyValue(name), value) << name;
    }
    void expectRestored() {
        for (const auto& [name, value] : pairs) EXPECT_EQ(propertyValue(name), saved(name)) << name;
    }

    std::vector<std::pair<std::string, std::string>> pairs;
    std::map<std::string, std::string> oldValues;
};

TEST_F(DeepModeCycle, TheLowPowerHintAppliesAfterOneAndAHalfSecondsAndLeavingRestores) {
    (*feature)->sendEvents(powerModeHint(3));
    EXPECT_EQ(log.count(line(site::kDeepTimerStarted, "Timer started \n")), 1);
    EXPECT_EQ(peer->psmMode(), 0) << "low-power entry leaves the PSM mode alone";
    clock.advance(1499ms);
    EXPECT_EQ(log.count(kApplied), 0);
    clock.advance(1ms);
    ASSERT_EQ(log.count(kApplied), 1) << ::testing::PrintToString(log.messages());

    // The deep profile is held, the timer has stopped itself, the properties are set.
    ASSERT_GT(peer->profileLock().held(), 0);
    EXPECT_EQ(fakeperf::heldLocks().at(peer->profileLock().held()),
              peer->settings().mDeepProfile[0]);
    EXPECT_EQ(peer->snapshot().deepTimerArmed, 0);
    EXPECT_EQ(peer->deep().state(), 3);
    expectApplied();
    clock.advance(10s);
    EXPECT_EQ(log.count(kApplied), 1) << "applied once per arming";

    (*feature)->sendEvents(powerModeHint(0));
    EXPECT_EQ(peer->profileLock().held(), -1);
    EXPECT_THAT(fakeperf::heldLocks(), IsEmpty());
    EXPECT_EQ(peer->deep().state(), 0);
    expectRestored();
    (*feature)->sendEvents(powerModeHint(0));  // deep mode is off: the restored values stay
    expectRestored();
}

// A second low-power hint while deep mode is applied must not save deep mode's own values as
// the ones to put back.
TEST_F(DeepModeCycle, ReenteringKeepsTheOriginalValues) {
    (*feature)->sendEvents(powerModeHint(3));
    clock.advance(1500ms);
    expectApplied();
    (*feature)->sendEvents(powerModeHint(3));
    clock.advance(1500ms);
    ASSERT_EQ(log.count(kApplied), 2);
    expectApplied();
    (*feature)->sendEvents(powerModeHint(1));  // on to light mode
    expectRestored();
    EXPECT_EQ(peer->psmMode(), 1);
}

// Leaving low-power mode before the deep profile was granted disarms the retrying timer, so deep
// mode cannot engage afterwards, and resets nothing.
TEST_F(DeepModeCycle, LeavingBeforeTheLockIsGrantedStopsTheRetries) {
    fakeperf::setAcquireFailure(true, -1);
    (*feature)->sendEvents(powerModeHint(3));
    clock.advance(3000ms);
    const std::string refused = line(site::kProfileApplyFailed,
                                     "Failed to apply resource, "
                                     "handle = -1");
    EXPECT_EQ(log.count(refused), 2) << "retried every 1.5 s";
    (*feature)->sendEvents(powerModeHint(0));
    fakeperf::setAcquireFailure(false);
    clock.advance(10s);
    EXPECT_EQ(log.count(refused), 2);
    EXPECT_EQ(peer->snapshot().deepTimerArmed, 0);
    EXPECT_EQ(log.countContaining("resetDeepMode()"), 0);
    EXPECT_EQ(peer->deep().state(), 0);
    EXPECT_EQ(propertyValue(pairs[0].first), oldValues[pairs[0].first]);
}

// --- Low-power entry.

TEST_F(DeepMode, LowPowerEntry_EachEntryReplacesTheDeepTimer) {
    build(deepModeConfig());
    const int before = pwr::test::liveTimers();
    (*feature)->sendEvents(powerModeHint(3));
    const auto first = peer->deep().timers();
    EXPECT_EQ(first.second, first.first);
    (*feature)->sendEvents(powerModeHint(3));
    EXPECT_EQ(pwr::test::liveTimers(), before + 1) << "the earlier one is deleted";
    EXPECT_EQ(peer->snapshot().deepTimerArmed, 1);
    EXPECT_EQ(log.count(line(site::kDeepTimerStarted, "Timer started \n")), 2);
    EXPECT_EQ(log.countContaining("Timer couldn't be started"), 0);
    feature.reset();
    EXPECT_EQ(pwr::test::liveTimers(), before - 1) << "the destructor deletes what is left";
}

TEST_F(DeepMode, LowPowerEntry_RecordsTheSwitchUnderPsm) {
    build(deepModeConfig());
    ASSERT_NE(peer->store().database(), nullptr);
    (*feature)->sendEvents(powerModeHint(3));
    (*feature)->sendEvents(powerModeHint(3));
    // The second entry consumed the first one's row and wrote its own.
    EXPECT_EQ((*feature)->pmDbRead("PSM"), '1');
    EXPECT_EQ((*feature)->pmDbRead("PSM"), 0);
}

// Only the low byte of DEEP_MODE counts: 256 has the store but enters no deep mode. Its entry
// puts the saved values back only when the previous run recorded deep mode ('1').
TEST_F(DeepMode, LowPowerEntry_DeepModeWithALowByteOfZeroRestoresOnlyAfterDeepMode) {
    PowerOptFeatureInfo info = deepModeConfig();
    info.configs["DEEP_MODE"] = "256";
    build(info);
    const std::string name = peer->deep().propList()[0];
    setProperty(name, "8");
    (*feature)->pmDbWrite(name, '4');
    (*feature)->sendEvents(powerModeHint(3));  // no "PSM" row yet
    EXPECT_EQ(propertyValue(name), "8");
    EXPECT_EQ(peer->snapshot().deepTimerExists, 0);
    (*feature)->sendEvents(powerModeHint(3));  // "PSM" is '0' now
    EXPECT_EQ(propertyValue(name), "8");
    (*feature)->pmDbWrite("PSM", '1');
    (*feature)->sendEvents(powerModeHint(3));
    EXPECT_EQ(propertyValue(name), "4");
    EXPECT_EQ((*feature)->pmDbRead("PSM"), '0');
}

// A feature with deep mode off has no state store: a '1' recorded by an earlier run with deep
// mode on is neither consumed nor acted on, and nothing is written over it.
TEST_F(DeepMode, LowPowerEntry_DeepModeOffTouchesNeitherTimerStoreNorProperties) {
    build(deepModeConfig());
    (*feature)->pmDbWrite("PSM", '1');
    (*feature)->pmDbWrite("vendor.pwr.sync", '0');
    setProperty("vendor.pwr.sync", "8");
    build(pwr::test::minimalConfig());
    log.clear();
    (*feature)->sendEvents(powerModeHint(3));
    EXPECT_EQ(peer->deep().timers().first, nullptr);
    EXPECT_EQ(log.countContaining("lowPowerInit()") + log.countContaining("releaseProp()"), 0);
    EXPECT_EQ(propertyValue("vendor.pwr.sync"), "8");
    build(deepModeConfig());
    EXPECT_EQ((*feature)->pmDbRead("PSM"), '1');
    EXPECT_EQ((*feature)->pmDbRead("vendor.pwr.sync"), '0');
}

// --- Property lists.

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
