#include "host/sim/TimelineWriter.h"

#include <android-base/stringprintf.h>

#include "host/sim/Summary.h"

namespace pwr::sim {

std::string timelineLine(const TimelineEntry& entry) {
    std::string line =
            formatTime(entry.timeMs) +
            android::base::StringPrintf("  %-8s %s", entry.kind.c_str(), entry.text.c_str());
    while (!line.empty() && line.back() == ' ') line.pop_back();
    return line;
}

void TimelineWriter::timeline(const TimelineEntry& entry) {
    if (!mWithLog && entry.kind == "log") return;
    mOut << timelineLine(entry) << '\n';
}

}  // namespace pwr::sim
