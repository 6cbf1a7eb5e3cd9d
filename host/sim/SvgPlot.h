#pragma once

#include <ostream>

#include "host/sim/Recording.h"
#include "host/sim/SvgTimePlot.h"

namespace pwr::sim {

// A plot of the recording's counters as SVG, for a quick look: one panel per quantity (GPU
// frequency, GPU busy, battery drain, GPU profile level, PSM mode when it changes, boosted
// tasks; in a closed loop also the GPU demand and the charge used) sharing the time axis, each
// with its unit on the vertical axis and a legend, and a panel of the locks held (each name in
// its own colour, profileColor) and the spans the GPU was saturated. Quantities the scenario did
// not record are left out.
void writeSvgPlot(const Recording& recording, std::ostream& out);

// The spans of a closed-loop recording in which the GPU was saturated, as bars in `lane`.
std::vector<PlotBar> saturatedBars(const Recording& recording, const std::string& lane);

}  // namespace pwr::sim
