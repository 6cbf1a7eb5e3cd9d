#include "host/sim/TimelineWriter.h"

#include <android-base/stringprintf.h>

#include "host/sim/Summary.h"

namespace pwr::sim {

void writeTimeline(const Recording& recording, std::ostream& out, bool withLog) {
    for (const TimelineEntry& entry : recording.timeline) {
        if (!withLog && entry.kind == "log") continue;
        std::string line =
                formatTime(entry.timeMs) +
                android::base::StringPrintf("  %-8s %s", entry.kind.c_str(), entry.text.c_str());
        while (!line.empty() && line.back() == ' ') line.pop_back();
        out << line << '\n';
    }
}

}  // namespace pwr::sim
