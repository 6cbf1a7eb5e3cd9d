#pragma once

#include <ostream>

#include "host/sim/Recording.h"

namespace pwr::sim {

// The timeline as text, one line per entry: "h:mm:ss.mmm  kind     text". Without `withLog`
// the feature's own log lines are left out (what it did stays: events, locks, boosts,
// properties, modes).
void writeTimeline(const Recording& recording, std::ostream& out, bool withLog = true);

}  // namespace pwr::sim
