#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "host/sim/Recording.h"

namespace pwr::sim {

// A step line of a panel.
struct PlotSeries {
    PlotSeries(const CounterTrack* t, std::string l, std::string c = "", bool d = false)
        : track(t), label(std::move(l)), color(std::move(c)), dashed(d) {}
    const CounterTrack* track;
    std::string label;
    std::string color;  // empty: the panel's n-th series colour
    bool dashed;
};

// One quantity over time, with its unit in the title.
struct PlotPanel {
    PlotPanel(std::string t, std::vector<PlotSeries> s)
        : title(std::move(t)), series(std::move(s)) {}
    std::string title;
    std::vector<PlotSeries> series;
    double min = 0;
    double max = 1;
    bool fixedRange = false;                   // else fitted to the values, from 0 or below
    std::map<double, std::string> tickLabels;  // instead of numbers, when set
    std::vector<std::string> notes;            // extra legend lines
};

// A bar in a lane of the bars panel (a lock held, a profile in force).
struct PlotBar {
    std::string lane;
    int64_t startMs = 0;
    std::optional<int64_t> endMs;  // none: to the end
    std::string label;             // legend and tooltip
    std::string color;
    double share = 1;  // of the bar's span actually covered (bars drawn into one): its opacity
};

// Panels of quantities sharing a time axis (seconds; minutes past five minutes; hours past three
// hours), each with
// its unit and legend, and under them a panel of bars in named lanes: the frame of every plot
// over time that pwr-sim draws.
class SvgTimePlot {
  public:
    SvgTimePlot(std::string title, std::string subtitle, int64_t endMs);

    void addPanel(PlotPanel panel) { mPanels.push_back(std::move(panel)); }
    // Lanes are drawn in the order of `lanes`; bars of other lanes are left out.
    void setBars(std::string title, std::vector<std::string> lanes, std::vector<PlotBar> bars);

    void write(std::ostream& out) const;

  private:
    double x(int64_t ms) const;
    void drawTimeGrid(std::ostream& out, double top, double height) const;
    void drawPanel(std::ostream& out, const PlotPanel& panel, double top) const;
    void drawBars(std::ostream& out, double top, double height) const;

    std::string mTitle;
    std::string mSubtitle;
    int64_t mEndMs;
    double mUnitMs;  // of the time axis: a second, a minute or an hour
    const char* mUnitName;
    double mLeft;  // where the panels begin: past the longest lane name
    std::vector<PlotPanel> mPanels;
    std::string mBarsTitle;
    std::vector<std::string> mLanes;
    std::vector<PlotBar> mBars;
};

// Text safe inside SVG markup.
std::string svgEscape(const std::string& text);
// A step of 1, 2 or 5 times a power of ten that cuts `span` into about `count` parts.
double niceStep(double span, int count);
// A number as an axis shows it.
std::string axisNumber(double v);

}  // namespace pwr::sim
