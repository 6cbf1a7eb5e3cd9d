#include "host/tools/FeatureKeys.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TestConfig.h"

namespace {

using pwr::tools::FeatureKeys;
using pwr::tools::KeyProblem;
using Effect = KeyProblem::Effect;

std::vector<std::string> keysOf(const std::vector<KeyProblem>& problems) {
    std::vector<std::string> keys;
    for (const KeyProblem& p : problems) keys.push_back(p.key);
    return keys;
}

TEST(FeatureKeys, Check_MissingKeysInTheFeaturesOrder) {
    PowerOptFeatureInfo info;
    info.configs["GAME_TIMER"] = "x";  // not read: GPUMode is absent
    const auto problems = FeatureKeys::check(info);
    EXPECT_THAT(keysOf(problems),
                ::testing::ElementsAre("PSM_STATE", "PROFILE_LIGHT_MODE", "DEEP_MODE", "GPUMode"));
    for (const KeyProblem& p : problems) EXPECT_EQ(p.effect, Effect::NotReady) << p.key;
    EXPECT_TRUE(problems[1].profile);
    EXPECT_EQ(problems[2].message, "config \"DEEP_MODE\" is missing");
    EXPECT_EQ(problems[1].message,
              "profile \"PROFILE_LIGHT_MODE\" is missing or has no <PerfLock>");
}

TEST(FeatureKeys, Check_ConversionsThatThrowAsTheFeaturesDo) {
    PowerOptFeatureInfo info = pwr::test::gpuMonitorConfig("2");
    info.configs["GPU_SAMPLE_COUNT"] = "five";
    info.configs["DEEP_MODE"] = "99999999999";
    const auto problems = FeatureKeys::check(info);
    ASSERT_EQ(problems.size(), 2u);
    // DEEP_MODE is read first (std::stoi), the GPU keys later (std::stod).
    EXPECT_EQ(problems[0].key, "DEEP_MODE");
    EXPECT_EQ(problems[0].effect, Effect::Throws);
    EXPECT_EQ(problems[0].message,
              "config \"DEEP_MODE\" = \"99999999999\" is out of range (std::stoi throws "
              "std::out_of_range)");
    EXPECT_EQ(problems[1].key, "GPU_SAMPLE_COUNT");
    EXPECT_EQ(problems[1].message,
              "config \"GPU_SAMPLE_COUNT\" = \"five\" is not a number (std::stod throws "
              "std::invalid_argument)");
    EXPECT_EQ(FeatureKeys::first(problems, Effect::Throws), &problems[0]);
    EXPECT_EQ(FeatureKeys::first(problems, Effect::NotReady), nullptr);
}

TEST(FeatureKeys, Check_AcceptedValuesThatMisbehave) {
    PowerOptFeatureInfo info = pwr::test::gpuMonitorConfig("2");
    info.configs["PSM_STATE"] = "2.9";  // truncated to 2, as the feature does: no problem
    info.configs["GAME_TIMER"] = "5OO";
    info.configs["GPU_Freq_THRESHOLD_LOW"] = "1e30";
    info.profiles.erase("DYN_GPU_2_LOW");
    const auto problems = FeatureKeys::check(info);
    ASSERT_EQ(problems.size(), 3u);
    EXPECT_EQ(problems[0].message,
              "config \"GAME_TIMER\" = \"5OO\" is read as 5; the rest is "
              "ignored");
    EXPECT_EQ(problems[1].message,
              "config \"GPU_Freq_THRESHOLD_LOW\" = \"1e30\" does not fit an int "
              "(the feature throws std::out_of_range)");
    EXPECT_EQ(problems[0].effect, Effect::Misbehaves);
    EXPECT_EQ(problems[1].effect, Effect::Throws);
    // Two dynamic profiles: the monitor indexes a third.
    EXPECT_EQ(problems[2].key, "DYN_");
    EXPECT_EQ(problems[2].effect, Effect::Undefined);

    info.profiles.clear();
    info.profiles["PROFILE_LIGHT_MODE"] = {{1, 2}};
    const auto none = FeatureKeys::check(info);
    ASSERT_FALSE(none.empty());
    EXPECT_EQ(none.back().effect, Effect::NotReady);
    EXPECT_EQ(none.back().key, "DYN_");
}

TEST(FeatureKeys, Check_DeepModeKeysOnlyWhenDeepModeIsOn) {
    PowerOptFeatureInfo info = pwr::test::minimalConfig();
    info.configs["DEEP_MODE"] = "1";
    info.configs["MAX_SAMPLE_NUM"] = "abc";
    const auto problems = FeatureKeys::check(info);
    std::vector<std::string> keys = keysOf(problems);
    // The property pieces that follow are checked on their own below.
    ASSERT_GE(keys.size(), 12u);
    keys.resize(12);
    EXPECT_THAT(keys, ::testing::ElementsAre(
                              "VIDEO_SCALING_UP", "BROWSER_SCALING_UP", "GAME_SCALING_UP",
                              "VIDEO_SCALING_DOWN", "BROWSER_SCALING_DOWN", "GAME_SCALING_DOWN",
                              "MAX_SAMPLE_NUM", "SCALING_DOWN_TASK_LOAD_BOOST", "CPUNODE",
                              "CPUPOLICY", "DEFAULT", "PSM_OPT_RESOURCE"));
    EXPECT_EQ(problems[6].effect, Effect::Throws);
}

TEST(FeatureKeys, Check_DeepModePropertyTextsMustHoldWholePairs) {
    PowerOptFeatureInfo info = pwr::test::deepModeConfig();
    // Only the property entry is left among the texts: the scalars are what breaks the pairs.
    std::vector<std::string> lone;
    for (const auto& [key, value] : info.configs) {
        if (key != "PSM" && key != "DEEP_PROPS") lone.push_back(key);
    }
    const auto problems = FeatureKeys::check(info);
    std::vector<std::string> flagged;
    for (const KeyProblem& p : problems) {
        EXPECT_EQ(p.effect, Effect::Misbehaves) << p.message;
        if (p.message.find("not whole name,value pairs") != std::string::npos) {
            flagged.push_back(p.key);
        }
    }
    EXPECT_THAT(flagged, ::testing::UnorderedElementsAreArray(lone));
    EXPECT_THAT(keysOf(problems), ::testing::Not(::testing::Contains("DEEP_PROPS")));
    EXPECT_THAT(keysOf(problems), ::testing::Not(::testing::Contains("PSM")));

    // A text with an odd number of pieces is flagged by its key too; so is a name that no
    // property store accepts.
    info.configs["DEEP_PROPS"] = "vendor.a,1,vendor.b";
    info.configs["MORE_PROPS"] = "/sys/x,1";
    bool oddText = false;
    bool badName = false;
    for (const KeyProblem& p : FeatureKeys::check(info)) {
        oddText = oddText || (p.key == "DEEP_PROPS" &&
                              p.message.find("3 comma-separated") != std::string::npos);
        badName = badName || p.message.find("\"/sys/x\"") != std::string::npos;
    }
    EXPECT_TRUE(oddText);
    EXPECT_TRUE(badName);
}

TEST(FeatureKeys, Check_ValuesTheMonitorsCannotWorkWith) {
    PowerOptFeatureInfo info = pwr::test::gpuMonitorConfig("2");
    info.configs["GAME_TIMER"] = "0";
    info.configs["GPU_SAMPLE_COUNT"] = "-1";
    info.configs["GPU_Freq_THRESHOLD_LOW"] = "700";
    info.profiles["DYN_GPU_1_MID"] = {{}};
    // The group's keys in the feature's order first, then the values it cannot work with.
    EXPECT_THAT(keysOf(FeatureKeys::check(info)),
                ::testing::ElementsAre("DYN_GPU_1_MID", "GAME_TIMER", "GPU_SAMPLE_COUNT",
                                       "GPU_Freq_THRESHOLD_LOW"));
    PowerOptFeatureInfo equal = pwr::test::gpuMonitorConfig("2");
    equal.configs["GPU_Freq_THRESHOLD_LOW"] = "600";  // the balanced profile covers 600 MHz
    EXPECT_TRUE(FeatureKeys::check(equal).empty());

    PowerOptFeatureInfo deep = pwr::test::deepModeConfig();
    deep.configs["MAX_SAMPLE_NUM"] = "0";
    deep.configs["SCALING_DOWN_TASK_LOAD_BOOST"] = "0";
    deep.configs["VIDEO_SCALING_UP"] = "0";
    std::vector<std::string> keys;
    for (const KeyProblem& p : FeatureKeys::check(deep)) {
        // Leave out the property pairing, checked above.
        if (p.message.find("comma-separated") == std::string::npos && p.key != "PROPERTIES") {
            keys.push_back(p.key);
        }
    }
    EXPECT_THAT(keys, ::testing::ElementsAre("MAX_SAMPLE_NUM", "SCALING_DOWN_TASK_LOAD_BOOST",
                                             "VIDEO_SCALING_UP"));
}

// A property name takes at most 91 characters.
TEST(FeatureKeys, Check_DeepModePropertyNamesMustFit) {
    for (const size_t length : {91u, 92u}) {
        PowerOptFeatureInfo info = pwr::test::deepModeConfig();
        info.configs["DEEP_PROPS"] = std::string(length, 'p') + ",1";
        int invalid = 0;
        for (const KeyProblem& p : FeatureKeys::check(info)) {
            invalid += p.message.find("not a valid property name") != std::string::npos ? 1 : 0;
        }
        EXPECT_EQ(invalid, length == 92u ? 1 : 0) << length;
    }
}

}  // namespace
