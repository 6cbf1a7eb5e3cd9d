#pragma once

#include <cstdint>
#include <string>

#include "pmdb/PMDBDataRowKey.h"

// One row of the reference-output table: a one-byte value kept under a text key.
struct PSMReferenceOutput {
    // 0: not on disk yet, written by an insert; otherwise the disk row that a write updates.
    int64_t rowid = 0;
    int32_t intcol1 = kPmdbIntUnset;
    std::string appName;
    // Empty means unset.
    std::string rsvdName;
    char blob = 0;
};
