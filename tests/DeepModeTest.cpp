// Deep mode: its set-up from the configuration, the deep timer's callback, the reset, and the
// whole cycle through event dispatch with the real 1.5 s timer; low-power entry (usable power
// mode hint of type 3): the deep-mode timer, and the switch recorded under "PSM" in the store.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "feature/LogSites.h"
#include "feature/PSMPowerOptFeature.h"
#include "host/PluginHost.h"
#include "host/fakeperf/FakePerf.h"
#include "tests/support/DeepModeConfig.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/FeatureFactory.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestConfig.h"
#include "tests/support/ThreadTimers.h"
#include "tests/support/TimerThreads.h"

namespace {

using pwr::test::deepModeConfig;
using pwr::test::DeviceTree;
using pwr::test::FeatureHandle;
using pwr::test::LogCapture;
using pwr::test::powerModeHint;
using pwr::test::propertyValue;
using pwr::test::setProperty;
using pwr::test::splitTokens;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kApplied[] = "deeptimerCallBack() 1226: Timer disabled, Current state: 3";
// Two expiries of the 1.5 s timer and then some: bounded, not a guess at speed.
constexpr std::chrono::seconds kDeepTimerWait(10);

class DeepMode : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeperf::reset();
        tree.mkdirs(pwr::test::kStoreDirectory);
    }

    // Index of the first captured message equal to `message`, -1 when there is none.
    int indexOf(const std::string& message) const {
        const std::vector<std::string> messages = log.messages();
        for (size_t i = 0; i < messages.size(); ++i) {
            if (messages[i] == message) return static_cast<int>(i);
        }
        return -1;
    }

    DeviceTree tree;
    LogCapture log;
};

// Name/value pairs of a property list, as applyProp walks them.
std::vector<std::pair<std::string, std::string>> pairsOf(const std::vector<std::string>& list) {
    std::vector<std::pair<std::string, std::string>> pairs;
    for (size_t i = 0; i + 1 < list.size(); i += 2) pairs.emplace_back(list[i], list[i + 1]);
    return pairs;
}

TEST_F(DeepMode, InitDeepMode_ReadsEverySetting) {
    FeatureHandle feature(deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);

    ASSERT_TRUE(peer.ready()) << ::testing::PrintToString(log.messages());
    EXPECT_NE(peer.battery().timer(), nullptr);
    EXPECT_FALSE(Timer().Timer_isActive(peer.battery().timer()));
    EXPECT_THAT(peer.scalingThresholds(), ElementsAre(700, 100, 800, 200, 900, 300));
    EXPECT_EQ(peer.settings().mMaxSampleNum, 5);
    EXPECT_EQ(peer.settings().taskLoadBoostScale, -20);
    EXPECT_EQ(peer.settings().mCpuNode, "cpu0");
    EXPECT_EQ(peer.settings().mCpuPolicy, "policy0");
    EXPECT_EQ(peer.settings().mDeepProfile, deepModeConfig().profiles["DEFAULT"]);
    EXPECT_EQ(peer.settings().taskBoostOpcodes, deepModeConfig().profiles["PSM_OPT_RESOURCE"]);
    EXPECT_THAT(peer.ignoredApps(), ElementsAre("com.example.ignored"));
    EXPECT_EQ(peer.deep().state(), 0);
    EXPECT_EQ(peer.deep().timers().first, nullptr) << "created by low-power entry only";
}

TEST_F(DeepMode, InitDeepMode_WalksProfilesInNameOrder) {
    PowerOptFeatureInfo info = deepModeConfig();
    FeatureHandle feature(info);
    PSMPowerOptFeatureTestPeer peer(*feature);

    EXPECT_THAT(peer.deep().profileList(),
                ElementsAre(info.profiles["DEFAULT"], info.profiles["PROFILE_LIGHT_MODE"],
                            info.profiles["PSM_OPT_RESOURCE"]));
    const int first =
            indexOf(pwr::linePrefix(pwr::site::kProfileListEntry) + " ProfileList DEFAULT");
    const int second = indexOf(pwr::linePrefix(pwr::site::kProfileListEntry) +
                               " ProfileList PROFILE_LIGHT_MODE");
    const int third = indexOf(pwr::linePrefix(pwr::site::kProfileListEntry) +
                              " ProfileList PSM_OPT_RESOURCE");
    EXPECT_NE(first, -1) << ::testing::PrintToString(log.messages());
    EXPECT_LT(first, second);
    EXPECT_LT(second, third);
}

// Every setting except "PSM" is property text, the scalar ones included, each entry's tokens
// kept together in the order of the map's own walk.
TEST_F(DeepMode, InitDeepMode_WalksEverySettingButPsmIntoThePropertyList) {
    PowerOptFeatureInfo info = deepModeConfig();
    FeatureHandle feature(info);
    const std::vector<std::string>& list = PSMPowerOptFeatureTestPeer(*feature).deep().propList();

    size_t expectedSize = 0;
    for (const auto& [key, value] : info.configs) {
        EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kPropsListEntry) + " PropsList " + key), 1)
                << key;
        const std::vector<std::string> tokens = splitTokens(value);
        const auto run = std::search(list.begin(), list.end(), tokens.begin(), tokens.end());
        if (key == "PSM") {
            for (const std::string& token : tokens) {
                EXPECT_EQ(std::count(list.begin(), list.end(), token), 0) << token;
            }
            continue;
        }
        expectedSize += tokens.size();
        EXPECT_NE(run, list.end()) << key << " = " << value << " is not in the list as one run";
    }
    EXPECT_EQ(list.size(), expectedSize);
    // The scalar settings are walked too.
    EXPECT_EQ(std::count(list.begin(), list.end(), "-20"), 1);
    EXPECT_EQ(std::count(list.begin(), list.end(), "policy0"), 1);
    EXPECT_EQ(std::count(list.begin(), list.end(), "vendor.pwr.sync"), 1);
}

TEST_F(DeepMode, InitDeepMode_MissingNumberOrCpuSettingFailsSilently) {
    for (const char* key :
         {"VIDEO_SCALING_UP", "BROWSER_SCALING_UP", "GAME_SCALING_UP", "VIDEO_SCALING_DOWN",
          "BROWSER_SCALING_DOWN", "GAME_SCALING_DOWN", "MAX_SAMPLE_NUM",
          "SCALING_DOWN_TASK_LOAD_BOOST", "CPUNODE", "CPUPOLICY"}) {
        SCOPED_TRACE(key);
        log.clear();
        PowerOptFeatureInfo info = deepModeConfig();
        info.configs.erase(key);
        FeatureHandle feature(info);

        EXPECT_FALSE(PSMPowerOptFeatureTestPeer(*feature).ready());
        EXPECT_EQ(log.countContaining("initDeepMode()"), 0)
                << ::testing::PrintToString(log.messages());
        EXPECT_EQ(
                log.count(pwr::linePrefix(pwr::site::kMissingConfigs) + "Missing feature configs, "
                                                                        "return !!"),
                1);
    }
}

TEST_F(DeepMode, InitDeepMode_MissingProfilesAreNamed) {
    struct Case {
        const char* profile;
        Profile value;
        bool erase;
        const pwr::LogSite* site;  // the refusal's line; null: accepted
        const char* message;
    };
    const Case cases[] = {
            {"DEFAULT", {}, true, &pwr::site::kNoDeepProfile, "No Deep Profile specified\n"},
            {"DEFAULT", {}, false, &pwr::site::kNoDeepProfile, "No Deep Profile specified\n"},
            {"PSM_OPT_RESOURCE",
             {},
             true,
             &pwr::site::kNoBoostOpcode,
             "No TASK_LOAD_BOOST opcode specified\n"},
            // Only an empty profile is refused: an empty first list is accepted (the boost then
            // acquires nothing).
            {"PSM_OPT_RESOURCE", {{}}, false, nullptr, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.profile);
        log.clear();
        PowerOptFeatureInfo info = deepModeConfig();
        if (c.erase) {
            info.profiles.erase(c.profile);
        } else {
            info.profiles[c.profile] = c.value;
        }
        FeatureHandle feature(info);

        EXPECT_EQ(PSMPowerOptFeatureTestPeer(*feature).ready(), c.site == nullptr);
        if (c.site != nullptr) {
            EXPECT_EQ(log.count(pwr::linePrefix(*c.site) + c.message), 1)
                    << ::testing::PrintToString(log.messages());
        } else {
            EXPECT_EQ(log.countContaining("No TASK_LOAD_BOOST"), 0);
        }
        EXPECT_EQ(log.countContaining("ProfileList") != 0, c.site == nullptr);
    }
}

TEST_F(DeepMode, InitDeepMode_UnparsableNumberThrows) {
    PowerOptFeatureInfo info = deepModeConfig();
    info.configs["MAX_SAMPLE_NUM"] = "many";
    std::string error;
    EXPECT_THROW(pwr::host::PluginHost::create("PSMPowerOptFeature", info, &error),
                 std::invalid_argument);
}

TEST_F(DeepMode, DeepTimerCallBack_WaitsForTheDeepProfileLock) {
    FeatureHandle feature(deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    const std::string firstName = peer.deep().propList()[0];

    PSMPowerOptFeature::deeptimerCallBack(nullptr);
    EXPECT_THAT(fakeperf::calls(), IsEmpty());

    fakeperf::setAcquireFailure(true, -1);
    PSMPowerOptFeature::deeptimerCallBack(&*feature);

    EXPECT_EQ(
            log.count(pwr::linePrefix(pwr::site::kProfileApplyFailed) + "Failed to apply resource, "
                                                                        "handle = -1"),
            1);
    EXPECT_EQ(peer.profileLock().held(), -1);
    EXPECT_EQ(peer.deep().state(), 0);
    EXPECT_EQ(propertyValue(firstName), "<unset>") << "nothing is applied without the lock";
}

TEST_F(DeepMode, DeepTimerCallBack_AppliesThePropertiesOnceTheLockIsHeld) {
    FeatureHandle feature(deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    peer.setDebugEnabled(true);
    const std::vector<std::string> list = peer.deep().propList();
    const auto pairs = pairsOf(list);
    setProperty(pairs.back().first, "performance");

    PSMPowerOptFeature::deeptimerCallBack(&*feature);

    ASSERT_GT(peer.profileLock().held(), 0);
    EXPECT_EQ(fakeperf::heldLocks().at(peer.profileLock().held()), peer.settings().mDeepProfile[0]);
    for (const auto& [name, value] : pairs) EXPECT_EQ(propertyValue(name), value) << name;
    EXPECT_EQ(peer.deep().state(), 3);
    EXPECT_EQ(peer.deep().propResult(), 11) << "length of the last old value, \"performance\"";
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kPropSize) + "Prop size " +
                        std::to_string(list.size())),
              1)
            << ::testing::PrintToString(log.messages());
    EXPECT_EQ(log.count(std::string("PSMPOWEROPT: ") + kApplied), 1);
}

TEST_F(DeepMode, ResetDeepMode_ReleasesUnlessTheResultIsZero) {
    FeatureHandle feature(deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    peer.setDebugEnabled(true);
    const std::string name = peer.deep().propList()[0];
    setProperty(name, "1");

    peer.deep().setPropResult(0);
    feature->resetDeepMode();
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kResetDeepMode) + "Reset"), 1);
    EXPECT_EQ(log.countContaining("Array size"), 0) << "nothing released";
    EXPECT_EQ(propertyValue(name), "1");

    // Nothing applied (-1) still releases; with nothing saved, the property is cleared.
    peer.deep().setPropResult(-1);
    feature->resetDeepMode();
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kReleasePropSize) + " Array size " +
                        std::to_string(peer.deep().propList().size())),
              1)
            << ::testing::PrintToString(log.messages());
    EXPECT_EQ(propertyValue(name, ""), "");
    EXPECT_EQ(peer.deep().state(), 0);
}

// Leaving low-power mode before the deep profile was granted disarms the retrying timer, so
// deep mode cannot engage afterwards, and resets nothing.
TEST_F(DeepMode, LeavingBeforeTheLockIsGrantedStopsTheDeepTimer) {
    PWR_REQUIRE_TIMER_THREADS();
    FeatureHandle feature(deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    peer.setDebugEnabled(true);
    fakeperf::setAcquireFailure(true, -1);

    feature->sendEvents(powerModeHint(3));
    ASSERT_TRUE(Timer().Timer_isActive(peer.deep().timers().first));
    ASSERT_TRUE(
            log.waitFor("readAndApplyProfile() 918: Failed to apply resource", 1, kDeepTimerWait));
    feature->sendEvents(powerModeHint(0));

    EXPECT_FALSE(Timer().Timer_isActive(peer.deep().timers().first));
    EXPECT_EQ(log.countContaining("resetDeepMode()"), 0);
    EXPECT_EQ(peer.deep().state(), 0);
    EXPECT_EQ(propertyValue(peer.deep().propList()[0]), "<unset>");
    // A retry already running must finish before the feature goes.
    EXPECT_TRUE(pwr::test::waitForTimerCallbacks());
}

// --- The whole cycle with the real timer and the state store ---

class DeepModeCycle : public DeepMode {
  protected:
    void SetUp() override {
        PWR_REQUIRE_TIMER_THREADS();
        DeepMode::SetUp();
        feature.emplace(deepModeConfig());
        peer.emplace(**feature);
        ASSERT_TRUE(peer->ready()) << ::testing::PrintToString(log.messages());
        peer->setDebugEnabled(true);
        pairs = pairsOf(peer->deep().propList());
        ASSERT_GE(pairs.size(), 5u);
        // Old values of every kind: unset, single characters, longer texts.
        const char* const olds[] = {nullptr, "1", "128", "performance"};
        for (size_t i = 0; i < pairs.size(); ++i) {
            const char* old = olds[i % 4];
            if (old != nullptr) setProperty(pairs[i].first, old);
            oldValues[pairs[i].first] = old != nullptr ? old : "<unset>";
        }
        // Each time the store reports a row written, note what the property holds right then.
        log.setObserver([this](const pwr::test::LogLine& line) {
            const std::string marker = "DB Row key name=";
            const size_t at = line.message.find(marker);
            if (at == std::string::npos) return;
            const size_t start = at + marker.size();
            const std::string name =
                    line.message.substr(start, line.message.find(',', start) - start);
            std::lock_guard<std::mutex> lock(mutex);
            atSave[name].push_back(propertyValue(name));
        });
    }

    void TearDown() override {
        feature.reset();
        log.setObserver(nullptr);
    }

    // The one character each property was saved as: an unset one reads as "0".
    std::string savedCharacter(const std::string& name) {
        const std::string& old = oldValues.at(name);
        return old == "<unset>" ? "0" : old.substr(0, 1);
    }

    void expectApplied() {
        for (const auto& [name, value] : pairs) EXPECT_EQ(propertyValue(name), value) << name;
    }
    void expectRestored() {
        for (const auto& [name, value] : pairs) {
            EXPECT_EQ(propertyValue(name), savedCharacter(name)) << name;
        }
    }

    std::optional<FeatureHandle> feature;
    std::optional<PSMPowerOptFeatureTestPeer> peer;
    std::vector<std::pair<std::string, std::string>> pairs;
    std::map<std::string, std::string> oldValues;
    std::mutex mutex;
    std::map<std::string, std::vector<std::string>> atSave;  // guarded by mutex
};

TEST_F(DeepModeCycle, LowPowerHintAppliesAndLeavingRestoresEveryProperty) {
    (*feature)->sendEvents(powerModeHint(3));
    ASSERT_TRUE(log.waitFor(kApplied, 1, kDeepTimerWait))
            << ::testing::PrintToString(log.messages());

    // The deep profile is held, the timer has stopped itself, the properties are set.
    ASSERT_GT(peer->profileLock().held(), 0);
    EXPECT_EQ(fakeperf::heldLocks().at(peer->profileLock().held()),
              peer->settings().mDeepProfile[0]);
    EXPECT_FALSE(Timer().Timer_isActive(peer->deep().timers().first));
    EXPECT_EQ(peer->deep().state(), 3);
    expectApplied();
    {
        // Each old first character reached the store while the property still held it.
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& [name, value] : pairs) {
            EXPECT_THAT(atSave[name], ElementsAre(oldValues[name])) << name;
            EXPECT_EQ(log.countContaining("DB Row key name=" + name + ", writing properties " +
                                          savedCharacter(name)),
                      1)
                    << name;
        }
    }

    (*feature)->sendEvents(powerModeHint(0));

    EXPECT_EQ(peer->profileLock().held(), -1);
    EXPECT_THAT(fakeperf::heldLocks(), IsEmpty());
    EXPECT_EQ(peer->deep().state(), 0);
    expectRestored();

    // Leaving again finds deep mode off and leaves the restored values alone.
    (*feature)->sendEvents(powerModeHint(0));
    expectRestored();
}

// A second low-power hint while deep mode is applied must not save deep mode's own values as
// the ones to put back.
TEST_F(DeepModeCycle, ReenteringKeepsTheOriginalValues) {
    (*feature)->sendEvents(powerModeHint(3));
    ASSERT_TRUE(log.waitFor(kApplied, 1, kDeepTimerWait));
    expectApplied();

    (*feature)->sendEvents(powerModeHint(3));
    ASSERT_TRUE(log.waitFor(kApplied, 2, kDeepTimerWait))
            << ::testing::PrintToString(log.messages());
    expectApplied();

    (*feature)->sendEvents(powerModeHint(1));  // on to light mode
    expectRestored();
    EXPECT_EQ(peer->psmMode(), 1);
}

// --- Low-power entry.

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
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kDeepTimerStarted) + "Timer started \n"), 1)
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
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kDeepTimerStarted) + "Timer started \n"), 2);
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
