// Runs the pwr-sim tool as an engineer does, one scenario per process, and checks what it reports
// against what the scenario and its configuration imply.

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "host/sim/RecordingJson.h"
#include "host/sim/Scenario.h"
#include "host/tools/FeatureConfigXml.h"
#include "host/tools/FeatureKeys.h"

namespace {

using ::testing::HasSubstr;

struct ToolRun {
    int status = -1;
    std::string out;
    std::string err;
};

class PwrSimTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string templ = std::filesystem::temp_directory_path().string() + "/pwrsimtest.XXXXXX";
        ASSERT_NE(mkdtemp(templ.data()), nullptr);
        mDir = templ;
    }
    void TearDown() override { std::filesystem::remove_all(mDir); }

    // Runs pwr-sim (or `tool`) with `args`; its output is kept in files of the test's folder.
    ToolRun run(const std::vector<std::string>& args, const char* tool = PWR_SIM_PATH) {
        const std::string outPath = mDir + "/stdout";
        const std::string errPath = mDir + "/stderr";
        const pid_t pid = fork();
        if (pid == 0) {
            const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            dup2(out, 1);
            dup2(err, 2);
            // A cross-built tool runs under the emulator the tests themselves run under.
            const char* emulator = getenv("PWR_TEST_EMULATOR");
            std::vector<char*> argv;
            if (emulator != nullptr && emulator[0] != '\0') {
                argv.push_back(const_cast<char*>(emulator));
            }
            argv.push_back(const_cast<char*>(tool));
            for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execvp(argv[0], argv.data());
            _exit(127);
        }
        ToolRun result;
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        android::base::ReadFileToString(outPath, &result.out);
        android::base::ReadFileToString(errPath, &result.err);
        return result;
    }

    std::string write(const std::string& name, const std::string& content) {
        const std::string path = mDir + "/" + name;
        EXPECT_TRUE(android::base::WriteStringToFile(content, path));
        return path;
    }

    static std::string source(const std::string& path) {
        return std::string(PWR_SOURCE_DIR) + "/" + path;
    }

    std::string mDir;
};

// Timeline lines "h:mm:ss.mmm  kind     text" as (ms, kind, text).
struct Line {
    int64_t ms;
    std::string kind;
    std::string text;
};

std::vector<Line> timeline(const std::string& text) {
    std::vector<Line> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        int h = 0;
        int m = 0;
        int sec = 0;
        int ms = 0;
        int used = 0;
        if (sscanf(line.c_str(), "%d:%2d:%2d.%3d  %n", &h, &m, &sec, &ms, &used) != 4 ||
            used == 0) {
            continue;
        }
        const size_t kindEnd = line.find(' ', used);
        const std::string kind = line.substr(used, kindEnd - used);
        const size_t textStart =
                kindEnd == std::string::npos ? line.size() : line.find_first_not_of(' ', kindEnd);
        lines.push_back(Line{(((h * 60LL) + m) * 60 + sec) * 1000 + ms, kind,
                             textStart == std::string::npos ? "" : line.substr(textStart)});
    }
    return lines;
}

std::vector<Line> ofKind(const std::vector<Line>& lines, const std::string& kind,
                         const std::string& containing = "") {
    std::vector<Line> out;
    for (const Line& l : lines) {
        if (l.kind == kind && l.text.find(containing) != std::string::npos) out.push_back(l);
    }
    return out;
}

int intConfig(const pwr::tools::FeatureConfig& config, const char* key) {
    return static_cast<int>(std::stod(config.info.configs.at(key)));
}

// The frequency the feature samples while the GPU runs at `mhz` on average: its time-in-state
// average capacity, converted up to the first table frequency at or above it.
uint64_t sampledMhz(const std::vector<uint64_t>& table, double mhz) {
    for (uint64_t f : table) {
        if (static_cast<double>(f) >= mhz) return f;
    }
    return table.back();
}

// The game scenario with its configuration: the profile of each phase follows from the
// thresholds, the first switch time from the sampling settings, each later one comes within the
// samples the average needs to cross a threshold plus three decisions.
TEST_F(PwrSimTest, GameScenario_ProfilesAndSwitchTimesFollowTheConfiguration) {
    pwr::sim::Scenario scenario;
    pwr::tools::FeatureConfig config;
    std::string error;
    ASSERT_TRUE(
            pwr::sim::Scenario::parseFile(source("configs/sim/game-climb.json"), &scenario, &error))
            << error;
    ASSERT_TRUE(pwr::tools::FeatureConfigXml::parseFile(scenario.configPath, &config, &error))
            << error;
    const int periodMs = intConfig(config, "GAME_TIMER");
    const int samples = intConfig(config, "GPU_SAMPLE_COUNT");
    const int stable = intConfig(config, "STABILITY_SAMPLE_COUNT");
    const int low = intConfig(config, "GPU_Freq_THRESHOLD_LOW");
    const int high = intConfig(config, "GPU_Freq_THRESHOLD_HIGH");
    std::vector<std::string> dynamic;
    for (const auto& [name, lists] : config.info.profiles) {
        if (name.find("DYN_") != std::string::npos) dynamic.push_back(name);
    }
    std::sort(dynamic.begin(), dynamic.end());
    ASSERT_EQ(dynamic.size(), 3u);

    // The game runs from its start event to its stop event; each GPU phase after the loading
    // one (the first with a small swing) must end on the profile its sampled frequency implies.
    int64_t startMs = -1;
    int64_t stopMs = -1;
    for (const auto& e : scenario.events) {
        if (!e.hasEvent) continue;
        if (e.event.kind == pwr::tools::ScriptEvent::Kind::Start) startMs = e.timeMs;
        if (e.event.kind == pwr::tools::ScriptEvent::Kind::Stop) stopMs = e.timeMs;
    }
    ASSERT_GE(startMs, 0);
    ASSERT_GT(stopMs, startMs);
    struct Phase {
        int64_t from;
        int64_t to;
        std::string profile;
    };
    std::vector<Phase> phases;
    for (size_t i = 0; i < scenario.gpu.size(); ++i) {
        const auto& p = scenario.gpu[i];
        if (p.timeMs <= startMs || p.timeMs >= stopMs || p.busySwing > 10) continue;
        const int64_t to = i + 1 < scenario.gpu.size() ? scenario.gpu[i + 1].timeMs : stopMs;
        const uint64_t mhz = sampledMhz(scenario.gpuFrequenciesMhz, p.freqMhz);
        const int level = mhz < static_cast<uint64_t>(low)     ? 2
                          : mhz <= static_cast<uint64_t>(high) ? 1
                                                               : 0;
        // Consecutive phases on the same level are one phase.
        if (!phases.empty() && phases.back().profile == dynamic[level]) {
            phases.back().to = std::min(to, stopMs);
        } else {
            phases.push_back(Phase{p.timeMs, std::min(to, stopMs), dynamic[level]});
        }
    }
    ASSERT_EQ(phases.size(), 4u) << "the scenario settles, climbs twice and eases off";

    const ToolRun r = run({source("configs/sim/game-climb.json"), "--out", mDir + "/out"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const std::vector<Line> lines = timeline(r.out);
    const std::vector<Line> acquired = ofKind(lines, "lock", "acquired");
    ASSERT_EQ(acquired.size(), phases.size()) << r.out;
    for (size_t i = 0; i < phases.size(); ++i) {
        EXPECT_THAT(acquired[i].text, HasSubstr(" " + phases[i].profile + " {")) << i;
        EXPECT_GT(acquired[i].ms, phases[i].from) << i;
        EXPECT_LT(acquired[i].ms, phases[i].to) << i;
    }
    // The first decision needs a full list of settled samples (the tick at the phase's start
    // already reads the settled busy value), the stable checks, then three decisions in a row.
    EXPECT_EQ(acquired[0].ms, phases[0].from + periodMs * ((samples - 1) + (stable - 1) + 3));
    // Later switches: the average crosses a threshold within a full list of new samples, and
    // the third differing decision switches.
    for (size_t i = 1; i < phases.size(); ++i) {
        EXPECT_GE(acquired[i].ms, phases[i].from + 3 * periodMs) << i;
        EXPECT_LE(acquired[i].ms, phases[i].from + (samples + 3) * periodMs) << i;
    }
    // Every switch releases the profile held before; the stop releases the last one.
    const std::vector<Line> released = ofKind(lines, "lock", "released");
    ASSERT_EQ(released.size(), phases.size());
    for (size_t i = 0; i + 1 < phases.size(); ++i) EXPECT_EQ(released[i].ms, acquired[i + 1].ms);
    EXPECT_EQ(released.back().ms, stopMs);
    EXPECT_THAT(ofKind(lines, "game"), ::testing::SizeIs(2));
    EXPECT_EQ(ofKind(lines, "game", "gaming state 1").at(0).ms, startMs);

    // The summary adds up the same slices.
    std::string summary;
    ASSERT_TRUE(android::base::ReadFileToString(mDir + "/out/summary.txt", &summary));
    EXPECT_THAT(summary, HasSubstr("profile switches: 3"));
    EXPECT_THAT(summary, HasSubstr(dynamic[0] + "      0:04:02.000"));
}

// Loads a bundled scenario and its configuration.
void loadBundled(const std::string& name, pwr::sim::Scenario* scenario,
                 pwr::tools::FeatureConfig* config) {
    std::string error;
    ASSERT_TRUE(pwr::sim::Scenario::parseFile(std::string(PWR_SOURCE_DIR) + "/configs/sim/" + name,
                                              scenario, &error))
            << error;
    ASSERT_TRUE(pwr::tools::FeatureConfigXml::parseFile(scenario->configPath, config, &error))
            << error;
}

// The video on battery: the battery monitor evaluates every MAX_SAMPLE_NUM seconds from the
// start of playback; each evaluation's average (logged with --debug) is checked against the
// scenario's drain, and the boost decision against the video thresholds: above the upper one the
// foreground tasks (not system_server, not kernel threads) are scaled down by the configured
// value, below the lower one the scale is taken back, and stopping the video takes it back too.
TEST_F(PwrSimTest, VideoScenario_BoostDecisionsFollowTheThresholds) {
    pwr::sim::Scenario scenario;
    pwr::tools::FeatureConfig config;
    ASSERT_NO_FATAL_FAILURE(loadBundled("video-battery.json", &scenario, &config));
    const int every = intConfig(config, "MAX_SAMPLE_NUM");
    const int up = intConfig(config, "VIDEO_SCALING_UP");
    const int down = intConfig(config, "VIDEO_SCALING_DOWN");
    const int scale = intConfig(config, "SCALING_DOWN_TASK_LOAD_BOOST");
    int64_t startMs = -1;
    int64_t stopMs = -1;
    for (const auto& e : scenario.events) {
        if (e.hasEvent && e.event.kind == pwr::tools::ScriptEvent::Kind::Start) startMs = e.timeMs;
        if (e.hasEvent && e.event.kind == pwr::tools::ScriptEvent::Kind::Stop) stopMs = e.timeMs;
    }
    ASSERT_GE(startMs, 0);
    // The tasks boosted: the foreground ones at the first boost, as the cpuset lists them.
    std::vector<int> eligible;
    for (const auto& p : scenario.foreground.at(0).processes) {
        if (!p.cmdline.empty() && p.cmdline.find("system_server") == std::string::npos) {
            eligible.push_back(p.pid);
        }
    }
    ASSERT_EQ(eligible.size(), 2u);

    const ToolRun r = run({source("configs/sim/video-battery.json"), "--debug"});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::vector<Line> lines = timeline(r.out);
    const std::vector<Line> averages = ofKind(lines, "log", "Avg Current: ");
    ASSERT_GE(averages.size(), 10u);
    bool boosted = false;
    int boosts = 0;
    int unboosts = 0;
    for (size_t i = 0; i < averages.size(); ++i) {
        const int64_t t = averages[i].ms;
        EXPECT_EQ(t, startMs + 1000 * every * static_cast<int64_t>(i + 1)) << i;
        const double average =
                std::stod(averages[i].text.substr(averages[i].text.find("Avg Current: ") + 13));
        // Within the drain (and its swing) of the trace points the samples came from.
        double lowest = 1e9;
        double highest = -1e9;
        for (const auto& p : scenario.battery) {
            const bool overlaps = p.timeMs <= t;
            const bool current =
                    &p == &scenario.battery.back() || (&p + 1)->timeMs > t - 1000 * every;
            if (overlaps && current) {
                lowest = std::min(lowest, p.drainMa - p.drainSwing - 1);
                highest = std::max(highest, p.drainMa + p.drainSwing);
            }
        }
        EXPECT_GE(average, lowest) << "at " << t;
        EXPECT_LE(average, highest) << "at " << t;

        std::vector<Line> acquired;
        for (const Line& l : ofKind(lines, "boost", "acquired")) {
            if (l.ms == t) acquired.push_back(l);
        }
        if (average > up && !boosted) {
            ASSERT_EQ(acquired.size(), eligible.size()) << "boost expected at " << t;
            for (size_t k = 0; k < eligible.size(); ++k) {
                const unsigned encoded =
                        (static_cast<unsigned>(eligible[k]) << 8) | 0x80u | (-scale & 0x7F);
                char hex[32];
                snprintf(hex, sizeof(hex), "encoded 0x%X", encoded);
                EXPECT_THAT(acquired[k].text, HasSubstr("pid " + std::to_string(eligible[k])));
                EXPECT_THAT(acquired[k].text, HasSubstr("value " + std::to_string(scale)));
                EXPECT_THAT(acquired[k].text, HasSubstr(hex));
            }
            boosted = true;
            ++boosts;
        } else if (average < down && boosted) {
            ASSERT_EQ(acquired.size(), eligible.size()) << "unboost expected at " << t;
            for (const Line& l : acquired) EXPECT_THAT(l.text, HasSubstr("value 0 (unboosted)"));
            boosted = false;
            ++unboosts;
        } else {
            EXPECT_TRUE(acquired.empty()) << "no change expected at " << t;
        }
    }
    EXPECT_EQ(boosts, 2);
    EXPECT_EQ(unboosts, 1);
    // Stopping the video while boosted takes the scale back at once.
    ASSERT_TRUE(boosted);
    int atStop = 0;
    for (const Line& l : ofKind(lines, "boost", "value 0 (unboosted)")) atStop += l.ms == stopMs;
    EXPECT_EQ(atStop, static_cast<int>(eligible.size()));
    EXPECT_TRUE(ofKind(lines, "boost", "system_server").empty());
}

// Deep mode: 1.5 s after each low-power hint the DEFAULT profile is taken and the property
// list is applied, pair by pair, in the order the configuration check predicts (the scalar
// settings included); leaving puts back the first character of each value from before.
TEST_F(PwrSimTest, DeepModeScenario_PropertiesSetAndRestoredAsConfigured) {
    pwr::sim::Scenario scenario;
    pwr::tools::FeatureConfig config;
    ASSERT_NO_FATAL_FAILURE(loadBundled("deep-mode.json", &scenario, &config));
    const std::vector<std::string> pieces =
            pwr::tools::FeatureKeys::deepModeProperties(config.info);
    std::vector<int64_t> entries;
    std::vector<int64_t> leaves;
    for (const auto& e : scenario.events) {
        const unsigned type = e.event.payload.hintType & 0x7F;
        (type == 3 ? entries : leaves).push_back(e.timeMs);
    }
    ASSERT_EQ(entries.size(), 2u);
    ASSERT_EQ(leaves.size(), 2u);

    const std::string root = mDir + "/device";
    const ToolRun r = run({source("configs/sim/deep-mode.json"), "--device-root", root});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::vector<Line> lines = timeline(r.out);
    const std::vector<Line> deep = ofKind(lines, "lock", "acquired #");
    std::vector<Line> defaults;
    for (const Line& l : deep) {
        if (l.text.find(" DEFAULT {") != std::string::npos) defaults.push_back(l);
    }
    ASSERT_EQ(defaults.size(), entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(defaults[i].ms, entries[i] + 1500) << i;
        // Every pair of the list is written at that moment, in order.
        std::vector<std::string> written;
        for (const Line& l : ofKind(lines, "prop")) {
            if (l.ms != defaults[i].ms) continue;
            // "<set|restored> <name> = "<value>" ...": the verb does not matter here.
            const size_t name = l.text.find(' ') + 1;
            const size_t eq = l.text.find(" = \"");
            written.push_back(l.text.substr(name, eq - name));
            written.push_back(l.text.substr(eq + 4, l.text.find('"', eq + 4) - eq - 4));
        }
        std::vector<std::string> expected(pieces.begin(), pieces.end() - pieces.size() % 2);
        EXPECT_EQ(written, expected) << i;
    }
    // Leaving restores the scenario's properties: the single-character ones exactly, the
    // longer one as its first character.
    for (int64_t leave : leaves) {
        for (const auto& [name, before] : scenario.properties) {
            const std::string restored = "restored " + name + " = \"" + before.substr(0, 1) + "\"";
            bool found = false;
            for (const Line& l : ofKind(lines, "prop", restored)) found = found || l.ms == leave;
            EXPECT_TRUE(found) << restored << " at " << leave;
        }
    }
    EXPECT_THAT(
            r.out,
            HasSubstr("vendor.display.lpm: \"0\" -> \"1\" -> ... -> \"0\" (4 writes): restored"));
    EXPECT_THAT(r.out,
                HasSubstr("vendor.gpu.idle_level: \"12\" -> \"0\" -> ... -> \"1\" (4 writes): "
                          "NOT restored"));
    // The property store of the kept device tree holds what the summary says.
    std::string value;
    ASSERT_TRUE(
            android::base::ReadFileToString(root + "/data/property/vendor.gpu.idle_level", &value));
    EXPECT_EQ(value, "1");
    EXPECT_TRUE(std::filesystem::exists(root + "/data/vendor/pwr/InputPMDB.db"));
}

TEST_F(PwrSimTest, TwoRunsGiveIdenticalOutput) {
    for (const char* other : {"video-battery.json", "deep-mode.json"}) {
        const ToolRun a = run({source(std::string("configs/sim/") + other)});
        const ToolRun b = run({source(std::string("configs/sim/") + other)});
        ASSERT_EQ(a.status, 0) << a.err;
        EXPECT_EQ(a.out, b.out) << other;
        EXPECT_EQ(a.err, b.err) << other;
    }
    const ToolRun first = run({source("configs/sim/game-climb.json"), "--out", mDir + "/a"});
    const ToolRun second = run({source("configs/sim/game-climb.json"), "--out", mDir + "/b"});
    ASSERT_EQ(first.status, 0) << first.err;
    ASSERT_EQ(second.status, 0) << second.err;
    // Only the output folder named on the last line differs.
    auto body = [](const std::string& out) { return out.substr(0, out.rfind("\nWrote ")); };
    EXPECT_EQ(body(first.out), body(second.out));
    for (const char* file : {"timeline.txt", "summary.txt", "trace.json", "plot.svg"}) {
        std::string a;
        std::string b;
        ASSERT_TRUE(android::base::ReadFileToString(mDir + "/a/" + file, &a)) << file;
        ASSERT_TRUE(android::base::ReadFileToString(mDir + "/b/" + file, &b)) << file;
        EXPECT_EQ(a, b) << file;
        EXPECT_FALSE(a.empty()) << file;
    }
}

// The trace opens in the trace viewers: valid JSON, counter tracks with values, one complete
// slice per lock held, in microseconds.
TEST_F(PwrSimTest, TraceHasCounterTracksAndLockSlices) {
    const ToolRun r = run({source("configs/sim/game-climb.json"), "--quiet", "--out", mDir});
    ASSERT_EQ(r.status, 0) << r.err;
    std::string text;
    ASSERT_TRUE(android::base::ReadFileToString(mDir + "/trace.json", &text));
    const nlohmann::json trace = nlohmann::json::parse(text);
    std::map<std::string, int> counters;
    std::vector<nlohmann::json> slices;
    for (const auto& e : trace.at("traceEvents")) {
        if (e.at("ph") == "C") ++counters[e.at("name").get<std::string>()];
        if (e.at("ph") == "X" && e.at("cat") == "lock") slices.push_back(e);
    }
    for (const char* name : {"GPU frequency (MHz)", "GPU busy (%)", "GPU profile level (level)",
                             "Boosted tasks (tasks)", "PSM mode (mode)"}) {
        EXPECT_GT(counters[name], 1) << name;
    }
    ASSERT_EQ(slices.size(), 4u);
    EXPECT_EQ(slices[0].at("name"), "DYN_GPU_2_SAVING");
    EXPECT_EQ(slices[0].at("ts").get<int64_t>(), 64500000);
    EXPECT_GT(slices[0].at("dur").get<int64_t>(), 0);

    std::string svg;
    ASSERT_TRUE(android::base::ReadFileToString(mDir + "/plot.svg", &svg));
    for (const char* label : {"GPU frequency (MHz)", "GPU busy (%)", "time (minutes)",
                              "sampled by the feature", "DYN_GPU_1_BALANCED"}) {
        EXPECT_THAT(svg, HasSubstr(label));
    }
}

TEST_F(PwrSimTest, BadInputGetsOneErrorNamingFileAndPlace) {
    const std::string json = write("bad.json", "{\n  \"duration\": 10,\n  \"apps\": {,}\n}\n");
    ToolRun r = run({json});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(r.err, ::testing::StartsWith("pwr-sim: error: " + json + ":3:12: syntax error"));
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1);

    const std::string wrong = write("wrong.json", R"({"duration": 10, "gpu": {"trace": []}})");
    r = run({wrong, "--config", source("configs/game.xml")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "pwr-sim: error: " + wrong + ": gpu: \"frequencies_mhz\" is missing\n");

    const std::string noConfig = write("noconfig.json", R"({"duration": 10})");
    r = run({noConfig});
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.err, HasSubstr(noConfig + ": no configuration"));

    const std::string xml = write("bad.xml", "<Feature name=\"PSMPowerOptFeature\">\n<Configs>\n");
    r = run({noConfig, "--config", xml});
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.err, ::testing::StartsWith("pwr-sim: error: " + xml + ":"));

    // A configuration the feature throws on: the key and its line are named.
    const std::string throwing =
            write("throws.xml",
                  "<Feature name=\"PSMPowerOptFeature\">\n<Configs>\n"
                  "<Config name=\"PSM_STATE\" value=\"zero\"/>\n</Configs>\n</Feature>\n");
    r = run({noConfig, "--config", throwing});
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.err, HasSubstr(throwing + ":3: config \"PSM_STATE\" = \"zero\" is not a number"));
}

// Both tools' command lines: a usage error exits 2 with a line naming the argument at fault,
// followed by the usage text where the arguments as a whole are wrong; --help prints the usage
// on the standard output and exits 0 whatever follows.
TEST_F(PwrSimTest, CommandLineErrorsAndHelp) {
    struct Row {
        const char* tool;
        std::vector<std::string> args;
        std::string errLine;  // empty: the usage text alone
        bool usage;
    };
    const Row rows[] = {
            {PWR_SIM_PATH, {"--frobnicate"}, "pwr-sim: unknown option --frobnicate", true},
            {PWR_SIM_PATH, {"a.json", "-x"}, "pwr-sim: unknown option -x", true},
            {PWR_SIM_PATH, {"--quiet=yes", "a.json"}, "pwr-sim: unknown option --quiet=yes", true},
            {PWR_SIM_PATH, {"a.json", "--out"}, "pwr-sim: --out needs a value", false},
            {PWR_SIM_PATH, {"--config", "", "a.json"}, "pwr-sim: --config needs a value", false},
            {PWR_SIM_PATH, {"a.json", "b.json"}, "pwr-sim: too many arguments", true},
            {PWR_SIM_PATH, {}, "", true},
            {PWR_SIM_PATH, {"--strict", "a.xml"}, "", true},
            {PWR_REPLAY_PATH,
             {"--frobnicate", "a.xml", "b.events"},
             "pwr-replay: unknown option --frobnicate",
             true},
            {PWR_REPLAY_PATH,
             {"a.xml", "b.events", "--plugin"},
             "pwr-replay: --plugin needs a value",
             false},
            {PWR_REPLAY_PATH,
             {"--device-root", "", "a.xml", "b.events"},
             "pwr-replay: --device-root needs a directory",
             false},
            {PWR_REPLAY_PATH, {"a.xml", "b.events", "c"}, "pwr-replay: too many arguments", true},
            {PWR_REPLAY_PATH, {"a.xml"}, "", true},
    };
    for (const Row& row : rows) {
        const std::string name = std::string(row.tool) + " " + ::testing::PrintToString(row.args);
        const ToolRun r = run(row.args, row.tool);
        EXPECT_EQ(r.status, 2) << name;
        EXPECT_EQ(r.out, "") << name;
        const size_t usage = r.err.find("usage: ");
        EXPECT_EQ(usage != std::string::npos, row.usage) << name;
        std::string expected = row.errLine.empty() ? "" : row.errLine + "\n";
        if (row.usage && !row.errLine.empty()) expected += "\n";
        EXPECT_EQ(r.err.substr(0, row.usage ? usage : std::string::npos), expected) << name;
    }
    for (const char* tool : {PWR_SIM_PATH, PWR_REPLAY_PATH}) {
        const ToolRun r = run({"a", "--help", "--frobnicate"}, tool);
        EXPECT_EQ(r.status, 0) << tool;
        EXPECT_THAT(r.out, ::testing::StartsWith("usage: ")) << tool;
        EXPECT_EQ(r.err, "") << tool;
    }
}

TEST_F(PwrSimTest, CheckModeNamesEachProblemWithItsKey) {
    ToolRun r = run({"--check", source("configs/game.xml")});
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_THAT(r.out, HasSubstr("0 errors, 0 warnings"));

    const std::string two = write(
            "two.xml",
            "<Feature name=\"PSMPowerOptFeature\">\n<Configs>\n"
            "<Config name=\"PSM_STATE\" value=\"0\"/>\n<Config name=\"DEEP_MODE\" value=\"0\"/>\n"
            "<Config name=\"GPUMode\" value=\"1\"/>\n<Config name=\"GAME_TIMER\" value=\"5OO\"/>\n"
            "<Config name=\"GPU_SAMPLE_COUNT\" value=\"5\"/>\n"
            "<Config name=\"STABILITY_SAMPLE_COUNT\" value=\"3\"/>\n"
            "<Config name=\"GPU_Freq_THRESHOLD_LOW\" value=\"300\"/>\n"
            "<Config name=\"GPU_Freq_THRESHOLD_HIGH\" value=\"600\"/>\n</Configs>\n<Profiles>\n"
            "<Profile name=\"PROFILE_LIGHT_MODE\"><PerfLock>1, 2</PerfLock></Profile>\n"
            "<Profile name=\"DYN_A\"><PerfLock>1, 2</PerfLock></Profile>\n"
            "<Profile name=\"DYN_B\"><PerfLock>1, 3</PerfLock></Profile>\n"
            "</Profiles>\n</Feature>\n");
    r = run({"--check", two});
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.out,
                HasSubstr(two + ":6: warning: config \"GAME_TIMER\" = \"5OO\" is read as 5"));
    EXPECT_THAT(r.out,
                HasSubstr(two + ": error: config \"GPU_BUSY_STABILITY_THRESHOLD\" is missing"));
    EXPECT_THAT(r.out, HasSubstr(two + ": error: only 2 profile(s) whose name contains \"DYN_\""));
    EXPECT_THAT(r.out, HasSubstr(two + ": 2 errors, 1 warning"));

    // Warnings alone pass, unless --strict.
    const std::string warnOnly = write(
            "warn.xml",
            "<Feature name=\"PSMPowerOptFeature\">\n<Configs>\n"
            "<Config name=\"PSM_STATE\" value=\"0\"/>\n<Config name=\"DEEP_MODE\" value=\"0\"/>\n"
            "<Config name=\"GPUMode\" value=\"0x1\"/>\n</Configs>\n<Profiles>\n"
            "<Profile name=\"PROFILE_LIGHT_MODE\"><PerfLock>1, 2</PerfLock></Profile>\n"
            "</Profiles>\n</Feature>\n");
    EXPECT_EQ(run({"--check", warnOnly}).status, 0);
    EXPECT_EQ(run({"--check", "--strict", warnOnly}).status, 1);

    r = run({"--check", write("broken.xml", "<Feature")});
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.out, HasSubstr("broken.xml:1: "));
}

}  // namespace

// Closed loop: a profile whose GPU cap lies under the frequency the device runs at lowers that
// frequency from the feature's next tick (500 ms) on, and the feature sees what it caused.
TEST_F(PwrSimTest, ClosedLoop_LockTakenAtATickLimitsTheGpuFromTheNextTick) {
    const std::string config = write("capping.xml", R"(<Feature name="PSMPowerOptFeature"><Configs>
        <Config name="PSM_STATE" value="0"/><Config name="DEEP_MODE" value="0"/>
        <Config name="GPUMode" value="1"/><Config name="GAME_TIMER" value="500"/>
        <Config name="GPU_SAMPLE_COUNT" value="3"/><Config name="STABILITY_SAMPLE_COUNT" value="2"/>
        <Config name="GPU_BUSY_STABILITY_THRESHOLD" value="10"/>
        <Config name="GPU_Freq_THRESHOLD_LOW" value="300"/>
        <Config name="GPU_Freq_THRESHOLD_HIGH" value="600"/></Configs><Profiles>
        <Profile name="PROFILE_LIGHT_MODE"><PerfLock>0x40C00000, 1</PerfLock></Profile>
        <Profile name="DYN_GPU_0"><PerfLock>0x42804000, 900</PerfLock></Profile>
        <Profile name="DYN_GPU_1"><PerfLock>0x42804000, 267</PerfLock></Profile>
        <Profile name="DYN_GPU_2"><PerfLock>0x42804000, 180</PerfLock></Profile>
        </Profiles></Feature>)");
    // 350 MHz of work: 430 MHz serves it within the model's 90% target.
    const std::string scenario = write("s.json", R"({"duration": 30, "apps": {"g": "game"},
        "gpu": {"frequencies_mhz": [180, 850], "trace": [{"t": 0, "freq_mhz": 350, "busy": 100}]},
        "events": [{"t": 1, "event": "hint 2 1"}, {"t": 2, "event": "start g/.Main"}]})");
    const std::string recordingPath = mDir + "/recording.json";
    const ToolRun run =
            this->run({scenario, "--config", config, "--device", source("configs/sim/phone.json"),
                       "--quiet", "--recording", recordingPath});
    ASSERT_EQ(run.status, 0) << run.err;
    std::string text;
    std::string error;
    pwr::sim::Recording recording;
    ASSERT_TRUE(android::base::ReadFileToString(recordingPath, &text));
    ASSERT_TRUE(pwr::sim::RecordingJson::parseText(text, recordingPath, &recording, &error))
            << error;
    // The cap reads as an underused GPU: the feature then takes the lowest profile too.
    struct Step {
        const char* profile;
        double before, after;
    };
    const Step steps[] = {{"DYN_GPU_1", 430, 267}, {"DYN_GPU_2", 267, 180}};
    ASSERT_EQ(recording.locks.size(), std::size(steps));
    const pwr::sim::CounterTrack& clock = recording.counters.at(pwr::sim::kCounterGpuFreq);
    for (size_t i = 0; i < std::size(steps); ++i) {
        const pwr::sim::LockSlice& lock = recording.locks[i];
        EXPECT_EQ(lock.name, steps[i].profile);
        EXPECT_EQ(clock.at(lock.startMs), steps[i].before) << lock.name;
        EXPECT_EQ(clock.at(lock.startMs + 500), steps[i].after) << lock.name;
    }
}

TEST_F(PwrSimTest, Sweep_WritesARowPerRunAndChecksKeysFirst) {
    // The sweep starts pwr-sim again for each run; under qemu-user without binfmt_misc the
    // kernel cannot run the cross-built program by itself.
    if (getenv("PWR_TEST_EMULATOR") != nullptr) GTEST_SKIP() << "runs start pwr-sim natively";
    const std::string out = mDir + "/sweep";
    const std::vector<std::string> common = {"sweep",
                                             "--config",
                                             source("configs/game.xml"),
                                             "--device",
                                             source("configs/sim/phone.json"),
                                             "--out",
                                             out};
    std::vector<std::string> bad = common;
    bad.insert(bad.end(), {"--set", "GPU_THRESHOLD=1,2", source("configs/sim/game-climb.json")});
    const ToolRun refused = run(bad);
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr("game.xml: no <Config name=\"GPU_THRESHOLD\"> to sweep"));

    std::vector<std::string> args = common;
    args.insert(args.end(),
                {"--set", "GPU_Freq_THRESHOLD_LOW=250,300", source("configs/sim/game-climb.json")});
    const ToolRun done = run(args);
    ASSERT_EQ(done.status, 0) << done.err;
    std::string csv;
    ASSERT_TRUE(android::base::ReadFileToString(out + "/sweep.csv", &csv));
    std::vector<std::string> rows;
    std::istringstream in(csv);
    for (std::string line; std::getline(in, line);) rows.push_back(line);
    ASSERT_EQ(rows.size(), 3u) << csv;
    // The 300 MHz threshold keeps the saving profile through the climb and saturates more.
    EXPECT_THAT(rows[1], HasSubstr(",250,ok,"));
    EXPECT_THAT(rows[2], HasSubstr(",300,ok,"));
    EXPECT_TRUE(std::filesystem::exists(out + "/tradeoff.svg"));
}
