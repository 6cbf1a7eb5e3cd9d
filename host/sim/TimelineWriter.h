#pragma once

#include <ostream>

#include "host/sim/Recording.h"

namespace pwr::sim {

// Writes the timeline as text while the run goes, one line per entry:
// "h:mm:ss.mmm  kind     text". Without `withLog` the feature's own log lines are left out
// (what it did stays: events, locks, boosts, properties, modes, explanations).
class TimelineWriter : public RunObserver {
  public:
    TimelineWriter(std::ostream& out, bool withLog) : mOut(out), mWithLog(withLog) {}
    void timeline(const TimelineEntry& entry) override;

  private:
    std::ostream& mOut;
    const bool mWithLog;
};

// One timeline line as TimelineWriter writes it, without its newline.
std::string timelineLine(const TimelineEntry& entry);

}  // namespace pwr::sim
