#include "host/sim/SeriesSketch.h"

#include <algorithm>
#include <cmath>

namespace pwr::sim {

SeriesSketch::SeriesSketch(int64_t endMs, int slices)
    : mSliceMs(std::max<int64_t>(1, endMs / std::max(1, slices))) {}

void SeriesSketch::add(int64_t timeMs, double value, std::vector<Point>* out) {
    const int64_t slice = timeMs / mSliceMs;
    if (std::isnan(value)) {
        flush(out);
        out->emplace_back(timeMs, value);
        return;
    }
    if (mOpen && slice != mSlice) flush(out);
    const Point point{timeMs, value};
    if (!mOpen) {
        mOpen = true;
        mSlice = slice;
        mFirst = mLowest = mHighest = point;
    }
    if (value < mLowest.second) mLowest = point;
    if (value > mHighest.second) mHighest = point;
    mLast = point;
}

void SeriesSketch::flush(std::vector<Point>* out) {
    if (!mOpen) return;
    mOpen = false;
    Point kept[] = {mFirst, mLowest, mHighest, mLast};
    std::sort(std::begin(kept), std::end(kept),
              [](const Point& a, const Point& b) { return a.first < b.first; });
    for (const Point& p : kept) {
        if (!out->empty() && out->back().first == p.first) continue;
        out->push_back(p);
    }
}

}  // namespace pwr::sim
