#pragma once

#include <ostream>

#include "host/sim/Scenario.h"

namespace pwr::sim {

// Writes a scenario in the format Scenario::parseText reads (docs/pwr-sim.md), so that what a tool
// builds in memory (an import) becomes a file pwr-sim runs. Times are written in seconds, the
// configuration as `configPath` holds it (relative to the folder the file will be in), and
// sections without content are left out. Reading the text back gives the same scenario.
void writeScenario(const Scenario& scenario, std::ostream& out);

}  // namespace pwr::sim
