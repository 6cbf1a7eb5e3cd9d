#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace pwr::sim {

struct FakePhoneOptions {
    std::string scenarioPath;
    std::string deviceRoot;  // the fake device tree; empty: a temporary one, removed after
    std::vector<std::string> command;
};

// Runs a command as on a phone whose kernel nodes a scenario drives, so that a script written
// for the phone (scripts/device/pwr-capture.sh) can be run and checked on a host. The command
// gets PWR_DEVICE_ROOT (the fake tree, with /proc/uptime) and, first on its PATH, stand-ins for
// the phone's sleep, dumpsys and getprop: its sleep moves the phone's clock on by the time asked
// and brings the nodes up to it (so a capture of minutes runs in a moment and always gives the
// same output), dumpsys reports the activity the scenario's start and stop events leave resumed,
// getprop reads the scenario's properties. A sleep past the scenario's duration interrupts the
// command as Ctrl-C would (SIGINT to its process group); so do SIGINT, SIGTERM and SIGHUP sent
// to this process, which waits for the command to end and cleans up.
//
// Returns the command's exit status (128 + the signal's number when one ended it), or 1 after
// one error line on `err` when the scenario is invalid or the phone cannot be set up.
int runFakePhone(const FakePhoneOptions& options, std::ostream& err);

}  // namespace pwr::sim
