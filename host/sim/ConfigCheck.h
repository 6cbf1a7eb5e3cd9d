#pragma once

#include <ostream>
#include <string>

namespace pwr::sim {

// Checks an XML feature configuration as the feature will read it, without loading or running
// anything: the file's format, every required key present and parseable in the feature's order
// and conversions, the three dynamic GPU profiles when "GPUMode" is on, the deep-mode keys,
// profiles and property texts when "DEEP_MODE" is on, and values the feature accepts but cannot
// work with. Writes one line per problem, "<file>:<line>: error|warning: <message>" naming the
// key, then the properties deep mode would set and a count. Returns 0 when the feature would be
// built ready and run as configured (with `strict`, also no warning), else 1.
int checkConfig(const std::string& path, bool strict, std::ostream& out);

}  // namespace pwr::sim
