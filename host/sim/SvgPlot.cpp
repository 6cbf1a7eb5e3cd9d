#include "host/sim/SvgPlot.h"

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "host/sim/ProfileColors.h"
#include "host/sim/SvgTimePlot.h"

namespace pwr::sim {
namespace {

constexpr char kSaturatedLane[] = "GPU saturated";
constexpr char kSaturatedColor[] = "#333333";
constexpr char kDemandColor[] = "#777777";
constexpr char kThresholdColor[] = "#555555";
constexpr char kStateColor[] = "#8e9aaf";

const CounterTrack* counter(const Recording& recording, const char* key) {
    auto it = recording.counters.find(key);
    return it == recording.counters.end() || it->second.points.empty() ? nullptr : &it->second;
}

std::vector<PlotPanel> buildPanels(const Recording& rec) {
    std::vector<PlotPanel> panels;
    if (const CounterTrack* freq = counter(rec, kCounterGpuFreq)) {
        PlotPanel p{"GPU frequency (MHz)", {{freq, "device clock (gpuclk)"}}};
        if (const CounterTrack* measured = counter(rec, kCounterGpuFreqMeasured)) {
            p.series.push_back({measured, "sampled by the feature", "", true});
        }
        if (const CounterTrack* demand = counter(rec, kCounterGpuDemand)) {
            p.series.push_back({demand, "demand (MHz of work)", kDemandColor, true});
        }
        // The GPU monitor's thresholds, as the feature reports them.
        if (const CounterTrack* low = counter(rec, kCounterFreqLow)) {
            p.series.push_back({low, "threshold low", kThresholdColor, true});
        }
        if (const CounterTrack* high = counter(rec, kCounterFreqHigh)) {
            p.series.push_back({high, "threshold high", kThresholdColor, true});
        }
        panels.push_back(p);
    }
    if (const CounterTrack* busy = counter(rec, kCounterGpuBusy)) {
        PlotPanel p{"GPU busy (%)", {{busy, "busy (gpubusy)"}}};
        p.min = 0;
        p.max = 100;
        p.fixedRange = true;
        panels.push_back(p);
    }
    const bool closedLoop = counter(rec, kCounterChargeMah) != nullptr;
    if (const CounterTrack* drain = counter(rec, kCounterBatteryDrain)) {
        PlotPanel p{
                "Battery drain (mA)",
                {{drain, closedLoop ? "power model (current_now)" : "discharge (current_now)"}}};
        // The battery monitor's active pair, from its first evaluation on.
        if (const CounterTrack* up = counter(rec, kCounterScalingUp)) {
            p.series.push_back({up, "boost above (scaling up)", kThresholdColor, true});
        }
        if (const CounterTrack* down = counter(rec, kCounterScalingDown)) {
            p.series.push_back({down, "unboost below (scaling down)", kDemandColor, true});
        }
        panels.push_back(p);
    }
    if (const CounterTrack* charge = counter(rec, kCounterChargeMah)) {
        panels.push_back(PlotPanel{"Charge used (mAh)", {{charge, "since the start"}}});
    }
    const CounterTrack* level = counter(rec, kCounterProfileLevel);
    if (level != nullptr && !rec.dynamicProfiles.empty()) {
        PlotPanel p{"GPU profile level", {{level, "dynamic profile held"}}};
        p.min = -1;
        p.max = static_cast<double>(rec.dynamicProfiles.size()) - 1;
        p.fixedRange = true;
        p.tickLabels[-1] = "none";
        for (size_t i = 0; i < rec.dynamicProfiles.size(); ++i) {
            p.tickLabels[static_cast<double>(i)] = std::to_string(i);
            p.notes.push_back(std::to_string(i) + " = " + rec.dynamicProfiles[i]);
        }
        panels.push_back(p);
    }
    const CounterTrack* mode = counter(rec, kCounterPsmMode);
    if (mode != nullptr && mode->points.size() > 1) {
        PlotPanel p{"PSM mode", {{mode, "mode in force"}}};
        p.min = 0;
        p.max = 3;
        p.fixedRange = true;
        p.tickLabels = {{0, "0 off"}, {1, "1 light"}, {2, "2 gaming"}, {3, "3 battery"}};
        panels.push_back(p);
    }
    const CounterTrack* boosted = counter(rec, kCounterBoostedTasks);
    if (boosted != nullptr && boosted->points.size() > 1) {
        PlotPanel p{"Boosted tasks (count)", {{boosted, "tasks scaled down"}}};
        p.min = 0;
        p.max = 4;
        p.fixedRange = true;
        panels.push_back(p);
    }
    return panels;
}

}  // namespace

std::vector<PlotBar> saturatedBars(const Recording& recording, const std::string& lane) {
    std::vector<PlotBar> bars;
    const CounterTrack* saturated = counter(recording, kCounterGpuSaturated);
    if (saturated == nullptr) return bars;
    const auto& points = saturated->points;
    for (size_t i = 0; i < points.size(); ++i) {
        if (!(points[i].second > 0)) continue;
        const int64_t start = points[i].first;
        const int64_t end = i + 1 < points.size() ? points[i + 1].first : recording.durationMs;
        if (!bars.empty() && bars.back().endMs == start) {
            bars.back().endMs = end;
        } else {
            bars.push_back(PlotBar{lane, start, end, kSaturatedLane, kSaturatedColor});
        }
    }
    return bars;
}

void writeSvgPlot(const Recording& recording, std::ostream& out) {
    SvgTimePlot plot("pwr-sim: " + recording.scenarioName,
                     "configuration " + recording.configFile +
                             (recording.deviceModelFile.empty()
                                      ? ""
                                      : ", closed loop on " + recording.deviceModelFile),
                     recording.durationMs);
    for (PlotPanel& panel : buildPanels(recording)) plot.addPanel(std::move(panel));
    std::set<std::string> tracks;
    std::vector<PlotBar> bars;
    for (const LockSlice& slice : recording.locks) {
        tracks.insert(slice.track);
        bars.push_back(PlotBar{slice.track, slice.startMs, slice.endMs, slice.name,
                               profileColor(slice.name), slice.share(recording.durationMs)});
    }
    std::vector<std::string> lanes(tracks.begin(), tracks.end());
    // The feature's states and the foreground app above the locks.
    std::vector<std::string> stateLanes;
    for (const LockSlice& span : recording.lanes) {
        if (std::find(stateLanes.begin(), stateLanes.end(), span.track) == stateLanes.end()) {
            stateLanes.push_back(span.track);
        }
        // Each foreground app in a colour of its own; the states in one.
        bars.push_back(
                PlotBar{span.track, span.startMs, span.endMs, span.name,
                        span.track == kLaneForeground ? profileColor(span.name) : kStateColor,
                        span.share(recording.durationMs)});
    }
    std::sort(stateLanes.begin(), stateLanes.end());
    lanes.insert(lanes.begin(), stateLanes.begin(), stateLanes.end());
    std::vector<PlotBar> saturated = saturatedBars(recording, kSaturatedLane);
    if (!saturated.empty()) {
        lanes.push_back(kSaturatedLane);
        bars.insert(bars.end(), saturated.begin(), saturated.end());
    }
    plot.setBars(saturated.empty() ? "Feature states, foreground app and perf locks held"
                                   : "Feature states, foreground app, perf locks held; GPU "
                                     "saturated",
                 std::move(lanes), std::move(bars));
    plot.write(out);
}

}  // namespace pwr::sim
