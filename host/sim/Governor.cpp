#include "host/sim/Governor.h"

#include <algorithm>

namespace pwr::sim {

Governor::Range Governor::allowed(std::optional<int> minMhz, std::optional<int> maxMhz) const {
    Range range{mTable.front(), mTable.back()};
    if (maxMhz) {
        auto above = std::upper_bound(mTable.begin(), mTable.end(),
                                      static_cast<uint64_t>(std::max(*maxMhz, 0)));
        range.maxMhz = above == mTable.begin() ? mTable.front() : *(above - 1);
    }
    if (minMhz) {
        auto atOrAbove = std::lower_bound(mTable.begin(), mTable.end(),
                                          static_cast<uint64_t>(std::max(*minMhz, 0)));
        range.minMhz = atOrAbove == mTable.end() ? mTable.back() : *atOrAbove;
    }
    range.minMhz = std::min(range.minMhz, range.maxMhz);
    return range;
}

uint64_t Governor::pick(double demandMhz, Range range) const {
    for (uint64_t mhz : mTable) {
        if (mhz < range.minMhz) continue;
        if (mhz >= range.maxMhz) break;
        if (demandMhz <= static_cast<double>(mhz) * mTargetBusy / 100.0) return mhz;
    }
    return range.maxMhz;
}

}  // namespace pwr::sim
