#pragma once

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "host/sim/Recording.h"

namespace pwr::sim {

// Writes the run in the Chrome trace-event JSON format (opens in Perfetto's UI and
// chrome://tracing) while it goes, one event per line: a counter event whenever a counter
// changes, a complete slice on a thread per lock track (and per lane: the gaming state, deep
// mode, the foreground app) when the lock ends, and instant events for the timeline's events,
// notes, device changes, modes, explanations and log lines. finish() closes the file with the
// run's names and the counters' last values at the end.
class ChromeTraceWriter : public RunObserver {
  public:
    explicit ChromeTraceWriter(std::ostream& out);

    void timeline(const TimelineEntry& entry) override;
    void counter(const std::string& key, const CounterTrack& track, int64_t timeMs,
                 double value) override;
    void lock(const LockSlice& slice) override;
    void finish(const Recording& recording);

  private:
    void event(const std::string& json);

    std::ostream& mOut;
    bool mFirst = true;
    std::map<std::string, int> mTids;
    std::vector<int> mOpenTids;  // threads of slices still open at the end
    // Each counter's name and unit as JSON texts, and its last value, for a last point at the
    // end.
    struct Last {
        std::string name;
        std::string unit;
        double value;
    };
    std::map<std::string, Last> mLast;
};

}  // namespace pwr::sim
