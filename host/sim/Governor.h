#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace pwr::sim {

// The GPU's frequency governor in the closed-loop device: it runs the GPU at the lowest table
// frequency that serves the demand, within the minimum and maximum that the held locks impose.
// Demand is work per second in megacycles (MHz of a fully busy GPU).
class Governor {
  public:
    // The table frequencies a pair of limits leaves: [min, max], both table frequencies.
    struct Range {
        uint64_t minMhz = 0;
        uint64_t maxMhz = 0;
    };

    // `tableMhz` ascending, not empty; `targetBusy` in percent: the load at which the governor
    // steps up rather than run the GPU busier.
    Governor(std::vector<uint64_t> tableMhz, double targetBusy)
        : mTable(std::move(tableMhz)), mTargetBusy(targetBusy) {}

    // The highest table frequency at or below `maxMhz` (the lowest when none is), and the lowest
    // at or above `minMhz` (the highest when none is); where they cross, the maximum wins.
    Range allowed(std::optional<int> minMhz, std::optional<int> maxMhz) const;

    // The lowest frequency of `range` at which `demandMhz` keeps the GPU at most `targetBusy`
    // busy; the range's top when none does.
    uint64_t pick(double demandMhz, Range range) const;

  private:
    std::vector<uint64_t> mTable;
    double mTargetBusy;
};

}  // namespace pwr::sim
