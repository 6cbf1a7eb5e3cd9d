#include "host/tools/Replay.h"

#include <sstream>

#include <android-base/file.h>
#include <android-base/strings.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "feature/LogSites.h"
#include "host/tools/FeatureConfigXml.h"
#include "host/tools/FeatureKeys.h"
#include "platform/hostshim/DeviceRoot.h"

namespace {

using pwr::tools::ReplayOptions;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
namespace site = pwr::site;

// The bundled game configuration (its GPU monitor on, so that game starts are classified) with
// PSM_STATE on line 10 and DEEP_MODE on line 11 set (left out when empty).
std::string gameConfig(const std::string& psmState = "0", const std::string& deepMode = "0") {
    std::string xml;
    EXPECT_TRUE(android::base::ReadFileToString(std::string(PWR_SOURCE_DIR) + "/configs/game.xml",
                                                &xml));
    auto set = [&xml](const std::string& key, const std::string& value) {
        const std::string line = "<Config name=\"" + key + "\" value=\"0\"/>";
        xml.replace(xml.find(line), line.size(),
                    value.empty() ? "" : "<Config name=\"" + key + "\" value=\"" + value + "\"/>");
    };
    set("PSM_STATE", psmState);
    set("DEEP_MODE", deepMode);
    return xml;
}

constexpr char kEvents[] = R"(app com.example.game 2
0  hint 1 1                  # mode 1: light profile
0  hint 2 1                  # mode 2: light profile released
1  start com.example.game/.Main
2  stop com.example.game/.Main
3  start com.example.other
4  hint 1 1
5  end
)";

const char kLightList[] = "{0x40C00000: 1, 0x40804000: 1500}";

// A plug-in log line as the replay prints it.
std::string logLine(const pwr::LogSite& at, const std::string& message) {
    return "log      " + pwr::linePrefix(at) + message;
}

class ReplayTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mOptions.pluginPath = PWR_PLUGIN_PATH;
        mOptions.configPath = std::string(mDir.path) + "/feature.xml";
        mOptions.eventsPath = std::string(mDir.path) + "/replay.events";
        mOptions.timestamps = false;
    }

    void write(const std::string& config, const std::string& events) {
        ASSERT_TRUE(android::base::WriteStringToFile(config, mOptions.configPath));
        ASSERT_TRUE(android::base::WriteStringToFile(events, mOptions.eventsPath));
    }

    int run() {
        std::ostringstream out;
        std::ostringstream err;
        pwr::tools::RealClock clock;
        const int status = pwr::tools::runReplay(mOptions, clock, out, err);
        mLines = android::base::Split(out.str(), "\n");
        if (!mLines.empty() && mLines.back().empty()) mLines.pop_back();
        mErr = err.str();
        return status;
    }

    // The first of `expected` that is not found in the output after its predecessor, or "".
    std::string missingInOrder(const std::vector<std::string>& expected) const {
        size_t at = 0;
        for (const std::string& line : expected) {
            while (at < mLines.size() && mLines[at] != line) ++at;
            if (at == mLines.size()) return line;
            ++at;
        }
        return "";
    }

    int countStarting(const std::string& prefix) const {
        int n = 0;
        for (const std::string& line : mLines) n += line.rfind(prefix, 0) == 0 ? 1 : 0;
        return n;
    }

    std::string output() const { return android::base::Join(mLines, "\n"); }

    TemporaryDir mDir;
    ReplayOptions mOptions;
    std::vector<std::string> mLines;
    std::string mErr;
};

TEST_F(ReplayTest, PrintsEventsQueriesLocksAndLogLinesInOrder) {
    write(gameConfig(), kEvents);
    const std::string rootBefore = pwr::host::deviceRoot();
    ASSERT_EQ(run(), 0) << mErr;
    EXPECT_THAT(mErr, IsEmpty());
    const std::vector<std::string> expected = {
            std::string("load     ") + PWR_PLUGIN_PATH,
            logLine(site::kConstructor, "Constructor PSMPowerOptFeature"),
            "event    hint type 1 action 1 (0x15E0, hintType 0x81)",
            logLine(site::kTryingProfileLock, "Trying to applyProfileLock."),
            std::string("lock     acquired #1 ") + kLightList + " for INT_MAX",
            "event    hint type 2 action 1 (0x15E0, hintType 0x82)",
            logLine(site::kReleasingProfile, "Releasing profile, handle = 1"),
            std::string("lock     released #1 ") + kLightList,
            "event    start com.example.game/.Main (0x1001)",
            "query    perf_get_feedback(0x1601, \"com.example.game\") -> 2",
            logLine(site::kGamingOn, "Triggering Gaming Usable Mode."),
            "event    stop com.example.game/.Main (0x1002)",
            logLine(site::kStopHint, "Stop hint 4098 for: com.example.game/.Main"),
            "event    start com.example.other (0x1001)",
            "query    perf_get_feedback(0x1601, \"com.example.other\") -> 0",
            "event    hint type 1 action 1 (0x15E0, hintType 0x81)",
            std::string("lock     acquired #2 ") + kLightList + " for INT_MAX",
            "end",
            "delete   PSMPowerOptFeature",
            logLine(site::kDestructor, "Destructor PSMPowerOptFeature"),
            // The destructor leaves the profile lock held.
            std::string("held     #2 ") + kLightList,
    };
    EXPECT_EQ(missingInOrder(expected), "") << output();
    EXPECT_EQ(countStarting("lock "), 3) << output();
    EXPECT_EQ(countStarting("query "), 2) << output();
    EXPECT_EQ(countStarting("event "), 6) << output();
    // Diagnostic lines stay off without --debug.
    EXPECT_EQ(countStarting(logLine(site::kIsGame, "")), 0) << output();
    // The temporary device tree is gone and the process's root is back.
    EXPECT_EQ(pwr::host::deviceRoot(), rootBefore);
}

TEST_F(ReplayTest, TimestampsOpenEachLine) {
    write(gameConfig(), "0 hint 1 1\n30 hint 0 1\n");
    mOptions.timestamps = true;
    ASSERT_EQ(run(), 0) << mErr;
    ASSERT_FALSE(mLines.empty());
    for (const std::string& line : mLines) {
        EXPECT_THAT(line, ::testing::MatchesRegex(" *[0-9]+ ms  [a-z]+ .*")) << line;
        // The release comes no earlier than its event's time.
        EXPECT_TRUE(line.find("event    hint type 0") == std::string::npos || std::stoi(line) >= 30)
                << line;
    }
}

TEST_F(ReplayTest, DebugTurnsOnTheFeaturesDiagnosticLines) {
    write(gameConfig(), kEvents);
    mOptions.debug = true;
    const std::string root = std::string(mDir.path) + "/device";
    mOptions.deviceRoot = root;
    ASSERT_EQ(run(), 0) << mErr;
    EXPECT_EQ(missingInOrder({
                      "event    start com.example.game/.Main (0x1001)",
                      "query    perf_get_feedback(0x1601, \"com.example.game\") -> 2",
                      logLine(site::kIsGame, "com.example.game isPSMType = 2"),
                      logLine(site::kGamingOn, "Triggering Gaming Usable Mode."),
              }),
              "")
            << output();
    EXPECT_EQ(countStarting(logLine(site::kPowerModeHint, "Usable power mode hint")), 3)
            << output();
    // The property went into the given tree, which is kept.
    std::string value;
    EXPECT_TRUE(android::base::ReadFileToString(root + "/data/property/vendor.debug.trace.power",
                                                &value));
    EXPECT_EQ(value, "true");
}

TEST_F(ReplayTest, UnparsableNumberIsReportedWithFileLineKeyAndValue) {
    write(gameConfig("two"), kEvents);
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(mErr, "pwr-replay: error: " + mOptions.configPath +
                            ":10: config \"PSM_STATE\" = \"two\" is not a number (std::stod throws "
                            "std::invalid_argument); the feature's constructor threw, no feature "
                            "was built\n");
    EXPECT_EQ(countStarting("event "), 0) << output();
}

TEST_F(ReplayTest, NotReadyFeatureIsReportedAndNoEventReplayed) {
    write(gameConfig("0", ""), kEvents);
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(missingInOrder({
                      logLine(site::kMissingConfigs, "Missing feature configs, return !!"),
                      "delete   PSMPowerOptFeature",
                      logLine(site::kDestructor, "Destructor PSMPowerOptFeature"),
              }),
              "")
            << output();
    EXPECT_EQ(countStarting("event "), 0) << output();
    EXPECT_EQ(mErr, "pwr-replay: error: " + mOptions.configPath +
                            ": the feature PSMPowerOptFeature ended not ready and would ignore "
                            "every event, so none was replayed; its log lines above say why\n"
                            "pwr-replay: note: " +
                            mOptions.configPath + ": config \"DEEP_MODE\" is missing\n");
}

TEST_F(ReplayTest, InvalidInputStopsBeforeLoading) {
    write("<Feature name=\"PSMPowerOptFeature\">\n<Configs>\n</Feature>\n", kEvents);
    EXPECT_EQ(run(), 1);
    EXPECT_THAT(mErr, ::testing::StartsWith("pwr-replay: error: " + mOptions.configPath +
                                            ":2: <Configs> opened on this line is not closed"));
    EXPECT_THAT(mLines, IsEmpty());

    write(gameConfig(), "0 hint 1 1\n10 strat com.example.game\n");
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(mErr, "pwr-replay: error: " + mOptions.eventsPath +
                            ":2: unknown event \"strat\"; expected start, stop, gameoff, hint, "
                            "event or end\n");

    write(gameConfig(), kEvents);
    mOptions.pluginPath = std::string(mDir.path) + "/absent.so";
    EXPECT_EQ(run(), 1);
    EXPECT_THAT(mErr, HasSubstr("error: cannot load the plug-in " + mOptions.pluginPath));

    std::string other = gameConfig();
    other.replace(other.find("name=\"PSMPowerOptFeature\""),
                  std::string("name=\"PSMPowerOptFeature\"").size(), "name=\"OtherFeature\"");
    write(other, kEvents);
    mOptions.pluginPath = PWR_PLUGIN_PATH;
    EXPECT_EQ(run(), 1);
    EXPECT_THAT(mErr, HasSubstr(mOptions.configPath +
                                ":7: " PWR_PLUGIN_PATH " registers no feature named "
                                "\"OtherFeature\" (registered: PSMPowerOptFeature)"));
}

// The files the README's main job runs stay valid and complete for the whole feature.
TEST_F(ReplayTest, BundledGameFilesReplayCleanly) {
    const std::string config = std::string(PWR_SOURCE_DIR) + "/configs/game.xml";
    const std::string events = std::string(PWR_SOURCE_DIR) + "/configs/game.events";
    pwr::tools::FeatureConfig parsed;
    std::string error;
    ASSERT_TRUE(pwr::tools::FeatureConfigXml::parseFile(config, &parsed, &error)) << error;
    EXPECT_THAT(pwr::tools::FeatureKeys::check(parsed.info), IsEmpty());

    mOptions.configPath = config;
    mOptions.eventsPath = events;
    ASSERT_EQ(run(), 0) << mErr;
    EXPECT_THAT(mErr, IsEmpty());
    EXPECT_EQ(
            missingInOrder({
                    logLine(site::kGamingOn, "Triggering Gaming Usable Mode."),
                    logLine(site::kStopHint, "Stop hint 4098 for: com.example.game/.MainActivity"),
                    std::string("lock     acquired #1 ") + kLightList + " for INT_MAX",
                    std::string("lock     released #1 ") + kLightList,
                    "delete   PSMPowerOptFeature",
            }),
            "")
            << output();
}

}  // namespace
