// pwr-replay: loads a feature plug-in as the power service does, builds the feature from an XML
// configuration, replays an event script and prints what the feature did.

#include <cstring>
#include <iostream>
#include <string>

#include "host/tools/Replay.h"

namespace {

constexpr int kUsageError = 2;

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
    pwr::tools::ReplayOptions options;
    options.pluginPath = PWR_DEFAULT_PLUGIN;
    std::string positional[2];
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string* out) {
            if (i + 1 >= argc) {
                std::cerr << "pwr-replay: " << arg << " needs a value\n";
                return false;
            }
            *out = argv[++i];
            return true;
        };
        if (arg == "-h" || arg == "--help") {
            usage(std::cout);
            return 0;
        } else if (arg == "--plugin") {
            if (!value(&options.pluginPath)) return kUsageError;
        } else if (arg == "--device-root") {
            if (!value(&options.deviceRoot)) return kUsageError;
            if (options.deviceRoot.empty()) {
                std::cerr << "pwr-replay: --device-root needs a directory\n";
                return kUsageError;
            }
        } else if (arg == "--debug") {
            options.debug = true;
        } else if (arg == "--no-time") {
            options.timestamps = false;
        } else if (arg.size() > 1 && arg[0] == '-') {
            std::cerr << "pwr-replay: unknown option " << arg << "\n\n";
            usage(std::cerr);
            return kUsageError;
        } else if (count < 2) {
            positional[count++] = arg;
        } else {
            std::cerr << "pwr-replay: too many arguments\n\n";
            usage(std::cerr);
            return kUsageError;
        }
    }
    if (count != 2) {
        usage(std::cerr);
        return kUsageError;
    }
    options.configPath = positional[0];
    options.eventsPath = positional[1];
    pwr::tools::RealClock clock;
    return pwr::tools::runReplay(options, clock, std::cout, std::cerr);
}
