#include <set>

#include "host/sim/Compare.h"
#include "host/sim/ProfileColors.h"
#include "host/sim/SvgPlot.h"
#include "host/sim/SvgTimePlot.h"

namespace pwr::sim {

void writeComparePlot(const std::vector<ComparedRun>& runs, std::ostream& out) {
    if (runs.empty()) return;
    const Recording& first = runs.front().recording;
    std::string labels;
    for (const ComparedRun& run : runs) labels += (labels.empty() ? "" : ", ") + run.label;
    SvgTimePlot plot(
            "pwr-sim compare: " + first.scenarioName,
            "configurations " + labels +
                    (first.deviceModelFile.empty() ? ""
                                                   : "; closed loop on " + first.deviceModelFile),
            first.durationMs);
    // A panel per quantity with a line per run, in the run's colour.
    auto panel = [&](const char* title, const char* key, const char* demandKey = nullptr) {
        PlotPanel p{title, {}};
        for (size_t i = 0; i < runs.size(); ++i) {
            auto it = runs[i].recording.counters.find(key);
            if (it != runs[i].recording.counters.end()) {
                p.series.emplace_back(&it->second, runs[i].label, seriesColor(i));
            }
        }
        // The demand is the scenario's, the same for every run.
        auto demand = demandKey != nullptr ? first.counters.find(demandKey) : first.counters.end();
        if (demand != first.counters.end()) {
            p.series.emplace_back(&demand->second, "demand (MHz of work)", "#777777", true);
        }
        if (!p.series.empty()) plot.addPanel(std::move(p));
    };
    panel("GPU frequency (MHz)", kCounterGpuFreq, kCounterGpuDemand);
    panel("Battery drain (mA)", kCounterBatteryDrain);
    panel("Charge used (mAh)", kCounterChargeMah);

    std::vector<std::string> lanes;
    std::vector<PlotBar> bars;
    for (const ComparedRun& run : runs) {
        const std::string lane = run.label + ": profile";
        lanes.push_back(lane);
        for (const LockSlice& slice : run.recording.locks) {
            if (slice.kind != LockSlice::Kind::Profile) continue;
            bars.push_back(PlotBar{lane, slice.startMs, slice.endMs, slice.name,
                                   profileColor(slice.name), slice.share(first.durationMs)});
        }
        std::vector<PlotBar> saturated = saturatedBars(run.recording, run.label + ": saturated");
        if (!saturated.empty()) {
            lanes.push_back(run.label + ": saturated");
            bars.insert(bars.end(), saturated.begin(), saturated.end());
        }
    }
    plot.setBars("Profile held and GPU saturated, per configuration", lanes, bars);
    plot.write(out);
}

}  // namespace pwr::sim
