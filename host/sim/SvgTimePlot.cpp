#include "host/sim/SvgTimePlot.h"

#include <algorithm>
#include <cmath>

#include <android-base/stringprintf.h>

#include "host/sim/ProfileColors.h"

namespace pwr::sim {
namespace {

using android::base::StringPrintf;

constexpr double kWidth = 1100;
constexpr double kMinLeft = 110;      // room for the vertical axis and the lanes' names
constexpr double kLaneCharWidth = 6;  // of the lanes' names (10 px)
constexpr double kRight = 230;        // room for the legends
constexpr double kTop = 84;
constexpr double kPanelHeight = 120;
constexpr double kPanelGap = 46;
constexpr double kLaneHeight = 22;
constexpr double kBottom = 20;

void legend(std::ostream& out, double x0, double y0, const std::string& color,
            const std::string& label, bool dashed) {
    out << StringPrintf(
            "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" "
            "stroke=\"%s\" stroke-width=\"2\"%s/>\n",
            x0, y0, x0 + 22, y0, color.c_str(), dashed ? " stroke-dasharray=\"5 3\"" : "");
    out << StringPrintf("<text x=\"%.1f\" y=\"%.1f\" fill=\"#333\">%s</text>\n", x0 + 28, y0 + 4,
                        svgEscape(label).c_str());
}

}  // namespace

std::string svgEscape(const std::string& text) {
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

double niceStep(double span, int count) {
    if (span <= 0) return 1;
    const double raw = span / count;
    const double magnitude = std::pow(10, std::floor(std::log10(raw)));
    for (double m : {1.0, 2.0, 5.0, 10.0}) {
        if (raw <= m * magnitude) return m * magnitude;
    }
    return 10 * magnitude;
}

std::string axisNumber(double v) {
    if (std::fabs(v) < 1e-9) return "0";
    return StringPrintf("%g", v);
}

SvgTimePlot::SvgTimePlot(std::string title, std::string subtitle, int64_t endMs)
    : mTitle(std::move(title)),
      mSubtitle(std::move(subtitle)),
      mEndMs(std::max<int64_t>(endMs, 1)),
      mUnitMs(endMs > 3 * 3600000 ? 3600000.0
              : endMs > 300000    ? 60000.0
                                  : 1000.0),
      mUnitName(endMs > 3 * 3600000 ? "hours"
                : endMs > 300000    ? "minutes"
                                    : "seconds"),
      mLeft(kMinLeft) {}

void SvgTimePlot::setBars(std::string title, std::vector<std::string> lanes,
                          std::vector<PlotBar> bars) {
    mBarsTitle = std::move(title);
    mLanes = std::move(lanes);
    mBars = std::move(bars);
    for (const std::string& lane : mLanes) {
        mLeft = std::max(mLeft, kLaneCharWidth * static_cast<double>(lane.size()) + 12);
    }
}

double SvgTimePlot::x(int64_t ms) const {
    return mLeft +
           (kWidth - mLeft - kRight) * static_cast<double>(ms) / static_cast<double>(mEndMs);
}

void SvgTimePlot::write(std::ostream& out) const {
    std::vector<PlotPanel> panels = mPanels;
    for (PlotPanel& p : panels) {
        if (p.fixedRange) continue;
        double lo = 0;
        double hi = 0;
        bool first = true;
        for (const PlotSeries& s : p.series) {
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
    const double barsHeight = mLanes.empty() ? 0 : kLaneHeight * mLanes.size() + 10;
    const double height = kTop + panels.size() * (kPanelHeight + kPanelGap) +
                          (mLanes.empty() ? 0 : barsHeight + kPanelGap) + kBottom;
    out << StringPrintf(
            "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
            "viewBox=\"0 0 %.0f %.0f\" font-family=\"DejaVu Sans, Arial, sans-serif\" "
            "font-size=\"12\">\n",
            kWidth, height, kWidth, height);
    out << StringPrintf("<rect width=\"%.0f\" height=\"%.0f\" fill=\"white\"/>\n", kWidth, height);
    out << StringPrintf(
            "<text x=\"%.0f\" y=\"24\" font-size=\"16\" font-weight=\"bold\">%s</text>\n", mLeft,
            svgEscape(mTitle).c_str());
    out << StringPrintf("<text x=\"%.0f\" y=\"40\" fill=\"#555\">%s</text>\n", mLeft,
                        svgEscape(mSubtitle).c_str());
    double y = kTop;
    for (const PlotPanel& panel : panels) {
        drawPanel(out, panel, y);
        y += kPanelHeight + kPanelGap;
    }
    if (!mLanes.empty()) {
        drawBars(out, y, barsHeight);
        y += barsHeight + kPanelGap;
    }
    out << StringPrintf(
            "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\" font-size=\"13\">time "
            "(%s)</text>\n",
            (mLeft + kWidth - kRight) / 2, y - kPanelGap + 40, mUnitName);
    out << "</svg>\n";
}

void SvgTimePlot::drawTimeGrid(std::ostream& out, double top, double height) const {
    const double unit = mUnitMs;
    const double span = static_cast<double>(mEndMs) / unit;
    const double step = niceStep(span, 10);
    for (double t = 0; t <= span + 1e-9; t += step) {
        const double px = x(static_cast<int64_t>(std::llround(t * unit)));
        out << StringPrintf(
                "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#e5e5e5\"/>\n", px,
                top, px, top + height);
        out << StringPrintf(
                "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\" fill=\"#333\">%s</text>\n", px,
                top + height + 15, axisNumber(t).c_str());
    }
}

void SvgTimePlot::drawPanel(std::ostream& out, const PlotPanel& panel, double top) const {
    const double plotRight = kWidth - kRight;
    auto y = [&](double v) {
        return top + kPanelHeight - (v - panel.min) / (panel.max - panel.min) * kPanelHeight;
    };
    out << StringPrintf(
            "<text x=\"%.0f\" y=\"%.1f\" font-size=\"13\" font-weight=\"bold\">%s</text>\n", mLeft,
            top - 8, svgEscape(panel.title).c_str());
    drawTimeGrid(out, top, kPanelHeight);
    // Vertical axis: ticks with values (or names), and horizontal grid lines.
    std::vector<std::pair<double, std::string>> ticks;
    if (!panel.tickLabels.empty()) {
        ticks.assign(panel.tickLabels.begin(), panel.tickLabels.end());
    } else {
        const double step = niceStep(panel.max - panel.min, 4);
        for (double v = panel.min; v <= panel.max + step * 1e-6; v += step) {
            ticks.emplace_back(v, axisNumber(v));
        }
    }
    for (const auto& [v, label] : ticks) {
        out << StringPrintf(
                "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#e5e5e5\"/>\n",
                mLeft, y(v), plotRight, y(v));
        out << StringPrintf(
                "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\" fill=\"#333\">%s</text>\n",
                mLeft - 6, y(v) + 4, svgEscape(label).c_str());
    }
    out << StringPrintf(
            "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"none\" "
            "stroke=\"#333\"/>\n",
            mLeft, top, plotRight - mLeft, kPanelHeight);
    // Each series as a step line, and its legend entry.
    double legendY = top + 12;
    for (size_t i = 0; i < panel.series.size(); ++i) {
        const PlotSeries& s = panel.series[i];
        const std::string color = s.color.empty() ? seriesColor(i) : s.color;
        std::string path;
        // A point without a value (NaN) ends the line until the next one.
        bool drawing = false;
        for (const auto& [t, v] : s.track->points) {
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
        out << StringPrintf("<path d=\"%s\" fill=\"none\" stroke=\"%s\" stroke-width=\"1.5\"%s/>\n",
                            path.c_str(), color.c_str(),
                            s.dashed ? " stroke-dasharray=\"5 3\"" : "");
        legend(out, plotRight + 14, legendY, color, s.label, s.dashed);
        legendY += 18;
    }
    for (const std::string& note : panel.notes) {
        out << StringPrintf("<text x=\"%.1f\" y=\"%.1f\" fill=\"#333\">%s</text>\n", plotRight + 14,
                            legendY + 4, svgEscape(note).c_str());
        legendY += 16;
    }
}

void SvgTimePlot::drawBars(std::ostream& out, double top, double height) const {
    const double plotRight = kWidth - kRight;
    out << StringPrintf(
            "<text x=\"%.0f\" y=\"%.1f\" font-size=\"13\" font-weight=\"bold\">%s</text>\n", mLeft,
            top - 8, svgEscape(mBarsTitle).c_str());
    drawTimeGrid(out, top, height);
    out << StringPrintf(
            "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"none\" "
            "stroke=\"#333\"/>\n",
            mLeft, top, plotRight - mLeft, height);
    std::map<std::string, size_t> laneIndex;
    for (size_t i = 0; i < mLanes.size(); ++i) {
        laneIndex.emplace(mLanes[i], i);
        out << StringPrintf(
                "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\" font-size=\"10\" "
                "fill=\"#333\">%s</text>\n",
                mLeft - 6, top + 5 + kLaneHeight * i + 14, svgEscape(mLanes[i]).c_str());
    }
    std::map<std::string, std::string> legendColors;
    for (const PlotBar& bar : mBars) {
        auto lane = laneIndex.find(bar.lane);
        if (lane == laneIndex.end()) continue;
        legendColors.emplace(bar.label, bar.color);
        const double x0 = x(bar.startMs);
        const double x1 = std::max(x(bar.endMs.value_or(mEndMs)), x0 + 1);
        const double y0 = top + 5 + kLaneHeight * lane->second;
        out << StringPrintf(
                "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\" "
                "fill-opacity=\"%.2f\"><title>%s</title></rect>\n",
                x0, y0, x1 - x0, kLaneHeight - 6, bar.color.c_str(),
                0.8 * std::clamp(bar.share, 0.15, 1.0),
                svgEscape(bar.share < 1 ? StringPrintf("%s (%.0f%% of this span)",
                                                       bar.label.c_str(), 100 * bar.share)
                                        : bar.label)
                        .c_str());
    }
    double legendY = top + 12;
    for (const auto& [label, color] : legendColors) {
        if (legendY > top + height + kPanelGap - 10) break;
        out << StringPrintf(
                "<rect x=\"%.1f\" y=\"%.1f\" width=\"22\" height=\"10\" fill=\"%s\"/>\n",
                plotRight + 14, legendY - 5, color.c_str());
        out << StringPrintf("<text x=\"%.1f\" y=\"%.1f\" fill=\"#333\">%s</text>\n", plotRight + 42,
                            legendY + 4, svgEscape(label).c_str());
        legendY += 16;
    }
}

}  // namespace pwr::sim
