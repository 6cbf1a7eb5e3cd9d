#pragma once

// Level look-ups shared by GraxInfo and PolicyInfo. A level is an index into a frequency table
// sorted ascending and its parallel capacity table.

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace pwr::freqlevels {

// Level of `value` in `table`: 0 for an empty table, the only level of a one-entry table, else
// the first level from 1 upward whose entry is at or above `value`, or the top level. The scan
// starts at level 1 on purpose, so every value up to level 1's entry yields 1.
inline int levelOf(const std::vector<uint64_t>& table, uint64_t value) {
    const size_t n = table.size();
    if (n == 0) return 0;
    if (n < 2) return static_cast<int>(n - 1);
    for (size_t i = 1; i < n; ++i) {
        if (table[i] >= value) return static_cast<int>(i);
    }
    return static_cast<int>(n - 1);
}

// Frequency of the first level, from level 0 upward, whose capacity is at or above `capacity`,
// or the highest frequency when none is; 0 without capacities.
inline int64_t freqForCapacity(const std::vector<uint64_t>& freqs,
                               const std::vector<uint64_t>& capacities, uint64_t capacity) {
    if (capacities.empty() || freqs.empty()) return 0;
    const size_t n = std::min(freqs.size(), capacities.size());
    for (size_t i = 0; i < n; ++i) {
        if (capacities[i] >= capacity) return static_cast<int64_t>(freqs[i]);
    }
    return static_cast<int64_t>(freqs.back());
}

// The entry at `level`, clamped into the table (a negative level gives the first entry); 0 for
// an empty table.
inline int64_t entryAt(const std::vector<uint64_t>& table, int level) {
    if (table.empty()) return 0;
    if (level < 0) return static_cast<int64_t>(table.front());
    const size_t index = std::min(static_cast<size_t>(level), table.size() - 1);
    return static_cast<int64_t>(table[index]);
}

// "f0:c0, f1:c1," (the last blank dropped, the final comma kept) over the levels that have both a
// frequency and a capacity; empty without levels.
inline std::string dumpLevels(const std::vector<uint64_t>& freqs,
                              const std::vector<uint64_t>& capacities) {
    std::string text;
    const size_t n = std::min(freqs.size(), capacities.size());
    for (size_t i = 0; i < n; ++i) {
        text += std::to_string(freqs[i]);
        text += ':';
        text += std::to_string(capacities[i]);
        text += ", ";
    }
    if (!text.empty()) text.pop_back();
    return text;
}

// Time added to a cumulative counter since `previous`; a counter that went backwards was reset
// and counts its whole current value.
inline uint64_t counterDelta(uint64_t current, uint64_t previous) {
    return current >= previous ? current - previous : current;
}

}  // namespace pwr::freqlevels
