#include "host/sim/SvgPlot.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include <android-base/stringprintf.h>

namespace pwr::sim {
namespace {

using android::base::StringPrintf;

constexpr double kWidth = 1100;
constexpr double kLeft = 110;   // room for the vertical axis and the lock lanes' names
constexpr double kRight = 230;  // room for the legends
constexpr double kTop = 84;
constexpr double kPanelHeight = 120;
constexpr double kPanelGap = 46;
constexpr double kLaneHeight = 22;
constexpr double kBottom = 20;
constexpr const char* kColors[] = {"#1f77b4", "#d62728", "#2ca02c", "#ff7f0e",
                                   "#9467bd", "#8c564b", "#e377c2", "#17becf"};

std::string escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

// A step of 1, 2 or 5 times a power of ten that cuts `span` into about `count` parts.
double niceStep(double span, int count) {
    if (span <= 0) return 1;
    const double raw = span / count;
    const double magnitude = std::pow(10, std::floor(std::log10(raw)));
    for (double m : {1.0, 2.0, 5.0, 10.0}) {
        if (raw <= m * magnitude) return m * magnitude;
    }
    return 10 * magnitude;
}

std::string number(double v) {
    if (std::fabs(v) < 1e-9) return "0";
    return StringPrintf("%g", v);
}

struct Series {
    Series(const CounterTrack* t, std::string l, bool d = false)
        : track(t), label(std::move(l)), dashed(d) {}
    const CounterTrack* track;
    std::string label;
    bool dashed;
};

struct Panel {
    Panel(std::string t, std::vector<Series> s) : title(std::move(t)), series(std::move(s)) {}
    std::string title;  // with the unit
    std::vector<Series> series;
    double min = 0;
    double max = 1;
    bool fixedRange = false;
    std::map<double, std::string> tickLabels;  // instead of numbers, when set
    std::vector<std::string> notes;            // extra legend lines
};

class Plot {
  public:
    Plot(const Recording& recording, std::ostream& out) : mRec(recording), mOut(out) {
        const double seconds = static_cast<double>(recording.durationMs) / 1000.0;
        mMinutes = seconds > 300;
        mEndMs = std::max<int64_t>(recording.durationMs, 1);
    }

    void draw() {
        std::vector<Panel> panels = buildPanels();
        std::map<std::string, int> lanes;
        for (const LockSlice& slice : mRec.locks) lanes.emplace(slice.track, 0);
        int lane = 0;
        for (auto& [track, index] : lanes) index = lane++;
        const double lockHeight = lanes.empty() ? 0 : kLaneHeight * lanes.size() + 10;
        const double height = kTop + panels.size() * (kPanelHeight + kPanelGap) +
                              (lanes.empty() ? 0 : lockHeight + kPanelGap) + kBottom;

        mOut << StringPrintf(
                "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
                "viewBox=\"0 0 %.0f %.0f\" font-family=\"DejaVu Sans, Arial, sans-serif\" "
                "font-size=\"12\">\n",
                kWidth, height, kWidth, height);
        mOut << StringPrintf("<rect width=\"%.0f\" height=\"%.0f\" fill=\"white\"/>\n", kWidth,
                             height);
        mOut << StringPrintf(
                "<text x=\"%.0f\" y=\"24\" font-size=\"16\" font-weight=\"bold\">%s"
                "</text>\n",
                kLeft, escape("pwr-sim: " + mRec.scenarioName).c_str());
        mOut << StringPrintf("<text x=\"%.0f\" y=\"40\" fill=\"#555\">configuration %s</text>\n",
                             kLeft, escape(mRec.configFile).c_str());
        double y = kTop;
        for (const Panel& panel : panels) {
            drawPanel(panel, y);
            y += kPanelHeight + kPanelGap;
        }
        if (!lanes.empty()) {
            drawLocks(lanes, y, lockHeight);
            y += lockHeight + kPanelGap;
        }
        drawTimeAxisLabel(y - kPanelGap + 40);
        mOut << "</svg>\n";
    }

  private:
    const CounterTrack* counter(const char* key) const {
        auto it = mRec.counters.find(key);
        return it == mRec.counters.end() || it->second.points.empty() ? nullptr : &it->second;
    }

    std::vector<Panel> buildPanels() const {
        std::vector<Panel> panels;
        if (const CounterTrack* freq = counter(kCounterGpuFreq)) {
            Panel p{"GPU frequency (MHz)", {{freq, "device clock (gpuclk)"}}};
            if (const CounterTrack* measured = counter(kCounterGpuFreqMeasured)) {
                p.series.push_back({measured, "sampled by the feature", true});
            }
            panels.push_back(p);
        }
        if (const CounterTrack* busy = counter(kCounterGpuBusy)) {
            Panel p{"GPU busy (%)", {{busy, "busy (gpubusy)"}}};
            p.min = 0;
            p.max = 100;
            p.fixedRange = true;
            panels.push_back(p);
        }
        if (const CounterTrack* drain = counter(kCounterBatteryDrain)) {
            panels.push_back(Panel{"Battery drain (mA)", {{drain, "discharge (current_now)"}}});
        }
        const CounterTrack* level = counter(kCounterProfileLevel);
        if (level != nullptr && !mRec.dynamicProfiles.empty()) {
            Panel p{"GPU profile level", {{level, "dynamic profile held"}}};
            p.min = -1;
            p.max = static_cast<double>(mRec.dynamicProfiles.size()) - 1;
            p.fixedRange = true;
            p.tickLabels[-1] = "none";
            for (size_t i = 0; i < mRec.dynamicProfiles.size(); ++i) {
                p.tickLabels[static_cast<double>(i)] = std::to_string(i);
                p.notes.push_back(std::to_string(i) + " = " + mRec.dynamicProfiles[i]);
            }
            panels.push_back(p);
        }
        const CounterTrack* mode = counter(kCounterPsmMode);
        if (mode != nullptr && mode->points.size() > 1) {
            Panel p{"PSM mode", {{mode, "mode in force"}}};
            p.min = 0;
            p.max = 3;
            p.fixedRange = true;
            p.tickLabels = {{0, "0 off"}, {1, "1 light"}, {2, "2 gaming"}, {3, "3 battery"}};
            panels.push_back(p);
        }
        const CounterTrack* boosted = counter(kCounterBoostedTasks);
        if (boosted != nullptr && boosted->points.size() > 1) {
            Panel p{"Boosted tasks (count)", {{boosted, "tasks scaled down"}}};
            p.min = 0;
            p.max = 4;
            p.fixedRange = true;
            panels.push_back(p);
        }
        for (Panel& p : panels) {
            if (p.fixedRange) continue;
            double lo = 0;
            double hi = 0;
            bool first = true;
            for (const Series& s : p.series) {
                for (const auto& [t, v] : s.track->points) {
                    if (std::isnan(v)) continue;
                    lo = first ? v : std::min(lo, v);
                    hi = first ? v : std::max(hi, v);
                    first = false;
                }
            }
            lo = std::min(lo, 0.0);
            if (hi <= lo) hi = lo + 1;
            const double step = niceStep(hi - lo, 4);
            p.min = std::floor(lo / step) * step;
            p.max = std::ceil(hi / step) * step;
        }
        return panels;
    }

    double x(int64_t ms) const {
        return kLeft +
               (kWidth - kLeft - kRight) * static_cast<double>(ms) / static_cast<double>(mEndMs);
    }

    void drawTimeGrid(double top, double height, bool labels) {
        const double unit = mMinutes ? 60000.0 : 1000.0;
        const double span = static_cast<double>(mEndMs) / unit;
        const double step = niceStep(span, 10);
        for (double t = 0; t <= span + 1e-9; t += step) {
            const double px = x(static_cast<int64_t>(std::llround(t * unit)));
            mOut << StringPrintf(
                    "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" "
                    "stroke=\"#e5e5e5\"/>\n",
                    px, top, px, top + height);
            if (labels) {
                mOut << StringPrintf(
                        "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\" "
                        "fill=\"#333\">%s</text>\n",
                        px, top + height + 15, number(t).c_str());
            }
        }
    }

    void drawTimeAxisLabel(double y) {
        mOut << StringPrintf(
                "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\" "
                "font-size=\"13\">time (%s)</text>\n",
                (kLeft + kWidth - kRight) / 2, y, mMinutes ? "minutes" : "seconds");
    }

    void drawPanel(const Panel& panel, double top) {
        const double plotRight = kWidth - kRight;
        auto y = [&](double v) {
            return top + kPanelHeight - (v - panel.min) / (panel.max - panel.min) * kPanelHeight;
        };
        mOut << StringPrintf(
                "<text x=\"%.0f\" y=\"%.1f\" font-size=\"13\" "
                "font-weight=\"bold\">%s</text>\n",
                kLeft, top - 8, escape(panel.title).c_str());
        drawTimeGrid(top, kPanelHeight, true);
        // Vertical axis: ticks with values (or names), and horizontal grid lines.
        std::vector<std::pair<double, std::string>> ticks;
        if (!panel.tickLabels.empty()) {
            ticks.assign(panel.tickLabels.begin(), panel.tickLabels.end());
        } else {
            const double step = niceStep(panel.max - panel.min, 4);
            for (double v = panel.min; v <= panel.max + step * 1e-6; v += step) {
                ticks.emplace_back(v, number(v));
            }
        }
        for (const auto& [v, label] : ticks) {
            mOut << StringPrintf(
                    "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" "
                    "stroke=\"#e5e5e5\"/>\n",
                    kLeft, y(v), plotRight, y(v));
            mOut << StringPrintf(
                    "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\" "
                    "fill=\"#333\">%s</text>\n",
                    kLeft - 6, y(v) + 4, escape(label).c_str());
        }
        mOut << StringPrintf(
                "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" "
                "fill=\"none\" stroke=\"#333\"/>\n",
                kLeft, top, plotRight - kLeft, kPanelHeight);
        // Each series as a step line, and its legend entry.
        double legendY = top + 12;
        for (size_t i = 0; i < panel.series.size(); ++i) {
            const Series& s = panel.series[i];
            const char* color = kColors[i % std::size(kColors)];
            std::string path;
            const auto& points = s.track->points;
            // A point without a value (NaN) ends the line until the next one.
            bool drawing = false;
            for (const auto& [t, v] : points) {
                const double px = x(t);
                if (std::isnan(v)) {
                    if (drawing) path += StringPrintf("H%.1f", px);
                    drawing = false;
                    continue;
                }
                const double py = y(std::clamp(v, panel.min, panel.max));
                path += drawing ? StringPrintf("H%.1fV%.1f", px, py)
                                : StringPrintf("M%.1f %.1f", px, py);
                drawing = true;
            }
            if (drawing) path += StringPrintf("H%.1f", x(mEndMs));
            mOut << StringPrintf(
                    "<path d=\"%s\" fill=\"none\" stroke=\"%s\" stroke-width=\"1.5\"%s/>\n",
                    path.c_str(), color, s.dashed ? " stroke-dasharray=\"5 3\"" : "");
            legend(plotRight + 14, legendY, color, s.label, s.dashed);
            legendY += 18;
        }
        for (const std::string& note : panel.notes) {
            mOut << StringPrintf("<text x=\"%.1f\" y=\"%.1f\" fill=\"#333\">%s</text>\n",
                                 plotRight + 14, legendY + 4, escape(note).c_str());
            legendY += 16;
        }
    }

    void legend(double x0, double y0, const char* color, const std::string& label, bool dashed) {
        mOut << StringPrintf(
                "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" "
                "stroke=\"%s\" stroke-width=\"2\"%s/>\n",
                x0, y0, x0 + 22, y0, color, dashed ? " stroke-dasharray=\"5 3\"" : "");
        mOut << StringPrintf("<text x=\"%.1f\" y=\"%.1f\" fill=\"#333\">%s</text>\n", x0 + 28,
                             y0 + 4, escape(label).c_str());
    }

    void drawLocks(const std::map<std::string, int>& lanes, double top, double height) {
        const double plotRight = kWidth - kRight;
        mOut << StringPrintf(
                "<text x=\"%.0f\" y=\"%.1f\" font-size=\"13\" "
                "font-weight=\"bold\">Perf locks held</text>\n",
                kLeft, top - 8);
        drawTimeGrid(top, height, true);
        mOut << StringPrintf(
                "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" "
                "fill=\"none\" stroke=\"#333\"/>\n",
                kLeft, top, plotRight - kLeft, height);
        for (const auto& [track, index] : lanes) {
            mOut << StringPrintf(
                    "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\" "
                    "font-size=\"10\" fill=\"#333\">%s</text>\n",
                    kLeft - 6, top + 5 + kLaneHeight * index + 14, escape(track).c_str());
        }
        // One color per lock name, listed in the legend.
        std::map<std::string, const char*> colors;
        for (const LockSlice& slice : mRec.locks) {
            colors.emplace(slice.name, kColors[colors.size() % std::size(kColors)]);
        }
        for (const LockSlice& slice : mRec.locks) {
            const double x0 = x(slice.startMs);
            const double x1 = std::max(x(slice.endMs.value_or(mEndMs)), x0 + 1);
            const double y0 = top + 5 + kLaneHeight * lanes.at(slice.track);
            mOut << StringPrintf(
                    "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" "
                    "fill=\"%s\" fill-opacity=\"0.8\"><title>%s</title></rect>\n",
                    x0, y0, x1 - x0, kLaneHeight - 6, colors[slice.name],
                    escape(slice.name).c_str());
        }
        double legendY = top + 12;
        for (const auto& [name, color] : colors) {
            if (legendY > top + height + kPanelGap - 10) break;
            mOut << StringPrintf(
                    "<rect x=\"%.1f\" y=\"%.1f\" width=\"22\" height=\"10\" "
                    "fill=\"%s\"/>\n",
                    plotRight + 14, legendY - 5, color);
            mOut << StringPrintf("<text x=\"%.1f\" y=\"%.1f\" fill=\"#333\">%s</text>\n",
                                 plotRight + 42, legendY + 4, escape(name).c_str());
            legendY += 16;
        }
    }

    const Recording& mRec;
    std::ostream& mOut;
    bool mMinutes = false;
    int64_t mEndMs = 1;
};

}  // namespace

void writeSvgPlot(const Recording& recording, std::ostream& out) {
    Plot(recording, out).draw();
}

}  // namespace pwr::sim
