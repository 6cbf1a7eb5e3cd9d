// pwr-sim phone: runs a command (a script written for the phone) against a fake device tree that
// a scenario drives, on the phone's clock.

#include <getopt.h>

#include <iostream>

#include "host/sim/FakePhone.h"
#include "host/sim/Subcommands.h"
#include "host/tools/ToolOptions.h"

namespace pwr::sim {
namespace {

using pwr::tools::kUsageError;

void usage(std::ostream& out) {
    out << "usage: pwr-sim phone [--device-root DIR] SCENARIO.json [--] COMMAND [ARG...]\n"
           "\n"
           "Runs COMMAND as on a phone whose kernel nodes SCENARIO.json drives (docs/pwr-sim.md):\n"
           "PWR_DEVICE_ROOT names the fake device tree, and the phone's sleep, dumpsys and "
           "getprop\n"
           "are stand-ins first on PATH. The command's sleep moves the phone's clock on, so a "
           "long\n"
           "capture runs in a moment; a sleep past the scenario's duration interrupts the command\n"
           "as Ctrl-C would. Example (docs/pwr-capture.md):\n"
           "\n"
           "  pwr-sim phone configs/sim/phone-session.json -- sh scripts/device/pwr-capture.sh\n"
           "\n"
           "options:\n"
           "  --device-root DIR   the fake device tree (default: a temporary one, removed at "
           "exit)\n"
           "  -h, --help          this text\n"
           "\n"
           "Exit status: the command's (128 + N when signal N ended it); 1 when the scenario is\n"
           "invalid or the phone cannot be set up; 2 usage error.\n";
}

}  // namespace

int phoneMain(int argc, char** argv) {
    FakePhoneOptions options;
    const option longOptions[] = {{"device-root", required_argument, nullptr, 'r'},
                                  {"help", no_argument, nullptr, 'h'},
                                  {nullptr, 0, nullptr, 0}};
    optind = 1;
    int c;
    // '+': options end at the scenario, so that the command's own options stay its own.
    while ((c = getopt_long(argc, argv, "+h", longOptions, nullptr)) != -1) {
        switch (c) {
            case 'r':
                options.deviceRoot = optarg;
                break;
            case 'h':
                usage(std::cout);
                return 0;
            default:
                usage(std::cerr);
                return kUsageError;
        }
    }
    if (optind >= argc) {
        usage(std::cerr);
        return kUsageError;
    }
    options.scenarioPath = argv[optind++];
    if (optind < argc && std::string(argv[optind]) == "--") ++optind;
    for (; optind < argc; ++optind) options.command.push_back(argv[optind]);
    if (options.command.empty()) {
        std::cerr << "pwr-sim phone: no command to run\n\n";
        usage(std::cerr);
        return kUsageError;
    }
    return runFakePhone(options, std::cerr);
}

}  // namespace pwr::sim
