#pragma once

#include <cstdint>
#include <string>

// Status of the record store's operations: 0 for success, -1 for failure.
using pmdbError = int32_t;
inline constexpr pmdbError kPmdbSuccess = 0;
inline constexpr pmdbError kPmdbFailure = -1;

// The value of an integer column that is unset: never bound, and not part of a key.
inline constexpr int32_t kPmdbIntUnset = INT32_MAX;

// Selects rows for reads, counts and deletes. An unset part (empty text, kPmdbIntUnset) is left
// out of the where clause; a key with no part set selects every row.
struct PMDBDataRowKey {
    int32_t intcol1 = kPmdbIntUnset;
    std::string appName;
    std::string rsvdName;
};
