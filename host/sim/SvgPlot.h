#pragma once

#include <ostream>

#include "host/sim/Recording.h"

namespace pwr::sim {

// A plot of the recording's counters as SVG, for a quick look: one panel per quantity (GPU
// frequency, GPU busy, battery drain, GPU profile level, PSM mode when it changes, boosted
// tasks) sharing the time axis,
// each with its unit on the vertical axis and a legend, and a panel of the locks held.
// Quantities the scenario did not record are left out.
void writeSvgPlot(const Recording& recording, std::ostream& out);

}  // namespace pwr::sim
