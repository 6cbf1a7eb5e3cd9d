#pragma once

#include <nlohmann/json.hpp>

#include "host/sim/Recording.h"
#include "host/sim/Summary.h"

namespace pwr::sim {

// The summary as JSON for scripts and CI. Its keys are stable (docs/pwr-sim.md lists them);
// times are in seconds, charge in mAh, current in mA, GPU work in megacycles; "energy" is null
// in an open-loop run.
nlohmann::json summaryJson(const Summary& summary, const Recording& recording);

}  // namespace pwr::sim
