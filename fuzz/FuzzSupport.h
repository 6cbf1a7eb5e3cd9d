#pragma once

// Shared pieces of the fuzz targets: a fake device root for whatever the code under test opens,
// silent logging, and a check that stops the run when an invariant fails.

#include <memory>
#include <string>

#include "feature/PowerOptFeature.h"

namespace pwr::fuzz {

// Prints `what` and aborts, so that libFuzzer keeps the input, when `ok` is false.
void check(bool ok, const char* what);

// Creates, once per process, a fake device root in a fresh temporary directory (on /dev/shm when
// it is writable), with the directory of the feature's database, and makes it the root.
const std::string& deviceRoot();

// Removes the feature's database files, so each input starts from an empty store.
void clearStore();

// Routes liblog to a logger that drops every line.
void quietLogs();

// The outcome of building a feature from a configuration the way the host does.
struct Built {
    std::unique_ptr<PowerOptFeature> feature;  // null when the constructor threw
    bool threw = false;                        // std::invalid_argument or std::out_of_range
};

// Builds "PSMPowerOptFeature" through the registry. The constructor's specified exceptions (an
// unparsable or out-of-range number) are caught; any other exception is not.
Built buildFeature(const PowerOptFeatureInfo& info);

}  // namespace pwr::fuzz
