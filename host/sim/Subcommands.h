#pragma once

namespace pwr::sim {

// `pwr-sim import ...` (ImportMain.cpp): a capture or a trace file into a scenario. `argv[0]` is
// the subcommand's name. Returns the process's exit status.
int importMain(int argc, char** argv);

// `pwr-sim phone ...` (PhoneMain.cpp): a command run against a fake phone a scenario drives.
int phoneMain(int argc, char** argv);

// `pwr-sim compare ...` (Compare.cpp): one scenario with two or more configurations (on a device
// model, when given), each as a pwr-sim process of its own and all at once on every core; a
// side-by-side table and, with --out, its JSON form and one combined plot.
int compareMain(int argc, char** argv);

// `pwr-sim sweep ...` (Sweep.cpp): every combination of swept configuration values over one or
// more scenarios, as pwr-sim processes on every core; a CSV and a JSON of each run's figures and
// the trade-off plot.
int sweepMain(int argc, char** argv);

}  // namespace pwr::sim
