#include "host/sim/Compare.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

#include <android-base/file.h>
#include <android-base/stringprintf.h>

#include "host/sim/RecordingJson.h"
#include "host/sim/RunOptions.h"
#include "host/sim/RunPool.h"
#include "host/sim/Scenario.h"
#include "host/sim/Subcommands.h"
#include "host/sim/SummaryJson.h"
#include "host/sim/TempDir.h"
#include "host/tools/FeatureConfigXml.h"
#include "host/tools/ToolOptions.h"

namespace pwr::sim {
namespace {

using android::base::StringPrintf;

constexpr char kTool[] = "pwr-sim compare";
using pwr::tools::kInterrupted;
using pwr::tools::kUsageError;

void usage(std::ostream& out) {
    out << "usage: pwr-sim compare [options] SCENARIO.json CONFIG.xml CONFIG.xml...\n"
           "\n"
           "Runs SCENARIO.json once with each configuration, all at once as separate processes,\n"
           "and prints a side-by-side table: charge, GPU saturation, time on each profile,\n"
           "switches, boosts, properties. With --device the device is closed-loop\n"
           "(docs/device-model.md), which the charge and saturation figures need.\n"
           "\n"
           "options:\n"
           "  --device MODEL.json  the device model\n"
           "  --out DIR            also write DIR/compare.txt, compare.json and compare.svg\n"
           "  --jobs N             runs at once (default: the number of cores)\n"
           "  --plugin PATH        the plug-in library the runs load\n"
           "  -h, --help           this text\n"
           "\n"
           "Exit status: 0 done; 1 an input is invalid or a run failed; 2 usage error; 130\n"
           "interrupted.\n";
}

int fail(const std::string& message) {
    std::cerr << kTool << ": error: " << message << '\n';
    return 1;
}

std::string labelOf(const std::string& path, const std::vector<ComparedRun>& before) {
    std::string label = std::filesystem::path(path).stem().string();
    int same = 0;
    for (const ComparedRun& run : before) same += run.label.rfind(label, 0) == 0 ? 1 : 0;
    return same == 0 ? label : label + "#" + std::to_string(same + 1);
}

std::string timeAndShare(int64_t ms, int64_t whole) {
    return StringPrintf(
            "%s %5.1f%%", formatTime(ms).substr(0, 7).c_str(),
            whole > 0 ? 100.0 * static_cast<double>(ms) / static_cast<double>(whole) : 0.0);
}

}  // namespace

void writeCompareTable(const std::vector<ComparedRun>& runs, std::ostream& out) {
    std::vector<std::pair<std::string, std::vector<std::string>>> rows;
    auto row = [&](std::string name, auto cell) {
        std::vector<std::string> cells;
        for (const ComparedRun& run : runs) cells.push_back(cell(run.summary));
        rows.emplace_back(std::move(name), std::move(cells));
    };
    const bool energy = std::any_of(runs.begin(), runs.end(),
                                    [](const ComparedRun& r) { return !r.summary.energy.empty(); });
    if (energy) {
        auto whole = [](const Summary& s) { return s.energy.empty() ? nullptr : &s.energy[0]; };
        row("charge (mAh)", [&](const Summary& s) {
            return whole(s) ? StringPrintf("%.1f", whole(s)->chargeMah) : "-";
        });
        row("average current (mA)", [&](const Summary& s) {
            return whole(s) ? StringPrintf("%.0f", whole(s)->averageMa) : "-";
        });
        row("battery used", [&](const Summary& s) {
            return whole(s) && s.batteryMah > 0
                           ? StringPrintf("%.2f%%", 100.0 * whole(s)->chargeMah / s.batteryMah)
                           : "-";
        });
        row("GPU saturated", [&](const Summary& s) {
            return whole(s) ? timeAndShare(whole(s)->saturatedMs, s.durationMs) : "-";
        });
        row("GPU work unserved", [&](const Summary& s) {
            const Summary::Energy* e = whole(s);
            return e && e->demandMc > 0
                           ? StringPrintf("%.1f%%", 100.0 * e->unservedMc / e->demandMc)
                           : "-";
        });
    }
    std::vector<std::string> profiles;
    for (const ComparedRun& run : runs) {
        for (const Summary::ProfileTime& p : run.summary.profiles) {
            if (std::find(profiles.begin(), profiles.end(), p.name) == profiles.end()) {
                profiles.push_back(p.name);
            }
        }
    }
    // "(none)" last, as each summary lists it.
    std::stable_partition(profiles.begin(), profiles.end(),
                          [](const std::string& p) { return p != "(none)"; });
    for (const std::string& name : profiles) {
        row("profile " + name, [&](const Summary& s) {
            for (const Summary::ProfileTime& p : s.profiles) {
                if (p.name == name) return timeAndShare(p.heldMs, s.durationMs);
            }
            return std::string("-");
        });
    }
    row("profile switches", [](const Summary& s) { return std::to_string(s.profileSwitches); });
    row("gaming usable mode on",
        [](const Summary& s) { return timeAndShare(s.gamingOnMs, s.durationMs); });
    row("tasks scaled down",
        [](const Summary& s) { return timeAndShare(s.boostedMs, s.durationMs); });
    row("boost locks with a scale",
        [](const Summary& s) { return std::to_string(s.boostAcquisitions); });
    row("properties written / restored", [](const Summary& s) {
        const auto restored = std::count_if(s.properties.begin(), s.properties.end(),
                                            [](const Summary::Property& p) { return p.restored; });
        return StringPrintf("%zu / %ld", s.properties.size(), static_cast<long>(restored));
    });

    size_t nameWidth = 0;
    for (const auto& [name, cells] : rows) nameWidth = std::max(nameWidth, name.size());
    std::vector<size_t> widths;
    for (size_t i = 0; i < runs.size(); ++i) {
        size_t w = runs[i].label.size();
        for (const auto& [name, cells] : rows) w = std::max(w, cells[i].size());
        widths.push_back(w);
    }
    out << StringPrintf("%-*s", static_cast<int>(nameWidth), "");
    for (size_t i = 0; i < runs.size(); ++i) {
        out << StringPrintf("  %*s", static_cast<int>(widths[i]), runs[i].label.c_str());
    }
    out << '\n';
    for (const auto& [name, cells] : rows) {
        out << StringPrintf("%-*s", static_cast<int>(nameWidth), name.c_str());
        for (size_t i = 0; i < cells.size(); ++i) {
            out << StringPrintf("  %*s", static_cast<int>(widths[i]), cells[i].c_str());
        }
        out << '\n';
    }
}

int compareMain(int argc, char** argv) {
    RunOptions options;
    const int exit = options.parse(argc, argv, false, kTool, usage);
    if (exit >= 0) return exit;
    if (options.positional.size() < 3) {
        usage(std::cerr);
        return kUsageError;
    }
    const std::string scenarioPath = options.positional[0];
    const std::vector<std::string> configs(options.positional.begin() + 1,
                                           options.positional.end());
    const std::string& devicePath = options.devicePath;
    const std::string& outDir = options.outDir;

    // Everything is checked before anything runs.
    std::string error;
    Scenario scenario;
    if (!Scenario::parseFile(scenarioPath, &scenario, &error)) return fail(error);
    for (const std::string& config : configs) {
        tools::FeatureConfig parsed;
        if (!tools::FeatureConfigXml::parseFile(config, &parsed, &error)) return fail(error);
    }
    if (!options.checkDeviceAndOutput(&error)) return fail(error);
    TempDir temp;
    if (!temp.create("pwr-sim-compare", &error)) return fail(error);

    std::vector<RunPool::Run> runs;
    for (size_t i = 0; i < configs.size(); ++i) {
        RunPool::Run run;
        const std::string base = temp.path() + "/run-" + std::to_string(i);
        run.args = {scenarioPath, "--config", configs[i], "--quiet", "--recording", base + ".json"};
        for (const std::string& arg : options.runArgs()) run.args.push_back(arg);
        run.outPath = base + ".out";
        run.errPath = base + ".err";
        runs.push_back(std::move(run));
    }
    RunPool pool(RunPool::selfPath(), options.jobs, temp.path());
    const bool completed = pool.runAll(runs, RunPool::terminalProgress("compare", runs.size()));
    RunPool::finishLine();
    if (!completed) {
        std::cerr << kTool << ": interrupted; the runs were stopped\n";
        return kInterrupted;
    }

    std::vector<ComparedRun> compared;
    for (size_t i = 0; i < runs.size(); ++i) {
        std::string text;
        if (runs[i].status != 0) {
            android::base::ReadFileToString(runs[i].errPath, &text);
            return fail(configs[i] + ": the run failed (exit status " +
                        std::to_string(runs[i].status) + "):\n" + text);
        }
        ComparedRun run;
        run.label = labelOf(configs[i], compared);
        const std::string recordingPath = temp.path() + "/run-" + std::to_string(i) + ".json";
        if (!android::base::ReadFileToString(recordingPath, &text) ||
            !RecordingJson::parseText(text, recordingPath, &run.recording, &error)) {
            return fail(error.empty() ? "cannot read " + recordingPath : error);
        }
        run.summary = Summary::of(run.recording);
        compared.push_back(std::move(run));
    }

    std::cout << "Comparison: " << compared.front().recording.scenarioName << " (" << scenarioPath
              << ")";
    if (!devicePath.empty()) std::cout << ", closed loop on " << devicePath;
    std::cout << "\n\n";
    writeCompareTable(compared, std::cout);
    if (outDir.empty()) return 0;

    nlohmann::json json = {{"scenario_file", scenarioPath},
                           {"device_model", devicePath.empty() ? nlohmann::json(nullptr)
                                                               : nlohmann::json(devicePath)},
                           {"runs", nlohmann::json::array()}};
    for (const ComparedRun& run : compared) {
        json["runs"].push_back({{"label", run.label},
                                {"config_file", run.recording.configFile},
                                {"summary", summaryJson(run.summary, run.recording)}});
    }
    const std::filesystem::path dir(outDir);
    std::ofstream table(dir / "compare.txt");
    writeCompareTable(compared, table);
    std::ofstream jsonFile(dir / "compare.json");
    jsonFile << json.dump(2) << '\n';
    std::ofstream plot(dir / "compare.svg");
    writeComparePlot(compared, plot);
    table.close();
    jsonFile.close();
    plot.close();
    if (!table || !jsonFile || !plot) return fail("cannot write the reports in " + outDir);
    std::cout << "\nWrote " << (dir / "compare.txt").string() << ", compare.json and compare.svg\n";
    return 0;
}

}  // namespace pwr::sim
