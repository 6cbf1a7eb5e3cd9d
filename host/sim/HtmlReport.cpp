#include "host/sim/HtmlReport.h"

#include "host/sim/Summary.h"
#include "host/sim/SvgTimePlot.h"

namespace pwr::sim {
namespace {

constexpr char kStyle[] = R"(
body { font-family: "DejaVu Sans", Arial, sans-serif; margin: 24px; color: #222; }
h1 { font-size: 20px; margin: 0 0 4px; }
h2 { font-size: 16px; margin: 28px 0 8px; }
.sub { color: #555; margin-bottom: 16px; }
pre.summary { background: #f6f6f6; padding: 12px; border: 1px solid #ddd; overflow-x: auto; }
.plot { overflow-x: auto; border: 1px solid #ddd; }
.kinds label { display: inline-block; margin: 0 14px 6px 0; cursor: pointer; }
.kinds .count { color: #777; }
table.timeline { border-collapse: collapse; font-family: "DejaVu Sans Mono", monospace;
                 font-size: 12px; }
table.timeline td { padding: 1px 10px 1px 0; vertical-align: top; white-space: pre-wrap; }
table.timeline td.t { color: #555; white-space: nowrap; }
table.timeline td.k { font-weight: bold; }
tr.why td.k, tr.why td.x { color: #a03000; }
tr.log td { color: #666; }
.note { color: #555; margin: 6px 0; }
#shown { color: #555; margin-left: 12px; }
)";

// Shows the rows of the checked kinds; counts what is shown.
constexpr char kScript[] = R"(
function applyFilter() {
  var shown = {};
  document.querySelectorAll('.kinds input').forEach(function (box) {
    shown[box.value] = box.checked;
  });
  var count = 0;
  document.querySelectorAll('table.timeline tr').forEach(function (row) {
    var on = shown[row.className] !== false;
    row.style.display = on ? '' : 'none';
    if (on) count++;
  });
  document.getElementById('shown').textContent = count + ' lines shown';
}
document.querySelectorAll('.kinds input').forEach(function (box) {
  box.addEventListener('change', applyFilter);
});
var params = new URLSearchParams(window.location.search);
if (params.has('kinds')) {
  var wanted = params.get('kinds').split(',');
  document.querySelectorAll('.kinds input').forEach(function (box) {
    box.checked = wanted.indexOf(box.value) >= 0;
  });
}
applyFilter();
)";

// Text safe in HTML; a kind is also a class name, which holds letters only.
std::string escape(const std::string& text) {
    return svgEscape(text);
}

}  // namespace

void HtmlReport::timeline(const TimelineEntry& entry) {
    ++mTotal;
    ++mKinds[entry.kind];
    if (mLines.size() < kMaxLines) mLines.push_back(entry);
}

void HtmlReport::write(const Recording& recording, const std::string& summaryText,
                       const std::string& plotSvg, std::ostream& out) const {
    out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n<title>pwr-sim: "
        << escape(recording.scenarioName) << "</title>\n<style>" << kStyle
        << "</style></head>\n<body>\n";
    out << "<h1>pwr-sim: " << escape(recording.scenarioName) << "</h1>\n<div class=\"sub\">"
        << escape(recording.scenarioFile) << " with " << escape(recording.configFile)
        << (recording.deviceModelFile.empty()
                    ? std::string()
                    : ", closed loop on " + escape(recording.deviceModelFile))
        << ", " << formatTime(recording.durationMs) << " simulated</div>\n";
    out << "<h2>Summary</h2>\n<pre class=\"summary\">" << escape(summaryText) << "</pre>\n";
    out << "<h2>Plot</h2>\n<div class=\"plot\">\n" << plotSvg << "</div>\n";
    out << "<h2 id=\"timeline\">Timeline</h2>\n<div class=\"kinds\">";
    for (const auto& [kind, count] : mKinds) {
        // The feature's own log lines start hidden: the rest says what it did.
        out << "<label><input type=\"checkbox\" value=\"" << escape(kind) << "\""
            << (kind == "log" ? "" : " checked") << "> " << escape(kind)
            << " <span class=\"count\">(" << count << ")</span></label>";
    }
    out << "<span id=\"shown\"></span></div>\n";
    if (mTotal > mLines.size()) {
        out << "<div class=\"note\">The first " << mLines.size() << " of " << mTotal
            << " lines; timeline.txt beside this page has them all.</div>\n";
    }
    out << "<table class=\"timeline\">\n";
    for (const TimelineEntry& e : mLines) {
        out << "<tr class=\"" << escape(e.kind) << "\"><td class=\"t\">" << formatTime(e.timeMs)
            << "</td><td class=\"k\">" << escape(e.kind) << "</td><td class=\"x\">"
            << escape(e.text) << "</td></tr>\n";
    }
    out << "</table>\n<script>" << kScript << "</script>\n</body></html>\n";
}

}  // namespace pwr::sim
