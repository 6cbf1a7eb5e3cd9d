#include "host/sim/TimelineWriter.h"

#include "host/sim/Summary.h"

namespace pwr::sim {

std::string timelineLine(const TimelineEntry& entry) {
    std::string line = formatTime(entry.timeMs);
    line += "  ";
    line += entry.kind;
    if (entry.kind.size() < 8) line.append(8 - entry.kind.size(), ' ');
    line += ' ';
    line += entry.text;
    while (!line.empty() && line.back() == ' ') line.pop_back();
    return line;
}

void TimelineWriter::timeline(const TimelineEntry& entry) {
    if (!mWithLog && entry.kind == "log") return;
    mOut << timelineLine(entry) << '\n';
}

}  // namespace pwr::sim
