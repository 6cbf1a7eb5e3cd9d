// pwr-sim import: turns what a phone did (a capture of pwr-capture.sh, or the counters of a trace
// file) into a scenario for pwr-sim, and lists the properties a configuration sets for the
// capture script to record.

#include <errno.h>
#include <getopt.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <set>
#include <sstream>

#include <android-base/file.h>
#include <android-base/strings.h>

#include "host/sim/AppCatalogue.h"
#include "host/sim/Capture.h"
#include "host/sim/CaptureImport.h"
#include "host/sim/ScenarioWriter.h"
#include "host/sim/Subcommands.h"
#include "host/sim/TraceImport.h"
#include "host/tools/FeatureConfigXml.h"
#include "host/tools/FeatureKeys.h"
#include "host/tools/InputFile.h"
#include "host/tools/ToolOptions.h"

namespace pwr::sim {
namespace {

namespace fs = std::filesystem;

constexpr char kTool[] = "pwr-sim import";
using pwr::tools::kUsageError;
// What pwr-capture.sh accepts as a property name (and a shell passes through unquoted).
constexpr char kPropertyNameCharacters[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.:@-";

void usage(std::ostream& out) {
    out << "usage: pwr-sim import [options] FILE\n"
           "       pwr-sim import --props-from CONFIG.xml\n"
           "\n"
           "Turns FILE into a scenario for pwr-sim (docs/pwr-sim.md): a capture written by\n"
           "scripts/device/pwr-capture.sh on a phone, or a Chrome trace-event JSON file "
           "(pwr-sim's\n"
           "trace.json, a converted system trace) whose counters become the GPU and battery\n"
           "traces. Warnings (gaps, counter resets, missing nodes, uncovered packages) go to\n"
           "standard error with the line they are about. docs/pwr-capture.md has the details.\n"
           "\n"
           "options:\n"
           "  -o, --output FILE        write the scenario to FILE (default: standard output)\n"
           "  --config CONFIG.xml      the scenario's configuration\n"
           "  --catalogue FILE         application types of a capture's packages (lines\n"
           "                           \"<package> game|browser|video|other|<number>\")\n"
           "  --gpu-table MHZ,...      a trace's GPU frequency table (default: the frequencies\n"
           "                           its counter shows)\n"
           "  --track SERIES=TRACE[*FACTOR]\n"
           "                           map a trace's counter series to gpu_freq_mhz, gpu_busy or\n"
           "                           drain_ma; repeatable, replaces the default mapping\n"
           "  --props-from CONFIG.xml  print the properties CONFIG.xml's deep mode sets, one a\n"
           "                           line: the arguments pwr-capture.sh records at its start\n"
           "  -h, --help               this text\n"
           "\n"
           "Exit status: 0 done; 1 the input cannot make a scenario (one error line naming the\n"
           "file and the line or key); 2 usage error.\n";
}

int fail(const std::string& message) {
    std::cerr << kTool << ": error: " << message << '\n';
    return 1;
}

int usageError(const std::string& message) {
    std::cerr << kTool << ": " << message << "\n\n";
    usage(std::cerr);
    return kUsageError;
}

// The names of deep mode's property list (every other piece), each once, in the feature's order.
int printProperties(const std::string& configPath) {
    tools::FeatureConfig config;
    std::string error;
    if (!tools::FeatureConfigXml::parseFile(configPath, &config, &error)) return fail(error);
    const std::vector<std::string> pieces = tools::FeatureKeys::deepModeProperties(config.info);
    std::set<std::string> printed;
    for (size_t i = 0; i + 1 < pieces.size(); i += 2) {
        const std::string& name = pieces[i];
        if (name[0] == '-' ||
            name.find_first_not_of(kPropertyNameCharacters) != std::string::npos) {
            std::cerr << kTool << ": warning: " << configPath << ": deep mode's property \"" << name
                      << "\" is not a property name; left out\n";
        } else if (printed.insert(name).second) {
            std::cout << name << '\n';
        }
    }
    return 0;
}

bool parseTable(const std::string& text, std::vector<uint64_t>* out) {
    for (const std::string& piece : android::base::Split(text, ",")) {
        char* end = nullptr;
        errno = 0;
        const unsigned long long mhz = strtoull(piece.c_str(), &end, 10);
        if (piece.empty() || *end != '\0' || errno != 0 || mhz < 1 || mhz > 4294) return false;
        out->push_back(mhz);
    }
    return true;
}

struct Options {
    std::string input;
    std::string output;
    std::string config;
    std::string catalogue;
    std::vector<uint64_t> gpuTable;
    std::vector<TrackMapping> tracks;
};

// The configuration as the scenario names it: relative to the folder the scenario goes to.
std::string configReference(const Options& options) {
    if (options.config.empty()) return "";
    std::error_code ec;
    const fs::path config = fs::absolute(options.config, ec);
    const fs::path base =
            fs::absolute(options.output.empty() ? fs::path(".") : fs::path(options.output), ec)
                    .lexically_normal();
    const fs::path relative = config.lexically_normal().lexically_relative(
            options.output.empty() ? base : base.parent_path());
    return relative.empty() ? config.string() : relative.string();
}

int runImport(const Options& options) {
    std::string error;
    if (!options.output.empty()) {
        const fs::path folder = fs::absolute(options.output).parent_path();
        if (!fs::is_directory(folder))
            return fail("no folder " + folder.string() + " for " + options.output);
    }
    if (!options.config.empty() && !fs::is_regular_file(options.config)) {
        return fail(options.config + ": no such configuration");
    }
    std::string text;
    if (!tools::readInputFile(options.input, &text, &error)) return fail(error);
    const size_t first = text.find_first_not_of(" \t\r\n");
    const bool trace = first != std::string::npos && (text[first] == '{' || text[first] == '[');
    Scenario scenario;
    std::vector<std::string> warnings;
    if (trace) {
        if (!options.catalogue.empty()) return usageError("--catalogue applies to a capture");
        TraceImport::Options traceOptions;
        traceOptions.gpuTableMhz = options.gpuTable;
        if (!options.tracks.empty()) traceOptions.mappings = options.tracks;
        if (!TraceImport::run(text, options.input, traceOptions, &scenario, &warnings, &error)) {
            return fail(error);
        }
    } else {
        if (!options.gpuTable.empty() || !options.tracks.empty()) {
            return usageError("--gpu-table and --track apply to a trace file");
        }
        std::optional<AppCatalogue> catalogue;
        if (!options.catalogue.empty()) {
            catalogue.emplace();
            if (!AppCatalogue::parseFile(options.catalogue, &*catalogue, &error))
                return fail(error);
        }
        Capture capture;
        if (!Capture::parseText(text, options.input, &capture, &error)) return fail(error);
        warnings = capture.warnings;
        if (!CaptureImport::run(capture, catalogue ? &*catalogue : nullptr, &scenario, &warnings,
                                &error)) {
            for (const std::string& w : warnings) std::cerr << kTool << ": warning: " << w << '\n';
            return fail(error);
        }
    }
    for (const std::string& w : warnings) std::cerr << kTool << ": warning: " << w << '\n';
    scenario.configPath = configReference(options);

    std::ostringstream written;
    writeScenario(scenario, written);
    // What is written must be what pwr-sim reads: checked with its own reader.
    Scenario check;
    if (!Scenario::parseText(written.str(), options.output.empty() ? "<output>" : options.output,
                             &check, &error)) {
        return fail("the scenario made from " + options.input + " is not valid: " + error);
    }
    if (options.output.empty()) {
        std::cout << written.str();
    } else {
        const std::string temporary = options.output + ".tmp";
        if (!android::base::WriteStringToFile(written.str(), temporary) ||
            rename(temporary.c_str(), options.output.c_str()) != 0) {
            const std::string reason = strerror(errno);
            unlink(temporary.c_str());
            return fail("cannot write " + options.output + ": " + reason);
        }
    }
    std::cerr << kTool << ": " << (options.output.empty() ? "scenario" : options.output) << ": "
              << scenario.durationMs / 1000.0 << " s; " << scenario.gpu.size() << " GPU, "
              << scenario.battery.size() << " battery and " << scenario.foreground.size()
              << " foreground points; " << scenario.events.size() << " events and notes\n";
    return 0;
}

}  // namespace

int importMain(int argc, char** argv) {
    Options options;
    std::string propsFrom;
    enum { kConfig = 256, kCatalogue, kGpuTable, kTrack, kPropsFrom };
    const option longOptions[] = {{"output", required_argument, nullptr, 'o'},
                                  {"config", required_argument, nullptr, kConfig},
                                  {"catalogue", required_argument, nullptr, kCatalogue},
                                  {"gpu-table", required_argument, nullptr, kGpuTable},
                                  {"track", required_argument, nullptr, kTrack},
                                  {"props-from", required_argument, nullptr, kPropsFrom},
                                  {"help", no_argument, nullptr, 'h'},
                                  {nullptr, 0, nullptr, 0}};
    optind = 1;
    int c;
    while ((c = getopt_long(argc, argv, "o:h", longOptions, nullptr)) != -1) {
        std::string error;
        switch (c) {
            case 'o':
                options.output = optarg;
                break;
            case kConfig:
                options.config = optarg;
                break;
            case kCatalogue:
                options.catalogue = optarg;
                break;
            case kGpuTable:
                if (!parseTable(optarg, &options.gpuTable)) {
                    return usageError(std::string("--gpu-table ") + optarg +
                                      ": expected MHz values from 1 to 4294 separated by commas");
                }
                break;
            case kTrack: {
                TrackMapping mapping;
                if (!TrackMapping::parse(optarg, &mapping, &error)) {
                    return usageError("--track " + error);
                }
                options.tracks.push_back(mapping);
                break;
            }
            case kPropsFrom:
                propsFrom = optarg;
                break;
            case 'h':
                usage(std::cout);
                return 0;
            default:
                usage(std::cerr);
                return kUsageError;
        }
    }
    const int positional = argc - optind;
    if (!propsFrom.empty()) {
        if (positional != 0) return usageError("--props-from takes no other file");
        return printProperties(propsFrom);
    }
    if (positional != 1)
        return usageError(positional == 0 ? "no file to import" : "too many files");
    options.input = argv[optind];
    return runImport(options);
}

}  // namespace pwr::sim
