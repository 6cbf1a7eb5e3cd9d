#pragma once

#include <string>

namespace pwr::sim {

// The colour of a profile (or any lock) name in every plot pwr-sim draws: a fixed palette
// indexed by a hash of the name, so a profile keeps its colour across runs, configurations and
// plots whatever else they hold.
const char* profileColor(const std::string& name);

// Colours for the n-th series of a panel or the n-th configuration of a comparison.
const char* seriesColor(size_t index);

}  // namespace pwr::sim
