// pwr-replay: loads a feature plug-in as the power service does, builds the feature from an XML
// configuration, replays an event script and prints what the feature did.

#include <getopt.h>

#include <iostream>
#include <string>

#include "host/tools/Replay.h"
#include "host/tools/ToolOptions.h"

namespace {

using pwr::tools::kUsageError;

void usage(std::ostream& out) {
    out << "usage: pwr-replay [options] CONFIG.xml EVENTS\n"
           "\n"
           "Loads the plug-in, builds its feature from CONFIG.xml, delivers the events of EVENTS\n"
           "at their times and prints, one line each and in order, the events, the classifier\n"
           "queries, the locks acquired and released with their opcode/value lists and the\n"
           "feature's log lines. Formats: docs/config-format.md, docs/pwr-replay.md.\n"
           "\n"
           "options:\n"
           "  --plugin PATH       plug-in library (default: "
        << PWR_DEFAULT_PLUGIN
        << ")\n"
           "  --device-root DIR   fake device tree (default: a fresh temporary one, removed at "
           "exit)\n"
           "  --debug             set vendor.debug.trace.power to true in the device tree first,\n"
           "                      so the feature prints its diagnostic lines\n"
           "  --no-time           leave out the time column (for comparing runs)\n"
           "  -h, --help          this text\n"
           "\n"
           "Exit status: 0 done; 1 invalid configuration or events, plug-in not loadable, feature\n"
           "not built or not ready; 2 usage error.\n";
}

}  // namespace

int main(int argc, char** argv) {
    enum { kPlugin = 256, kDeviceRoot, kDebug, kNoTime };
    static const option kOptions[] = {
            {"plugin", required_argument, nullptr, kPlugin},
            {"device-root", required_argument, nullptr, kDeviceRoot},
            {"debug", no_argument, nullptr, kDebug},
            {"no-time", no_argument, nullptr, kNoTime},
            {"help", no_argument, nullptr, 'h'},
            {nullptr, 0, nullptr, 0},
    };
    pwr::tools::ReplayOptions options;
    options.pluginPath = PWR_DEFAULT_PLUGIN;
    opterr = 0;
    int opt;
    while ((opt = getopt_long(argc, argv, ":h", kOptions, nullptr)) != -1) {
        switch (opt) {
            case 'h':
                usage(std::cout);
                return 0;
            case kPlugin:
                options.pluginPath = optarg;
                break;
            case kDeviceRoot:
                options.deviceRoot = optarg;
                if (options.deviceRoot.empty()) {
                    std::cerr << "pwr-replay: --device-root needs a directory\n";
                    return kUsageError;
                }
                break;
            case kDebug:
                options.debug = true;
                break;
            case kNoTime:
                options.timestamps = false;
                break;
            case ':':
                std::cerr << "pwr-replay: " << pwr::tools::optionName(kOptions, optopt)
                          << " needs a value\n";
                return kUsageError;
            default:
                std::cerr << "pwr-replay: unknown option "
                          << pwr::tools::refusedOption(kOptions, argv) << "\n\n";
                usage(std::cerr);
                return kUsageError;
        }
    }
    const int count = argc - optind;
    if (count > 2) {
        std::cerr << "pwr-replay: too many arguments\n\n";
        usage(std::cerr);
        return kUsageError;
    }
    if (count != 2) {
        usage(std::cerr);
        return kUsageError;
    }
    options.configPath = argv[optind];
    options.eventsPath = argv[optind + 1];
    pwr::tools::RealClock clock;
    return pwr::tools::runReplay(options, clock, std::cout, std::cerr);
}
