#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace pwr::sim {

// One configuration key and the values a sweep gives it, from "KEY=FROM:TO:STEP" (FROM, then
// every STEP up to TO inclusive) or "KEY=V1,V2,...".
struct SweepAxis {
    std::string key;
    std::vector<std::string> values;

    // False with `error` saying what is wrong with `text`.
    static bool parse(const std::string& text, SweepAxis* out, std::string* error);
};

// Which points no other point beats on both coordinates (lower is better on each): true for
// the best-of-both (Pareto) front. Equal points are on it together.
std::vector<bool> paretoFront(const std::vector<std::pair<double, double>>& points);

// A configuration of a sweep on the trade-off plot.
struct TradeoffPoint {
    std::string label;
    double saturatedPct = 0;  // x: GPU saturated, percent of the time
    double chargeMah = 0;     // y
    bool pareto = false;
};

// Charge against GPU saturation, one point per configuration, the Pareto front marked and
// joined.
void writeTradeoffPlot(const std::vector<TradeoffPoint>& points, const std::string& title,
                       const std::string& subtitle, std::ostream& out);

}  // namespace pwr::sim
