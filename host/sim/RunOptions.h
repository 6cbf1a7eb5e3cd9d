#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace pwr::sim {

// The command line that pwr-sim's compare and sweep share: --device, --out, --jobs, --plugin,
// -h/--help, and for a sweep also --config and --set.
struct RunOptions {
    std::string devicePath;
    std::string outDir;
    std::string pluginPath;
    int jobs = 1;
    std::string configPath;         // sweep
    std::vector<std::string> sets;  // sweep: each --set as given
    std::vector<std::string> positional;

    // Parses argv (argv[0] is the subcommand) with getopt_long. -1 to go on; otherwise the exit
    // status to end with: 0 after --help (usage on standard output), 2 after a usage error
    // (a line on standard error naming `tool`, or the usage).
    int parse(int argc, char** argv, bool sweep, const char* tool, void (*usage)(std::ostream&));

    // The options each pwr-sim run takes from these: --device and --plugin when given.
    std::vector<std::string> runArgs() const;

    // Checks the device model (when given) and makes the output folder (when given), before a
    // long run. False with `error` naming the file or folder.
    bool checkDeviceAndOutput(std::string* error) const;
};

}  // namespace pwr::sim
