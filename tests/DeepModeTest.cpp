// Deep mode: its set-up from the configuration, the deep timer's callback, the reset, and the
// whole cycle through event dispatch with the real 1.5 s timer.

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

#include "feature/PSMPowerOptFeature.h"
#include "host/PluginHost.h"
#include "host/fakeperf/FakePerf.h"
#include "tests/support/DeepModeConfig.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/FeatureFactory.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"
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
    EXPECT_NE(peer.batteryTimer(), nullptr);
    EXPECT_FALSE(Timer().Timer_isActive(peer.batteryTimer()));
    EXPECT_THAT(peer.scalingThresholds(), ElementsAre(700, 100, 800, 200, 900, 300));
    EXPECT_EQ(peer.maxSampleNum(), 5);
    EXPECT_EQ(peer.taskLoadBoostScale(), -20);
    EXPECT_EQ(peer.cpuNode(), "cpu0");
    EXPECT_EQ(peer.cpuPolicy(), "policy0");
    EXPECT_EQ(peer.deepProfile(), deepModeConfig().profiles["DEFAULT"]);
    EXPECT_EQ(peer.taskBoostOpcodes(), deepModeConfig().profiles["PSM_OPT_RESOURCE"]);
    EXPECT_THAT(peer.ignoredApps(), ElementsAre("com.example.ignored"));
    EXPECT_EQ(peer.deepModeState(), 0);
    EXPECT_EQ(peer.deepTimer(), nullptr) << "created by low-power entry only";
}

TEST_F(DeepMode, InitDeepMode_WalksProfilesInNameOrder) {
    PowerOptFeatureInfo info = deepModeConfig();
    FeatureHandle feature(info);
    PSMPowerOptFeatureTestPeer peer(*feature);

    EXPECT_THAT(peer.profileList(),
                ElementsAre(info.profiles["DEFAULT"], info.profiles["PROFILE_LIGHT_MODE"],
                            info.profiles["PSM_OPT_RESOURCE"]));
    const int first = indexOf("PSMPOWEROPT: initDeepMode() 240:  ProfileList DEFAULT");
    const int second = indexOf("PSMPOWEROPT: initDeepMode() 240:  ProfileList PROFILE_LIGHT_MODE");
    const int third = indexOf("PSMPOWEROPT: initDeepMode() 240:  ProfileList PSM_OPT_RESOURCE");
    EXPECT_NE(first, -1) << ::testing::PrintToString(log.messages());
    EXPECT_LT(first, second);
    EXPECT_LT(second, third);
}

// Every setting except "PSM" is property text, the scalar ones included, each entry's tokens
// kept together in the order of the map's own walk.
TEST_F(DeepMode, InitDeepMode_WalksEverySettingButPsmIntoThePropertyList) {
    PowerOptFeatureInfo info = deepModeConfig();
    FeatureHandle feature(info);
    const std::vector<std::string>& list = PSMPowerOptFeatureTestPeer(*feature).propList();

    size_t expectedSize = 0;
    for (const auto& [key, value] : info.configs) {
        EXPECT_EQ(log.count("PSMPOWEROPT: initDeepMode() 252:  PropsList " + key), 1) << key;
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
        EXPECT_EQ(log.count("PSMPOWEROPT: PSMPowerOptFeature() 70: Missing feature configs, "
                            "return !!"),
                  1);
    }
}

TEST_F(DeepMode, InitDeepMode_MissingProfilesAreNamed) {
    struct Case {
        const char* profile;
        Profile value;
        bool erase;
        const char* message;
    };
    const Case cases[] = {
            {"DEFAULT", {}, true, "PSMPOWEROPT: initDeepMode() 228: No Deep Profile specified\n"},
            {"DEFAULT", {}, false, "PSMPOWEROPT: initDeepMode() 228: No Deep Profile specified\n"},
            {"PSM_OPT_RESOURCE",
             {},
             true,
             "PSMPOWEROPT: initDeepMode() 234: No TASK_LOAD_BOOST opcode specified\n"},
            {"PSM_OPT_RESOURCE",
             {{}},
             false,
             "PSMPOWEROPT: initDeepMode() 234: No TASK_LOAD_BOOST opcode specified\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        log.clear();
        PowerOptFeatureInfo info = deepModeConfig();
        if (c.erase) {
            info.profiles.erase(c.profile);
        } else {
            info.profiles[c.profile] = c.value;
        }
        FeatureHandle feature(info);

        EXPECT_FALSE(PSMPowerOptFeatureTestPeer(*feature).ready());
        EXPECT_EQ(log.count(c.message), 1) << ::testing::PrintToString(log.messages());
        EXPECT_EQ(log.countContaining("ProfileList"), 0);
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
    const std::string firstName = peer.propList()[0];

    PSMPowerOptFeature::deeptimerCallBack(nullptr);
    EXPECT_THAT(fakeperf::calls(), IsEmpty());

    fakeperf::setAcquireFailure(true, -1);
    PSMPowerOptFeature::deeptimerCallBack(&*feature);

    EXPECT_EQ(log.count("PSMPOWEROPT: readAndApplyProfile() 918: Failed to apply resource, "
                        "handle = -1"),
              1);
    EXPECT_EQ(peer.heldProfileHandle(), -1);
    EXPECT_EQ(peer.deepModeState(), 0);
    EXPECT_EQ(propertyValue(firstName), "<unset>") << "nothing is applied without the lock";
}

TEST_F(DeepMode, DeepTimerCallBack_AppliesThePropertiesOnceTheLockIsHeld) {
    FeatureHandle feature(deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    peer.setDebugEnabled(true);
    const std::vector<std::string> list = peer.propList();
    const auto pairs = pairsOf(list);
    setProperty(pairs.back().first, "performance");

    PSMPowerOptFeature::deeptimerCallBack(&*feature);

    ASSERT_GT(peer.heldProfileHandle(), 0);
    EXPECT_EQ(fakeperf::heldLocks().at(peer.heldProfileHandle()), peer.deepProfile()[0]);
    for (const auto& [name, value] : pairs) EXPECT_EQ(propertyValue(name), value) << name;
    EXPECT_EQ(peer.deepModeState(), 3);
    EXPECT_EQ(peer.propResult(), 11) << "length of the last old value, \"performance\"";
    EXPECT_EQ(log.count("PSMPOWEROPT: readAndApplyProp() 848: Prop size " +
                        std::to_string(list.size())),
              1)
            << ::testing::PrintToString(log.messages());
    EXPECT_EQ(log.count(std::string("PSMPOWEROPT: ") + kApplied), 1);
}

TEST_F(DeepMode, ResetDeepMode_ReleasesUnlessTheResultIsZero) {
    FeatureHandle feature(deepModeConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    peer.setDebugEnabled(true);
    const std::string name = peer.propList()[0];
    setProperty(name, "1");

    peer.setPropResult(0);
    feature->resetDeepMode();
    EXPECT_EQ(log.count("PSMPOWEROPT: resetDeepMode() 1238: Reset"), 1);
    EXPECT_EQ(log.countContaining("Array size"), 0) << "nothing released";
    EXPECT_EQ(propertyValue(name), "1");

    // Nothing applied (-1) still releases; with nothing saved, the property is cleared.
    peer.setPropResult(-1);
    feature->resetDeepMode();
    EXPECT_EQ(log.count("PSMPOWEROPT: releaseProp() 886:  Array size " +
                        std::to_string(peer.propList().size())),
              1)
            << ::testing::PrintToString(log.messages());
    EXPECT_EQ(propertyValue(name, ""), "");
    EXPECT_EQ(peer.deepModeState(), 0);
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
    ASSERT_TRUE(Timer().Timer_isActive(peer.deepTimer()));
    ASSERT_TRUE(
            log.waitFor("readAndApplyProfile() 918: Failed to apply resource", 1, kDeepTimerWait));
    feature->sendEvents(powerModeHint(0));

    EXPECT_FALSE(Timer().Timer_isActive(peer.deepTimer()));
    EXPECT_EQ(log.countContaining("resetDeepMode()"), 0);
    EXPECT_EQ(peer.deepModeState(), 0);
    EXPECT_EQ(propertyValue(peer.propList()[0]), "<unset>");
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
        pairs = pairsOf(peer->propList());
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
    ASSERT_GT(peer->heldProfileHandle(), 0);
    EXPECT_EQ(fakeperf::heldLocks().at(peer->heldProfileHandle()), peer->deepProfile()[0]);
    EXPECT_FALSE(Timer().Timer_isActive(peer->deepTimer()));
    EXPECT_EQ(peer->deepModeState(), 3);
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

    EXPECT_EQ(peer->heldProfileHandle(), -1);
    EXPECT_THAT(fakeperf::heldLocks(), IsEmpty());
    EXPECT_EQ(peer->deepModeState(), 0);
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

}  // namespace
