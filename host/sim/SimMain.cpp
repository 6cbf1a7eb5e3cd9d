// pwr-sim: replays a scenario against the feature plug-in on simulated time and reports what the
// feature did (timeline, summary, trace, plot); or checks a configuration without running it.

#include <errno.h>
#include <getopt.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>

#include "host/sim/ChromeTrace.h"
#include "host/sim/ConfigCheck.h"
#include "host/sim/RecordingJson.h"
#include "host/sim/Simulator.h"
#include "host/sim/Subcommands.h"
#include "host/sim/Summary.h"
#include "host/sim/SummaryJson.h"
#include "host/sim/SvgPlot.h"
#include "host/sim/TimelineWriter.h"
#include "host/tools/ToolOptions.h"

namespace {

constexpr int kUsageError = 2;

void usage(std::ostream& out) {
    out << "usage: pwr-sim [options] SCENARIO.json\n"
           "       pwr-sim --check [--strict] CONFIG.xml\n"
           "       pwr-sim import [options] CAPTURE|TRACE.json   (pwr-sim import --help)\n"
           "       pwr-sim phone SCENARIO.json -- COMMAND...    (pwr-sim phone --help)\n"
           "       pwr-sim compare [options] SCENARIO.json CONFIG.xml CONFIG.xml...\n"
           "       pwr-sim sweep --config BASE.xml --set KEY=VALUES... --out DIR SCENARIO.json...\n"
           "\n"
           "Replays SCENARIO.json (docs/pwr-sim.md) against the plug-in on simulated time: builds\n"
           "a fake device from the scenario's traces, builds the feature from the scenario's XML\n"
           "configuration (docs/config-format.md) as the power service does, delivers the events\n"
           "and prints the timeline and a summary. --check validates a configuration as the\n"
           "feature will read it, without running anything.\n"
           "\n"
           "options:\n"
           "  --config FILE       the XML configuration (default: the scenario's \"config\")\n"
           "  --device MODEL.json close the loop: the device reacts to the feature's locks and\n"
           "                      the scenario's GPU trace is demand (docs/device-model.md)\n"
           "  --out DIR           also write DIR/timeline.txt, summary.txt, summary.json, "
           "trace.json\n"
           "                      (Chrome trace-event format: Perfetto UI, chrome://tracing) and\n"
           "                      plot.svg\n"
           "  --json FILE         write the summary as JSON to FILE (stable keys, for scripts)\n"
           "  --recording FILE    write everything the run observed as JSON to FILE\n"
           "  --quiet             print only the summary\n"
           "  --brief             print the timeline without the feature's log lines (the\n"
           "                      files written by --out keep them)\n"
           "  --plugin PATH       plug-in library (default: "
        << PWR_DEFAULT_PLUGIN
        << ")\n"
           "  --device-root DIR   fake device tree (default: a fresh temporary one, removed at "
           "exit)\n"
           "  --debug             set vendor.debug.trace.power first, for the feature's "
           "diagnostic lines\n"
           "  --check CONFIG.xml  check a configuration; --strict fails on warnings too\n"
           "  -h, --help          this text\n"
           "\n"
           "Exit status: 0 done (--check: no error); 1 invalid scenario or configuration, plug-in\n"
           "not loadable, feature not built or not ready (--check: problems found); 2 usage "
           "error.\n";
}

// Writes one report file; false after an error line.
bool writeFile(const std::filesystem::path& path, const std::function<void(std::ostream&)>& write) {
    std::ofstream file(path);
    if (file) write(file);
    file.close();
    if (!file) {
        std::cerr << "pwr-sim: error: cannot write " << path.string() << ": " << strerror(errno)
                  << '\n';
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "import")
        return pwr::sim::importMain(argc - 1, argv + 1);
    if (argc > 1 && std::string(argv[1]) == "phone") return pwr::sim::phoneMain(argc - 1, argv + 1);
    if (argc > 1 && std::string(argv[1]) == "compare") {
        return pwr::sim::compareMain(argc - 1, argv + 1);
    }
    if (argc > 1 && std::string(argv[1]) == "sweep") return pwr::sim::sweepMain(argc - 1, argv + 1);
    enum {
        kConfig = 256,
        kOut,
        kQuiet,
        kBrief,
        kPlugin,
        kDeviceRoot,
        kDebug,
        kCheck,
        kStrict,
        kDevice,
        kJson,
        kRecording
    };
    static const option kOptions[] = {
            {"config", required_argument, nullptr, kConfig},
            {"out", required_argument, nullptr, kOut},
            {"quiet", no_argument, nullptr, kQuiet},
            {"brief", no_argument, nullptr, kBrief},
            {"plugin", required_argument, nullptr, kPlugin},
            {"device-root", required_argument, nullptr, kDeviceRoot},
            {"debug", no_argument, nullptr, kDebug},
            {"check", no_argument, nullptr, kCheck},
            {"strict", no_argument, nullptr, kStrict},
            {"device", required_argument, nullptr, kDevice},
            {"json", required_argument, nullptr, kJson},
            {"recording", required_argument, nullptr, kRecording},
            {"help", no_argument, nullptr, 'h'},
            {nullptr, 0, nullptr, 0},
    };
    pwr::sim::SimOptions options;
    options.pluginPath = PWR_DEFAULT_PLUGIN;
    std::string outDir;
    std::string jsonPath;
    std::string recordingPath;
    bool check = false;
    bool strict = false;
    bool quiet = false;
    bool brief = false;
    opterr = 0;
    int opt;
    while ((opt = getopt_long(argc, argv, ":h", kOptions, nullptr)) != -1) {
        // Every value of this tool names something, so an empty one is as good as none.
        if (opt == ':' || (optarg != nullptr && optarg[0] == '\0')) {
            std::cerr << "pwr-sim: " << pwr::tools::optionName(kOptions, opt == ':' ? optopt : opt)
                      << " needs a value\n";
            return kUsageError;
        }
        switch (opt) {
            case 'h':
                usage(std::cout);
                return 0;
            case kConfig:
                options.configPath = optarg;
                break;
            case kOut:
                outDir = optarg;
                break;
            case kPlugin:
                options.pluginPath = optarg;
                break;
            case kDeviceRoot:
                options.deviceRoot = optarg;
                break;
            case kDebug:
                options.debug = true;
                break;
            case kQuiet:
                quiet = true;
                break;
            case kBrief:
                brief = true;
                break;
            case kCheck:
                check = true;
                break;
            case kStrict:
                strict = true;
                break;
            case kDevice:
                options.deviceModelPath = optarg;
                break;
            case kJson:
                jsonPath = optarg;
                break;
            case kRecording:
                recordingPath = optarg;
                break;
            default:
                std::cerr << "pwr-sim: unknown option " << pwr::tools::refusedOption(kOptions, argv)
                          << "\n\n";
                usage(std::cerr);
                return kUsageError;
        }
    }
    if (argc - optind > 1) {
        std::cerr << "pwr-sim: too many arguments\n\n";
        usage(std::cerr);
        return kUsageError;
    }
    if (optind == argc || (strict && !check)) {
        usage(std::cerr);
        return kUsageError;
    }
    const std::string positional = argv[optind];
    if (check) return pwr::sim::checkConfig(positional, strict, std::cout);

    options.scenarioPath = positional;
    pwr::sim::Recording recording;
    if (pwr::sim::runSimulation(options, &recording, std::cerr) != 0) return 1;
    const pwr::sim::Summary summary = pwr::sim::Summary::of(recording);
    auto writeJson = [&](std::ostream& out) {
        out << pwr::sim::summaryJson(summary, recording).dump(2) << '\n';
    };
    if ((!jsonPath.empty() && !writeFile(jsonPath, writeJson)) ||
        (!recordingPath.empty() && !writeFile(recordingPath, [&](std::ostream& out) {
            out << pwr::sim::RecordingJson::toJson(recording).dump() << '\n';
        }))) {
        return 1;
    }
    if (!quiet) {
        pwr::sim::writeTimeline(recording, std::cout, !brief);
        std::cout << '\n';
    }
    pwr::sim::writeSummary(summary, recording, std::cout);

    if (!outDir.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(outDir, ec);
        const std::filesystem::path dir(outDir);
        if (!writeFile(dir / "timeline.txt",
                       [&](std::ostream& out) { pwr::sim::writeTimeline(recording, out); }) ||
            !writeFile(
                    dir / "summary.txt",
                    [&](std::ostream& out) { pwr::sim::writeSummary(summary, recording, out); }) ||
            !writeFile(dir / "summary.json", writeJson) ||
            !writeFile(dir / "trace.json",
                       [&](std::ostream& out) { pwr::sim::writeChromeTrace(recording, out); }) ||
            !writeFile(dir / "plot.svg",
                       [&](std::ostream& out) { pwr::sim::writeSvgPlot(recording, out); })) {
            return 1;
        }
        std::cout << "\nWrote " << (dir / "timeline.txt").string() << ", summary.txt, "
                  << "summary.json, trace.json and plot.svg\n";
    }
    return 0;
}
