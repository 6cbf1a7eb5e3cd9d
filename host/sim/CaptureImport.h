#pragma once

#include <string>
#include <vector>

#include "host/sim/AppCatalogue.h"
#include "host/sim/Capture.h"
#include "host/sim/Scenario.h"

namespace pwr::sim {

// Turns a capture into a scenario (docs/pwr-capture.md): the GPU trace from the clock
// statistics' deltas between samples (average frequency and residency) with the busy share read
// at each interval's start, the battery drain, the foreground cpuset with its program names, app
// start and stop events where the foreground activity's package changes, and the properties'
// starting values. Times count from the first sample.
//
// What the capture cannot tell is reported, never smoothed over: gaps between samples, clock
// statistics that went back, nodes a sample lacks, packages the catalogue does not cover. Each
// becomes a warning naming the capture's line, and the gaps and counter resets a note in the
// scenario's timeline.
class CaptureImport {
  public:
    // Fills `out` (its `configPath` left empty) and appends warnings. False, with `error` set
    // to "<file>:<line>: <what is wrong>", when the capture cannot make a scenario: fewer than
    // two samples, time going back, clock statistics or a frequency that do not fit the
    // frequency table (a capture from a device with another table).
    static bool run(const Capture& capture, const AppCatalogue* catalogue, Scenario* out,
                    std::vector<std::string>* warnings, std::string* error);
};

}  // namespace pwr::sim
