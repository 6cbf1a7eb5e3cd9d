// pwr-sim: replays a scenario against the feature plug-in on simulated time and reports what the
// feature did (timeline, summary, trace, plot); or checks a configuration without running it.

#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "host/sim/ChromeTrace.h"
#include "host/sim/ConfigCheck.h"
#include "host/sim/HtmlReport.h"
#include "host/sim/RecordingJson.h"
#include "host/sim/Simulator.h"
#include "host/sim/Subcommands.h"
#include "host/sim/Summary.h"
#include "host/sim/SummaryJson.h"
#include "host/sim/SvgPlot.h"
#include "host/sim/TempDir.h"
#include "host/sim/TimelineWriter.h"
#include "host/tools/ToolOptions.h"

namespace {

using pwr::tools::kUsageError;

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
           "                      (Chrome trace-event format: Perfetto UI, chrome://tracing),\n"
           "                      plot.svg and report.html (all of it, for a browser)\n"
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
           "Files may be symbolic links; \"-\" reads the scenario or configuration from standard\n"
           "input.\n"
           "\n"
           "Exit status: 0 done (--check: no error); 1 invalid scenario or configuration, plug-in\n"
           "not loadable, feature not built or not ready (--check: problems found); 2 usage "
           "error;\n"
           "130 interrupted (Ctrl-C).\n";
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

volatile sig_atomic_t gStop = 0;

void requestStop(int) {
    gStop = 1;
}

// Ctrl-C and SIGTERM stop the run between two steps, so that it ends as after an error: the
// temporary device tree and the files of an unfinished run are removed.
void catchStopSignals() {
    struct sigaction action = {};
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// "pwr-sim: 3:12:00.000 of 24:00:00.000 simulated (13%)" on standard error, rewritten in place,
// when it is a terminal and the run has taken more than a second; not while the timeline scrolls
// on that terminal (`printing`).
class ProgressLine {
  public:
    explicit ProgressLine(bool printing)
        : mTerminal(isatty(STDERR_FILENO) != 0 && !(printing && isatty(STDOUT_FILENO) != 0)),
          mStart(Clock::now()) {}
    ~ProgressLine() {
        if (mShown) fprintf(stderr, "\r\033[K");
    }

    void update(int64_t reachedMs, int64_t durationMs) {
        if (!mTerminal || ++mCalls % 1024 != 0) return;
        const Clock::time_point now = Clock::now();
        if (now - mStart < std::chrono::seconds(1) ||
            now - mLast < std::chrono::milliseconds(200)) {
            return;
        }
        mLast = now;
        mShown = true;
        fprintf(stderr, "\rpwr-sim: %s of %s simulated (%d%%)",
                pwr::sim::formatTime(reachedMs).c_str(), pwr::sim::formatTime(durationMs).c_str(),
                static_cast<int>(durationMs > 0 ? 100 * reachedMs / durationMs : 0));
    }

  private:
    using Clock = std::chrono::steady_clock;
    const bool mTerminal;
    const Clock::time_point mStart;
    Clock::time_point mLast;
    uint64_t mCalls = 0;
    bool mShown = false;
};

// The files --out writes; those written while the run goes are open before it starts.
struct OutFiles {
    std::filesystem::path dir;
    std::ofstream timeline;
    std::ofstream trace;

    static constexpr const char* kNames[] = {"timeline.txt", "summary.txt", "summary.json",
                                             "trace.json",   "plot.svg",    "report.html"};

    bool open(const std::string& outDir) {
        std::string error;
        if (!pwr::sim::makeWritableFolder(outDir, &error)) {
            std::cerr << "pwr-sim: error: " << error << '\n';
            return false;
        }
        dir = outDir;
        // Large buffers: a long run writes hundreds of megabytes a line at a time.
        timeline.rdbuf()->pubsetbuf(mTimelineBuffer.data(), mTimelineBuffer.size());
        trace.rdbuf()->pubsetbuf(mTraceBuffer.data(), mTraceBuffer.size());
        timeline.open(dir / "timeline.txt");
        trace.open(dir / "trace.json");
        if (!timeline || !trace) {
            std::cerr << "pwr-sim: error: cannot write in " << outDir << ": " << strerror(errno)
                      << '\n';
            return false;
        }
        return true;
    }

    std::vector<char> mTimelineBuffer = std::vector<char>(1 << 20);
    std::vector<char> mTraceBuffer = std::vector<char>(1 << 20);

    // Removes what an unfinished run wrote.
    void discard() {
        timeline.close();
        trace.close();
        std::error_code ec;
        for (const char* name : kNames) std::filesystem::remove(dir / name, ec);
    }
};

int simulate(pwr::sim::SimOptions& options, const std::string& outDir, const std::string& jsonPath,
             const std::string& recordingPath, bool quiet, bool brief) {
    std::ios::sync_with_stdio(false);
    // The output folder is checked (and the streamed files opened) before the run.
    OutFiles files;
    if (!outDir.empty() && !files.open(outDir)) return 1;
    std::vector<pwr::sim::RunObserver*> observers;
    pwr::sim::TimelineWriter printed(std::cout, !brief);
    if (!quiet) observers.push_back(&printed);
    std::optional<pwr::sim::TimelineWriter> timeline;
    std::optional<pwr::sim::ChromeTraceWriter> trace;
    pwr::sim::HtmlReport report;
    if (!outDir.empty()) {
        timeline.emplace(files.timeline, true);
        trace.emplace(files.trace);
        observers.insert(observers.end(), {&*timeline, &*trace, &report});
    }
    ProgressLine progress(!quiet);
    options.progress = [&progress](int64_t reached, int64_t duration) {
        progress.update(reached, duration);
    };
    options.stopRequested = [] { return gStop != 0; };
    catchStopSignals();

    pwr::sim::Recording recording;
    const int status = pwr::sim::runSimulation(options, &recording, observers, std::cerr);
    if (status != 0) {
        if (!outDir.empty()) files.discard();
        return status;
    }
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
    if (!quiet) std::cout << '\n';
    std::ostringstream summaryText;
    pwr::sim::writeSummary(summary, recording, summaryText);
    std::cout << summaryText.str();
    if (outDir.empty()) return 0;

    trace->finish(recording);
    files.timeline.close();
    files.trace.close();
    if (!files.timeline || !files.trace) {
        std::cerr << "pwr-sim: error: cannot write the timeline or trace in " << outDir << '\n';
        return 1;
    }
    std::ostringstream plot;
    pwr::sim::writeSvgPlot(recording, plot);
    const std::filesystem::path& dir = files.dir;
    if (!writeFile(dir / "summary.txt", [&](std::ostream& out) { out << summaryText.str(); }) ||
        !writeFile(dir / "summary.json", writeJson) ||
        !writeFile(dir / "plot.svg", [&](std::ostream& out) { out << plot.str(); }) ||
        !writeFile(dir / "report.html", [&](std::ostream& out) {
            report.write(recording, summaryText.str(), plot.str(), out);
        })) {
        return 1;
    }
    std::cout << "\nWrote " << (dir / "timeline.txt").string()
              << ", summary.txt, summary.json, trace.json, plot.svg and report.html\n";
    return 0;
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
    return simulate(options, outDir, jsonPath, recordingPath, quiet, brief);
}
