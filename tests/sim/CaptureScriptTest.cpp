// Runs the phone's capture script against a fake phone that a bundled scenario drives, under the
// host's shells, imports what it wrote and compares the scenario with the one that drove the
// phone; and checks that a pwr-sim trace.json imported and replayed gives its device counters back.

#include <unistd.h>

#include <filesystem>
#include <map>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "host/sim/Scenario.h"
#include "tests/support/ToolRun.h"

namespace {

using pwr::sim::Scenario;
using pwr::test::runTool;
using ::testing::HasSubstr;

std::string source(const std::string& path) {
    return std::string(PWR_SOURCE_DIR) + "/" + path;
}

struct Shell {
    const char* name;
    std::vector<std::string> command;
    // Tools the script runs (tr, sed) taken from busybox too, as a stand-in for the phone's
    // toybox, so that an option only the host's tools know shows up.
    bool busyboxTools;
    friend void PrintTo(const Shell& row, std::ostream* os) { *os << row.name; }
};

class CaptureScript : public ::testing::TestWithParam<Shell> {};

// Every shell must write the bundled capture byte for byte: the phone's clock is the fake
// phone's, so the capture is deterministic, and the bundled one stays what the script writes.
// The fake phone interrupts the script when its scenario ends, as Ctrl-C would.
TEST_P(CaptureScript, WritesTheBundledCaptureOfTheScenario) {
    const Shell& shell = GetParam();
    TemporaryDir tmp;
    const std::string dir = tmp.path;
    std::string tools;
    if (shell.busyboxTools) {
        tools = dir + "/bin";
        std::filesystem::create_directories(tools);
        for (const char* applet : {"tr", "sed", "cat"}) {
            ASSERT_EQ(symlink("/bin/busybox", (tools + "/" + applet).c_str()), 0) << applet;
        }
    }
    std::vector<std::string> args = {PWR_SIM_PATH, "phone",
                                     source("configs/sim/phone-session.json"), "--"};
    args.insert(args.end(), shell.command.begin(), shell.command.end());
    for (const char* a : {"scripts/device/pwr-capture.sh", "-p", "1", "-a", "5"}) {
        args.push_back(a[0] == 's' ? source(a) : a);
    }
    // The properties are named here rather than taken from --props-from: deep mode's list pairs
    // its scalar settings by the configuration map's iteration order, which differs between the
    // 64-bit host and a 32-bit build, and the capture must be the same on both.
    for (const char* name : {"vendor.display.lpm", "vendor.pwr.bg_limit"}) args.push_back(name);
    const pwr::test::ToolRun capture = runTool(args, dir, tools);
    ASSERT_EQ(capture.status, 0) << capture.err;
    EXPECT_THAT(capture.err, HasSubstr("# pwr-capture: 241 samples"));
    std::string bundled;
    ASSERT_TRUE(android::base::ReadFileToString(source("configs/sim/capture/phone-session.txt"),
                                                &bundled));
    EXPECT_EQ(capture.out, bundled);
}

INSTANTIATE_TEST_SUITE_P(Shells, CaptureScript,
                         ::testing::Values(Shell{"bash", {"bash"}, false},
                                           Shell{"busybox", {"busybox", "sh"}, true},
                                           Shell{"mksh", {"mksh"}, false}),
                         [](const auto& info) { return std::string(info.param.name); });

// A scenario's applications, trace points and events, one text each; frequencies and shares
// rounded to what whole-second samples resolve.
std::vector<std::string> points(const Scenario& s) {
    using android::base::StringPrintf;
    std::vector<std::string> out;
    for (const auto& a : s.apps) out.push_back(a.package + " " + std::to_string(a.type));
    for (const auto& g : s.gpu) {
        out.push_back(StringPrintf("gpu %lld %.1f %f", static_cast<long long>(g.timeMs), g.freqMhz,
                                   g.busy));
        for (const auto& [mhz, share] : g.residency) {
            if (share >= 5e-4) out.back() += StringPrintf(" %d:%.2f", static_cast<int>(mhz), share);
        }
    }
    for (const auto& b : s.battery) {
        out.push_back(StringPrintf("battery %lld %f", static_cast<long long>(b.timeMs), b.drainMa));
    }
    for (const auto& f : s.foreground) {
        out.push_back("foreground " + std::to_string(f.timeMs));
        for (const auto& p : f.processes)
            out.back() += " " + std::to_string(p.pid) + ":" + p.cmdline;
    }
    for (const auto& e : s.events) {
        if (e.hasEvent) out.push_back(std::to_string(e.timeMs) + " " + e.event.describe());
    }
    return out;
}

// The bundled capture imported gives back the scenario that drove the phone: its samples fall on
// whole seconds and the scenario changes only on multiples of the activity's five seconds.
TEST(CaptureImportRun, BundledCaptureGivesBackTheScenarioThatDroveThePhone) {
    TemporaryDir tmp;
    const std::string dir = tmp.path;
    const std::string out = dir + "/imported.json";
    const pwr::test::ToolRun r =
            runTool({PWR_SIM_PATH, "import", source("configs/sim/capture/phone-session.txt"),
                     "--catalogue", source("configs/sim/capture/apps.catalogue"), "--config",
                     source("configs/sim/video-battery.xml"), "-o", out},
                    dir);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(r.err, HasSubstr("does not cover com.android.launcher3"));
    Scenario imported;
    Scenario original;
    std::string error;
    ASSERT_TRUE(Scenario::parseFile(out, &imported, &error)) << error;
    ASSERT_TRUE(Scenario::parseFile(source("configs/sim/phone-session.json"), &original, &error))
            << error;

    EXPECT_EQ(imported.durationMs, original.durationMs);
    EXPECT_EQ(std::filesystem::path(imported.configPath),
              std::filesystem::path(original.configPath));
    EXPECT_EQ(imported.properties, original.properties);
    EXPECT_EQ(imported.gpuFrequenciesMhz, original.gpuFrequenciesMhz);
    // Where the scenario leaves the split of the time to the simulator, any split is its own.
    for (size_t i = 0; i < std::min(imported.gpu.size(), original.gpu.size()); ++i) {
        if (original.gpu[i].residency.empty()) imported.gpu[i].residency.clear();
    }
    EXPECT_EQ(points(imported), points(original));
}

// The device's counters of a trace.json: GPU clock, busy and battery drain, by track.
std::map<std::string, std::vector<std::pair<double, double>>> deviceCounters(
        const std::string& path) {
    std::string text;
    EXPECT_TRUE(android::base::ReadFileToString(path, &text)) << path;
    std::map<std::string, std::vector<std::pair<double, double>>> out;
    const nlohmann::json trace = nlohmann::json::parse(text, nullptr, false);
    for (const auto& e : trace["traceEvents"]) {
        const std::string name = e.value("name", "");
        if (e.value("ph", "") != "C" || (name != "GPU frequency (MHz)" && name != "GPU busy (%)" &&
                                         name != "Battery drain (mA)")) {
            continue;
        }
        out[name].emplace_back(e["ts"].get<double>(), e["args"].begin()->get<double>());
    }
    return out;
}

class TraceRoundTrip : public ::testing::TestWithParam<const char*> {};

TEST_P(TraceRoundTrip, ImportedTraceReplaysToTheSameDeviceCounters) {
    TemporaryDir tmp;
    const std::string dir = tmp.path;
    Scenario scenario;
    std::string error;
    ASSERT_TRUE(Scenario::parseFile(source(GetParam()), &scenario, &error)) << error;
    const std::string table = android::base::Join(scenario.gpuFrequenciesMhz, ',');
    pwr::test::ToolRun r =
            runTool({PWR_SIM_PATH, source(GetParam()), "--quiet", "--out", dir + "/first"}, dir);
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> import = {
            PWR_SIM_PATH,        "import", dir + "/first/trace.json", "--config",
            scenario.configPath, "-o",     dir + "/imported.json"};
    if (!table.empty()) import.insert(import.end(), {"--gpu-table", table});
    r = runTool(import, dir);
    ASSERT_EQ(r.status, 0) << r.err;
    r = runTool({PWR_SIM_PATH, dir + "/imported.json", "--quiet", "--out", dir + "/second"}, dir);
    ASSERT_EQ(r.status, 0) << r.err;

    const auto first = deviceCounters(dir + "/first/trace.json");
    const auto second = deviceCounters(dir + "/second/trace.json");
    EXPECT_FALSE(first.empty());
    EXPECT_EQ(first, second);
}

INSTANTIATE_TEST_SUITE_P(Bundled, TraceRoundTrip,
                         ::testing::Values("configs/sim/game-climb.json",
                                           "configs/sim/phone-session.json"));

}  // namespace
