#include "host/sim/Sweep.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using pwr::sim::SweepAxis;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

TEST(SweepAxis, RangesAndLists) {
    struct Row {
        const char* text;
        std::vector<std::string> values;  // empty: refused
        const char* error;
    };
    const Row rows[] = {
            {"GPU_Freq_THRESHOLD_LOW=200:400:50", {"200", "250", "300", "350", "400"}, ""},
            {"K=200:390:50", {"200", "250", "300", "350"}, ""},  // TO need not be on a step
            {"K=0.1:0.3:0.1", {"0.1", "0.2", "0.3"}, ""},        // no drift past 0.3
            {"GAME_TIMER=250, 500,1000", {"250", "500", "1000"}, ""},
            {"K=400:200:50", {}, "FROM at most TO"},
            {"K=1:2:0", {}, "STEP above 0"},
            {"K=1:2", {}, "is not FROM:TO:STEP or V1,V2"},
            {"K=250,fast", {}, "\"fast\" is not a number"},
            {"=5", {}, "is not KEY="},
    };
    for (const Row& r : rows) {
        SweepAxis axis;
        std::string error;
        EXPECT_EQ(SweepAxis::parse(r.text, &axis, &error), !r.values.empty()) << r.text;
        if (r.values.empty()) {
            EXPECT_THAT(error, HasSubstr(r.error)) << r.text;
        } else {
            EXPECT_THAT(axis.values, ElementsAreArray(r.values)) << r.text;
        }
    }
}

TEST(Sweep, ParetoFrontKeepsWhatNothingBeatsOnBoth) {
    // (saturation, charge): lower is better on both.
    const std::vector<std::pair<double, double>> points = {
            {20, 252}, {50, 230}, {53, 229}, {52, 231}, {20, 252}, {60, 229}, {10, 260}};
    EXPECT_THAT(pwr::sim::paretoFront(points),
                ElementsAreArray({true, true, true, false, true, false, true}));
}

}  // namespace
