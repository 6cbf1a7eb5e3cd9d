// Runs the pwr-sim tool as an engineer does, one scenario per process: the bundled scenarios
// against golden files (scripts/update-goldens.sh writes them anew), the report in a real
// browser, and the failure paths a user meets first.

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/strings.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "host/sim/RecordingJson.h"
#include "tests/support/ToolRun.h"

namespace {

using pwr::test::ToolRun;
using ::testing::HasSubstr;

const std::string kSource = std::string(PWR_SOURCE_DIR) + "/";

bool emulated() {
    const char* emulator = getenv("PWR_TEST_EMULATOR");
    return emulator != nullptr && emulator[0] != '\0';
}

class PwrSimTest : public ::testing::Test {
  protected:
    ToolRun run(std::vector<std::string> args, const char* tool = PWR_SIM_PATH) {
        args.insert(args.begin(), tool);
        return pwr::test::runTool(args, mDir);
    }

    std::string write(const std::string& name, const std::string& content) {
        const std::string path = mDir + "/" + name;
        EXPECT_TRUE(android::base::WriteStringToFile(content, path));
        return path;
    }

    std::string read(const std::string& path) {
        std::string text;
        EXPECT_TRUE(android::base::ReadFileToString(path, &text)) << path;
        return text;
    }

    TemporaryDir mTemporary;
    const std::string mDir = mTemporary.path;
};

// A scenario whose output is kept as a golden file, and lines that output must hold whatever
// the golden says (so that a regenerated golden cannot lose them unseen).
struct GoldenRow {
    const char* name;
    std::vector<std::string> args;  // relative to the source folder
    std::vector<std::string> mustHold;
    // Deep mode's property list follows the configuration map's iteration order, which a 32-bit
    // build's hash differs in: the golden is a 64-bit build's.
    bool mapOrder = false;
    friend void PrintTo(const GoldenRow& row, std::ostream* os) { *os << row.name; }
};

class GoldenTest : public PwrSimTest, public ::testing::WithParamInterface<GoldenRow> {};

// The brief timeline and the summary, with the source folder and the plug-in's path (which
// differ between checkouts and builds) taken out.
std::string normalized(std::string out) {
    for (size_t at; (at = out.find(kSource)) != std::string::npos;) out.erase(at, kSource.size());
    return std::regex_replace(out, std::regex("(  load +)[^\n]*"), "$1<plug-in>");
}

TEST_P(GoldenTest, OutputMatchesItsGolden) {
    const GoldenRow& row = GetParam();
    if (row.mapOrder && sizeof(size_t) != 8) {
        GTEST_SKIP() << "deep mode pairs its properties in the map order of a 64-bit build";
    }
    std::vector<std::string> args = {"--brief"};
    for (const std::string& a : row.args) args.push_back(a[0] == '-' ? a : kSource + a);
    const ToolRun r = run(args);
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string out = normalized(r.out);
    const std::string golden = kSource + "tests/sim/golden/" + row.name + ".txt";
    if (getenv("PWR_UPDATE_GOLDENS") != nullptr) {
        ASSERT_TRUE(android::base::WriteStringToFile(out, golden)) << golden;
    }
    EXPECT_EQ(out, read(golden)) << "regenerate with scripts/update-goldens.sh if intended";
    for (const std::string& line : row.mustHold) EXPECT_THAT(out, HasSubstr(line)) << row.name;
}

INSTANTIATE_TEST_SUITE_P(
        Scenarios, GoldenTest,
        ::testing::Values(
                GoldenRow{"game-climb",
                          {"configs/sim/game-climb.json"},
                          {"acquired #1 DYN_GPU_2_SAVING", "profile switches: 3",
                           "no GPU profile yet: waiting for a stable GPU, busy range"}},
                GoldenRow{"game-climb-closed-loop",
                          {"--device", "configs/sim/phone.json", "configs/sim/game-climb.json"},
                          {"Charge and GPU performance (closed loop", "by phase"}},
                GoldenRow{"video-battery",
                          {"configs/sim/video-battery.json"},
                          {"value -20",
                           "PSM mode 3, but no application the battery monitor "
                           "serves has started"},
                          true},
                GoldenRow{"deep-mode",
                          {"configs/sim/deep-mode.json"},
                          {"deep mode applied (state 3)", "deep mode applied:     0:01:32.000",
                           "restored vendor.gpu.idle_level = \"1\""},
                          true},
                GoldenRow{"phone-session",
                          {"configs/sim/phone-session.json"},
                          {"warning: the GPU trace was never read"}},
                // Each explanation the timeline gives for a lock not taken.
                GoldenRow{"race-700",
                          {"tests/sim/data/race-700.json"},
                          {"no GPU profile yet: 0 of 5 samples (GPU_SAMPLE_COUNT) kept",
                           "waiting for a stable GPU, busy range 47 points is above 10",
                           "1 of 3 stable checks in a row (STABILITY_SAMPLE_COUNT)",
                           "is level 0, the level already in force, so the monitor takes no lock",
                           "the battery is not watched: PSM mode 2 does not read it",
                           "warning: the battery trace was never read"}}),
        [](const auto& info) {
            std::string name = info.param.name;
            std::replace(name.begin(), name.end(), '-', '_');
            return name;
        });

// --out writes every file; the trace is JSON with lock slices and the state lanes; the report
// works in a real browser: its kind filter shows only the kinds asked for.
TEST_F(PwrSimTest, OutFilesAndTheReportInABrowser) {
    const std::string out = mDir + "/out";
    const ToolRun r = run({kSource + "configs/sim/game-climb.json", "--quiet", "--out", out});
    ASSERT_EQ(r.status, 0) << r.err;
    const nlohmann::json trace = nlohmann::json::parse(read(out + "/trace.json"));
    int locks = 0;
    int lanes = 0;
    for (const auto& e : trace.at("traceEvents")) {
        locks += e.at("ph") == "X" && e.value("cat", "") == "lock" ? 1 : 0;
        lanes += e.at("ph") == "X" && e.value("cat", "") == "state" ? 1 : 0;
    }
    EXPECT_EQ(locks, 4);
    EXPECT_EQ(lanes, 2);  // gaming usable mode and the foreground app, each once
    EXPECT_THAT(read(out + "/plot.svg"), HasSubstr("threshold high"));

    const char* chromium = "/usr/bin/chromium";
    if (access(chromium, X_OK) != 0) GTEST_SKIP() << "no " << chromium << " (CI installs it)";
    // The browser is the build machine's program; under the emulator it would inherit the
    // target's library paths. The page is the same bytes on every build.
    if (emulated()) GTEST_SKIP() << "the host's browser does not run under the emulator";
    int expected = 0;
    for (const std::string& line : android::base::Split(read(out + "/timeline.txt"), "\n")) {
        if (line.find("  why ") != std::string::npos || line.find("  lock ") != std::string::npos) {
            ++expected;
        }
    }
    const ToolRun dom = pwr::test::runTool(
            {chromium, "--headless", "--no-sandbox", "--disable-gpu", "--no-first-run",
             "--disable-background-networking", "--disable-component-update", "--disable-sync",
             "--user-data-dir=" + mDir + "/profile", "--dump-dom",
             "file://" + out + "/report.html?kinds=why,lock"},
            mDir);
    ASSERT_EQ(dom.status, 0) << dom.err;
    EXPECT_THAT(dom.out, HasSubstr(">" + std::to_string(expected) + " lines shown<"));
    EXPECT_THAT(dom.out, HasSubstr("<tr class=\"log\" style=\"display: none;\">"));
    EXPECT_THAT(dom.out, HasSubstr("<tr class=\"why\">"));
}

// Each mistake gets one error line naming the file and the line or key path, before anything
// runs.
TEST_F(PwrSimTest, BadInputGetsOneErrorNamingFileAndPlace) {
    const std::string config = kSource + "configs/game.xml";
    struct Row {
        std::string content;  // the scenario
        std::vector<std::string> args;
        std::string error;  // after "pwr-sim: error: <file>"
    };
    const Row rows[] = {
            {"{\n  \"duration\": 10,\n  \"apps\": {,}\n}\n", {}, ":3:12: syntax error"},
            {R"({"duration": 10, "events": [{"t": 1, "event": "start a\u0000b"}]})",
             {"--config", config},
             ": events[0].event: holds a NUL character"},
            {R"({"duration": 10})", {}, ": no configuration"},
            {R"({"duration": 10})",
             {"--config", config, "--out", "/proc/pwr-sim"},
             "cannot make the output folder /proc/pwr-sim"},
    };
    for (const Row& row : rows) {
        const std::string scenario = write("s.json", row.content);
        std::vector<std::string> args = row.args;
        args.insert(args.begin(), scenario);
        const ToolRun r = run(args);
        EXPECT_EQ(r.status, 1) << row.content;
        EXPECT_EQ(r.out, "") << row.content;
        EXPECT_THAT(r.err, HasSubstr(row.error)) << row.content;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
    // A configuration the feature throws on: the key and its line are named.
    const std::string throwing =
            write("throws.xml",
                  "<Feature name=\"PSMPowerOptFeature\">\n<Configs>\n"
                  "<Config name=\"PSM_STATE\" value=\"zero\"/>\n</Configs>\n</Feature>\n");
    const ToolRun r = run({write("s.json", R"({"duration": 10})"), "--config", throwing});
    EXPECT_THAT(r.err, HasSubstr(throwing + ":3: config \"PSM_STATE\" = \"zero\" is not a number"));
    // A NUL byte would cut an application's name short where a C string ends.
    using namespace std::string_literals;
    const std::string nul = write("nul.xml",
                                  "<Feature name=\"PSMPowerOptFeature\">\n<AppList>\n"
                                  "<App>com.a\0pp</App>\n</AppList>\n</Feature>\n"s);
    EXPECT_THAT(run({"--check", nul}).out, HasSubstr(nul + ":3: holds a NUL character"));
}

// A scenario and a configuration reached through symbolic links, or the scenario on standard
// input, are read as the files themselves.
TEST_F(PwrSimTest, SymbolicLinksAndStandardInput) {
    const std::string scenario = mDir + "/linked.json";
    const std::string config = mDir + "/linked.xml";
    std::filesystem::create_symlink(kSource + "tests/sim/data/race-700.json", scenario);
    std::filesystem::create_symlink(kSource + "configs/game.xml", config);
    const ToolRun linked = run({scenario, "--config", config, "--quiet"});
    EXPECT_EQ(linked.status, 0) << linked.err;
    EXPECT_THAT(linked.out, HasSubstr("A race at 700 MHz takes no lock"));
    EXPECT_EQ(run({"--check", config}).status, 0);

    if (emulated()) GTEST_SKIP() << "the shell that feeds standard input is not emulated";
    const ToolRun piped = pwr::test::runTool(
            {"/bin/sh", "-c",
             std::string(PWR_SIM_PATH) + " - --quiet --config " + config + " < " + scenario},
            mDir);
    EXPECT_EQ(piped.status, 0) << piped.err;
    EXPECT_EQ(piped.out, linked.out);
}

// Ctrl-C stops a long run: exit status 130, the temporary device tree and the files of the
// unfinished run are gone.
TEST_F(PwrSimTest, InterruptedRunLeavesNothingBehind) {
    if (emulated()) GTEST_SKIP() << "timeout(1) runs the tool natively";
    const std::string scenario = write("day.json", R"({"duration": 86400, "apps": {"g": "game"},
        "config": ")" + kSource + R"(configs/game.xml",
        "gpu": {"frequencies_mhz": [180, 850], "trace": [{"t": 0, "freq_mhz": 500, "busy": 60,
                "busy_swing": 30, "swing_period": 3}]},
        "events": [{"t": 1, "event": "hint 2 1"}, {"t": 2, "event": "start g/.Main"}]})");
    const std::string tmp = mDir + "/tmp";
    std::filesystem::create_directory(tmp);
    const std::string out = mDir + "/out";
    const ToolRun r =
            pwr::test::runTool({"/usr/bin/env", "TMPDIR=" + tmp, "timeout", "--preserve-status",
                                "-s", "INT", "1", PWR_SIM_PATH, scenario, "--quiet", "--out", out},
                               mDir);
    EXPECT_EQ(r.status, 130) << r.err;
    EXPECT_THAT(r.err, HasSubstr("interrupted"));
    EXPECT_TRUE(std::filesystem::is_empty(tmp));
    EXPECT_TRUE(std::filesystem::is_empty(out));
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

// Each value a part of the feature cannot work with is an error naming its line; what is only
// odd is a warning, which fails --strict.
TEST_F(PwrSimTest, CheckNamesEachProblemWithItsLine) {
    struct Row {
        std::string from, to;
        std::string line;  // ":<line>: error: ..." or warning
    };
    const Row rows[] = {
            {"", "", ": 0 errors, 0 warnings"},
            {"name=\"PSMPowerOptFeature\"", "name=\"PSMPowerOpt\"",
             ":7: error: <Feature name=\"PSMPowerOpt\">: the plug-in registers its feature as"},
            {"\"PSM_STATE\" value=\"0\"", "\"PSM_STATE\" value=\"9\"",
             ":10: error: config \"PSM_STATE\" = 9: event dispatch knows the PSM modes 0 to 3"},
            {"GPU_Freq_THRESHOLD_HIGH", "GPU_FREQ_THRESHOLD_HIGH",
             ":22: error: config \"GPU_FREQ_THRESHOLD_HIGH\" is read by no part; did you mean "
             "\"GPU_Freq_THRESHOLD_HIGH\"?"},
            {"0x40804000, 0x5DC", "0x40804000",
             ":27: error: profile \"PROFILE_LIGHT_MODE\" has a first <PerfLock> of 3 numbers"},
            {"\"GPU_SAMPLE_COUNT\" value=\"5\"", "\"GPU_SAMPLE_COUNT\" value=\"0\"",
             ":18: error: config \"GPU_SAMPLE_COUNT\" = 0: the GPU monitor keeps at most"},
            {"    </Configs>", "<Config name=\"MAX_SAMPLE_NUM\" value=\"5\"/></Configs>",
             ":23: warning: config \"MAX_SAMPLE_NUM\" is read only with \"DEEP_MODE\" on"},
    };
    const std::string game = read(kSource + "configs/game.xml");
    for (const Row& row : rows) {
        // The bundled game configuration with one thing changed.
        std::string xml = game;
        if (!row.from.empty()) xml.replace(xml.find(row.from), row.from.size(), row.to);
        const std::string path = write("c.xml", xml);
        const ToolRun r = run({"--check", path});
        EXPECT_THAT(r.out, HasSubstr(path + row.line)) << row.to;
        EXPECT_EQ(r.status, row.line.find(": error: ") != std::string::npos ? 1 : 0) << r.out;
        EXPECT_EQ(run({"--check", "--strict", path}).status, row.from.empty() ? 0 : 1) << r.out;
    }
    // A deep-mode configuration passes --strict: its single values are told as notes.
    const ToolRun deep = run({"--check", "--strict", kSource + "configs/sim/deep-mode.xml"});
    EXPECT_EQ(deep.status, 0) << deep.out;
    EXPECT_THAT(deep.out, HasSubstr(": note: config \"DEEP_MODE\" = \"1\" holds 1"));

    const ToolRun json = run({"--check", kSource + "configs/sim/game-climb.json"});
    EXPECT_EQ(json.status, 1);
    EXPECT_THAT(json.out, HasSubstr("game-climb.json: error: this is a JSON file"));
    EXPECT_THAT(run({"--check", write("broken.xml", "<Feature")}).out, HasSubstr("broken.xml:1: "));
}

// Closed loop: a profile whose GPU cap lies under the frequency the device runs at lowers that
// frequency from the feature's next tick (500 ms) on, and the feature sees what it caused.
TEST_F(PwrSimTest, ClosedLoop_LockTakenAtATickLimitsTheGpuFromTheNextTick) {
    // tests/sim/data/gpu-capping.*: 350 MHz of work, which 430 MHz serves within the model's 90%
    // target, and dynamic profiles capping the GPU at 900, 267 and 180 MHz.
    const std::string config = kSource + "tests/sim/data/gpu-capping.xml";
    const std::string scenario = kSource + "tests/sim/data/gpu-capping.json";
    const std::string recordingPath = mDir + "/recording.json";
    const ToolRun run =
            this->run({scenario, "--config", config, "--device", kSource + "configs/sim/phone.json",
                       "--quiet", "--recording", recordingPath});
    ASSERT_EQ(run.status, 0) << run.err;
    std::string error;
    pwr::sim::Recording recording;
    ASSERT_TRUE(pwr::sim::RecordingJson::parseText(read(recordingPath), recordingPath, &recording,
                                                   &error))
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
    if (emulated()) GTEST_SKIP() << "runs start pwr-sim natively";
    const std::string out = mDir + "/sweep";
    auto sweep = [&](const std::string& set) {
        return run({"sweep", "--config", kSource + "configs/game.xml", "--device",
                    kSource + "configs/sim/phone.json", "--out", out, "--set", set,
                    kSource + "configs/sim/game-climb.json"});
    };
    const ToolRun refused = sweep("GPU_THRESHOLD=1,2");
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr("game.xml: no <Config name=\"GPU_THRESHOLD\"> to sweep"));

    const ToolRun done = sweep("GPU_Freq_THRESHOLD_LOW=250,300");
    ASSERT_EQ(done.status, 0) << done.err;
    std::vector<std::string> rows;
    std::istringstream in(read(out + "/sweep.csv"));
    for (std::string line; std::getline(in, line);) rows.push_back(line);
    ASSERT_EQ(rows.size(), 3u);
    // The 300 MHz threshold keeps the saving profile through the climb and saturates more.
    EXPECT_THAT(rows[1], HasSubstr(",250,ok,"));
    EXPECT_THAT(rows[2], HasSubstr(",300,ok,"));
    EXPECT_TRUE(std::filesystem::exists(out + "/tradeoff.svg"));
}

}  // namespace
