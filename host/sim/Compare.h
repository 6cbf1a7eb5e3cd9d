#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "host/sim/Recording.h"
#include "host/sim/Summary.h"

namespace pwr::sim {

// One configuration's run in a comparison.
struct ComparedRun {
    std::string label;  // the configuration file's name without folder and extension
    Recording recording;
    Summary summary;
};

// `pwr-sim compare`: runs one scenario with two or more configurations (on a device model, when
// given), each as a pwr-sim process of its own and all at once on every core, then prints a
// side-by-side table and, with --out, writes it with a JSON form and one combined plot.
// argv[0] is "compare". Returns the exit status.
int compareMain(int argc, char** argv);

// The side-by-side table: charge, saturation, time on each profile, switches, boosts,
// properties; one column per run.
void writeCompareTable(const std::vector<ComparedRun>& runs, std::ostream& out);

// One plot of every run over time: GPU frequency (and the demand), battery current, charge used,
// and per run a lane of the profiles held (each profile in its own colour, as in every plot)
// and one of the spans its GPU was saturated.
void writeComparePlot(const std::vector<ComparedRun>& runs, std::ostream& out);

}  // namespace pwr::sim
