#include <algorithm>
#include <cmath>
#include <tuple>

#include <android-base/stringprintf.h>

#include "host/sim/SvgTimePlot.h"
#include "host/sim/Sweep.h"

namespace pwr::sim {
namespace {

using android::base::StringPrintf;

constexpr double kWidth = 900;
constexpr double kHeight = 620;
constexpr double kLeft = 90;
constexpr double kRight = 40;
constexpr double kTop = 90;
constexpr double kBottom = 70;
constexpr char kFrontColor[] = "#d62728";
constexpr char kOtherColor[] = "#7f7f7f";
constexpr size_t kMaxLabel = 40;

// An axis from 0 (or below) to a little past the largest value, in nice steps.
std::pair<double, double> range(double lo, double hi) {
    lo = std::min(lo, 0.0);
    if (hi <= lo) hi = lo + 1;
    const double step = niceStep(hi - lo, 5);
    return {std::floor(lo / step) * step, std::ceil(hi * 1.05 / step) * step};
}

}  // namespace

void writeTradeoffPlot(const std::vector<TradeoffPoint>& points, const std::string& title,
                       const std::string& subtitle, std::ostream& out) {
    double maxX = 0;
    double maxY = points.empty() ? 1 : points.front().chargeMah;
    double minY = maxY;
    for (const TradeoffPoint& p : points) {
        maxX = std::max(maxX, p.saturatedPct);
        maxY = std::max(maxY, p.chargeMah);
        minY = std::min(minY, p.chargeMah);
    }
    const auto [x0, x1] = range(0, maxX);
    // Charge differences are small beside the charge: start the axis near the lowest.
    const double spanY = std::max(maxY - minY, 1.0);
    const double stepY = niceStep(spanY, 5);
    const double y0 = std::floor((minY - spanY * 0.1) / stepY) * stepY;
    const double y1 = std::ceil((maxY + spanY * 0.1) / stepY) * stepY;
    auto px = [&, x0 = x0, x1 = x1](double v) {
        return kLeft + (kWidth - kLeft - kRight) * (v - x0) / (x1 - x0);
    };
    auto py = [&](double v) {
        return kTop + (kHeight - kTop - kBottom) * (1 - (v - y0) / (y1 - y0));
    };

    out << StringPrintf(
            "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
            "viewBox=\"0 0 %.0f %.0f\" font-family=\"DejaVu Sans, Arial, sans-serif\" "
            "font-size=\"12\">\n<rect width=\"%.0f\" height=\"%.0f\" fill=\"white\"/>\n",
            kWidth, kHeight, kWidth, kHeight, kWidth, kHeight);
    out << StringPrintf(
            "<text x=\"%.0f\" y=\"26\" font-size=\"16\" font-weight=\"bold\">%s</text>\n"
            "<text x=\"%.0f\" y=\"44\" fill=\"#555\">%s</text>\n",
            kLeft, svgEscape(title).c_str(), kLeft, svgEscape(subtitle).c_str());
    // Grid and ticks.
    const double stepX = niceStep(x1 - x0, 5);
    for (double v = x0; v <= x1 + stepX * 1e-6; v += stepX) {
        out << StringPrintf(
                "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#e5e5e5\"/>\n"
                "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\" fill=\"#333\">%s</text>\n",
                px(v), kTop, px(v), kHeight - kBottom, px(v), kHeight - kBottom + 16,
                axisNumber(v).c_str());
    }
    for (double v = y0; v <= y1 + stepY * 1e-6; v += stepY) {
        out << StringPrintf(
                "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#e5e5e5\"/>\n"
                "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\" fill=\"#333\">%s</text>\n",
                kLeft, py(v), kWidth - kRight, py(v), kLeft - 6, py(v) + 4, axisNumber(v).c_str());
    }
    out << StringPrintf(
            "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"none\" "
            "stroke=\"#333\"/>\n",
            kLeft, kTop, kWidth - kLeft - kRight, kHeight - kTop - kBottom);
    out << StringPrintf(
            "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\" font-size=\"13\">GPU saturated "
            "(%% of the time; lower is better)</text>\n",
            (kLeft + kWidth - kRight) / 2, kHeight - 24);
    out << StringPrintf(
            "<text transform=\"translate(24 %.1f) rotate(-90)\" text-anchor=\"middle\" "
            "font-size=\"13\">charge used (mAh; lower is better)</text>\n",
            (kTop + kHeight - kBottom) / 2);

    // The front as a line through its points, left to right.
    std::vector<const TradeoffPoint*> front;
    for (const TradeoffPoint& p : points) {
        if (p.pareto) front.push_back(&p);
    }
    std::sort(front.begin(), front.end(), [](const TradeoffPoint* a, const TradeoffPoint* b) {
        return a->saturatedPct < b->saturatedPct ||
               (a->saturatedPct == b->saturatedPct && a->chargeMah > b->chargeMah);
    });
    std::string path;
    for (const TradeoffPoint* p : front) {
        path += StringPrintf("%s%.1f %.1f", path.empty() ? "M" : "L", px(p->saturatedPct),
                             py(p->chargeMah));
    }
    if (front.size() > 1) {
        out << StringPrintf(
                "<path d=\"%s\" fill=\"none\" stroke=\"%s\" stroke-width=\"1.5\" "
                "stroke-dasharray=\"4 3\"/>\n",
                path.c_str(), kFrontColor);
    }
    // Configurations with the same figures share a point and a label.
    std::vector<TradeoffPoint> merged;
    for (const TradeoffPoint& p : points) {
        auto same = std::find_if(merged.begin(), merged.end(), [&](const TradeoffPoint& m) {
            return m.saturatedPct == p.saturatedPct && m.chargeMah == p.chargeMah;
        });
        if (same == merged.end()) {
            merged.push_back(p);
        } else {
            same->label += ", " + p.label;
        }
    }
    // Top to bottom, so that labels pushed down keep the order of their points.
    std::stable_sort(merged.begin(), merged.end(),
                     [](const TradeoffPoint& a, const TradeoffPoint& b) {
                         return a.chargeMah > b.chargeMah;
                     });
    std::vector<std::tuple<bool, double, double>> placed;  // side, x and y of each label
    for (const TradeoffPoint& p : merged) {
        const char* color = p.pareto ? kFrontColor : kOtherColor;
        out << StringPrintf(
                "<circle cx=\"%.1f\" cy=\"%.1f\" r=\"%d\" fill=\"%s\" fill-opacity=\"%s\" "
                "stroke=\"%s\"><title>%s: %.1f mAh, %.1f%% saturated</title></circle>\n",
                px(p.saturatedPct), py(p.chargeMah), p.pareto ? 6 : 4, color,
                p.pareto ? "0.9" : "0.25", color, svgEscape(p.label).c_str(), p.chargeMah,
                p.saturatedPct);
        // Long lists of configurations name the first few; labels on the right half go left.
        std::string label = p.label;
        if (label.size() > kMaxLabel) {
            const size_t cut = label.rfind(", ", kMaxLabel);
            const size_t shown = std::count(label.begin(), label.begin() + cut, ',') + 1;
            const size_t all = std::count(label.begin(), label.end(), ',') + 1;
            label = label.substr(0, cut) + StringPrintf(" (+%zu more)", all - shown);
        }
        const bool left = px(p.saturatedPct) > (kLeft + kWidth - kRight) / 2;
        // Moved down past the labels already placed on the same side that it would cover.
        double labelY = py(p.chargeMah) - 6;
        for (bool moved = true; moved;) {
            moved = false;
            for (const auto& [placedLeft, placedX, placedY] : placed) {
                if (placedLeft == left && std::fabs(placedX - px(p.saturatedPct)) < 200 &&
                    std::fabs(placedY - labelY) < 12) {
                    labelY = placedY + 13;
                    moved = true;
                }
            }
        }
        placed.emplace_back(left, px(p.saturatedPct), labelY);
        out << StringPrintf(
                "<text x=\"%.1f\" y=\"%.1f\" font-size=\"%d\" fill=\"%s\" "
                "text-anchor=\"%s\">%s</text>\n",
                px(p.saturatedPct) + (left ? -8 : 8), labelY, p.pareto ? 11 : 9,
                p.pareto ? "#222" : "#777", left ? "end" : "start", svgEscape(label).c_str());
    }
    // Legend, above the plot where no point can hide it.
    out << StringPrintf(
            "<circle cx=\"%.1f\" cy=\"70\" r=\"6\" fill=\"%s\" fill-opacity=\"0.9\"/>\n"
            "<text x=\"%.1f\" y=\"74\">best of both (Pareto)</text>\n"
            "<circle cx=\"%.1f\" cy=\"70\" r=\"4\" fill=\"%s\" fill-opacity=\"0.25\" "
            "stroke=\"%s\"/>\n<text x=\"%.1f\" y=\"74\">another is no worse on both</text>\n",
            kLeft + 6, kFrontColor, kLeft + 18, kLeft + 200, kOtherColor, kOtherColor, kLeft + 212);
    out << "</svg>\n";
}

}  // namespace pwr::sim
