#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace pwr::sim {

// Thins a step series out as its points arrive, for drawing: the run's time is cut into equal
// slices, and of the points that fall in one slice only the first, the lowest, the highest and
// the last are kept, in time order. Drawn at a slice's width the series looks the same and no
// spike is lost, and the points kept never exceed four per slice, however long the run.
class SeriesSketch {
  public:
    using Point = std::pair<int64_t, double>;

    // About `slices` slices over `endMs` (at least 1 ms each).
    SeriesSketch(int64_t endMs, int slices);

    // Takes the next point (times never decrease); appends to `out` what a finished slice keeps.
    // A NaN value (the series stops) is kept as it is.
    void add(int64_t timeMs, double value, std::vector<Point>* out);
    // Appends what the current slice keeps.
    void flush(std::vector<Point>* out);

  private:
    int64_t mSliceMs;
    int64_t mSlice = -1;
    bool mOpen = false;
    Point mFirst{};
    Point mLowest{};
    Point mHighest{};
    Point mLast{};
};

}  // namespace pwr::sim
