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

// The side-by-side table: charge, saturation, time on each profile, switches, boosts,
// properties; one column per run.
void writeCompareTable(const std::vector<ComparedRun>& runs, std::ostream& out);

// One plot of every run over time: GPU frequency (and the demand), battery current, charge used,
// and per run a lane of the profiles held (each profile in its own colour, as in every plot)
// and one of the spans its GPU was saturated.
void writeComparePlot(const std::vector<ComparedRun>& runs, std::ostream& out);

}  // namespace pwr::sim
