#pragma once

#include <ostream>

#include "host/sim/Recording.h"

namespace pwr::sim {

// The recording in the Chrome trace-event JSON format (opens in Perfetto's UI and
// chrome://tracing): a counter track per counter, a thread per lock track with one complete
// slice per held lock, and instant events for the timeline's events, notes and log lines.
void writeChromeTrace(const Recording& recording, std::ostream& out);

}  // namespace pwr::sim
