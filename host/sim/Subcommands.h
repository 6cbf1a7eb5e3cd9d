#pragma once

namespace pwr::sim {

// `pwr-sim import ...` (ImportMain.cpp): a capture or a trace file into a scenario. `argv[0]` is
// the subcommand's name. Returns the process's exit status.
int importMain(int argc, char** argv);

// `pwr-sim phone ...` (PhoneMain.cpp): a command run against a fake phone a scenario drives.
int phoneMain(int argc, char** argv);

}  // namespace pwr::sim
