#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "host/sim/Recording.h"

namespace pwr::sim {

struct SimOptions {
    std::string pluginPath;    // the plug-in library to dlopen
    std::string scenarioPath;  // JSON scenario
    std::string configPath;    // XML configuration; empty: the scenario's "config"
    std::string deviceRoot;    // fake device tree; empty: a fresh temporary one, removed after
    bool debug = false;        // set "vendor.debug.trace.power" (as the scenario's "debug" does)
    // Device model (docs/device-model.md); empty: replay the scenario's traces open-loop.
    std::string deviceModelPath;
    // Called as the simulated time advances (reached, duration), for a progress line.
    std::function<void(int64_t, int64_t)> progress;
    // Asked between steps; true stops the run (Ctrl-C), which then returns tools::kInterrupted.
    std::function<bool()> stopRequested;
};

// Runs a scenario against a plug-in exactly as the power service drives it, on simulated time:
// builds the fake device tree, loads the library, builds the feature from the XML configuration
// through the registry, then moves the process's virtual clock from event to event and from
// timer expiry to timer expiry, bringing the device's nodes up to each time first, and finally
// deletes the feature. The process must provide the POSIX timer functions on the virtual clock
// (link pwr_virtual_timers). Streams every timeline line, counter change and ended lock to
// `observers` as it happens, fills `out` with the run's aggregates and returns 0; returns 1 after
// one error line on `err` when an input is invalid, the plug-in cannot be loaded, the feature is
// not built or ends not ready. Warnings about the configuration go to `err` too. With a device
// model the device is closed-loop (FakeDevice): it reacts to the feature's locks, and the
// recording carries the power and performance figures.
int runSimulation(const SimOptions& options, Recording* out,
                  const std::vector<RunObserver*>& observers, std::ostream& err);

}  // namespace pwr::sim
