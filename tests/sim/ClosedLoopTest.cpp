// The closed-loop device against hand-computed cases: the governor's choice within held limits,
// saturation under a cap, the charge of a known current integrated to mAh, and the CPU's share
// under a cap and a task-load scale-down.

#include "host/sim/ClosedLoop.h"

#include <gtest/gtest.h>

namespace {

using pwr::sim::ClosedLoop;
using pwr::sim::DeviceModel;
using pwr::sim::Governor;

TEST(Governor, PicksTheLowestFrequencyThatServesWithinTheLimits) {
    const Governor governor({100, 200, 400}, 90);
    struct Row {
        std::optional<int> min, max;
        double demand;
        uint64_t expected;
    };
    const Row rows[] = {
            {{}, {}, 0, 100},     // idle: the lowest
            {{}, {}, 90, 100},    // exactly 90% of 100
            {{}, {}, 91, 200},    // past the target: up a step
            {{}, {}, 500, 400},   // more than the top serves: the top
            {{}, 300, 300, 200},  // cap between steps: the step under it
            {{}, 50, 10, 100},    // cap under the table: the lowest
            {150, {}, 10, 200},   // floor between steps: the step above it
            {500, {}, 10, 400},   // floor above the table: the highest
            {400, 200, 10, 200},  // crossing limits: the cap wins
    };
    for (const Row& r : rows) {
        EXPECT_EQ(governor.pick(r.demand, governor.allowed(r.min, r.max)), r.expected)
                << "demand " << r.demand << " min " << r.min.value_or(-1) << " max "
                << r.max.value_or(-1);
    }
}

DeviceModel model() {
    DeviceModel m;
    m.baseMa = 200;
    m.gpu = {{100, 50, 10}, {200, 150, 30}};
    m.targetBusy = 100;
    m.governorPeriodMs = 20;
    // Two cores at 1000 and 2000 MHz (100 and 300 mA each, 10 mA the cluster); one core busy at
    // 2000 MHz.
    m.clusters = {{2, {1000, 2000}, {100, 300}, 10, 2000, 1}};
    m.cpuActiveMa = 20;
    m.boostMaPerPoint = 0.5;
    return m;
}

// Half an hour of 150 MHz of work (75% of the 200 MHz point's time) under each set of limits.
TEST(ClosedLoop, ChargeAndSaturationOfHalfAnHour) {
    const DeviceModel m = model();
    pwr::sim::GpuPoint demand;
    demand.freqMhz = 200;
    demand.busy = 75;
    const std::vector<pwr::sim::GpuPoint> trace = {demand};
    struct Row {
        const char* what;
        fakeperf::Limits limits;
        uint64_t clock;
        double mah;  // (base + CPU + GPU) mA x 0.5 h
        int64_t saturatedMs;
        double unservedMc;
    };
    const Row rows[] = {
            // 200 + (20 + 10 + 300) + (30 + 120 x 0.75) = 650 mA
            {"free", {}, 200, 325, 0, 0},
            // GPU capped at 100 MHz, fully busy: 200 + 330 + 50 = 580 mA; 50 MHz unserved
            {"GPU cap", {{{"gpu", 100}}, {}, {}}, 100, 290, 1800000, 50.0 * 1800},
            // CPU capped to 1000 MHz: 200 + (30 + 100) + 120 = 450 mA
            {"CPU cap", {{{"cpu0", 1500}}, {}, {}}, 200, 225, 0, 0},
            // Two tasks scaled down by 20: 0.5 mA x 40 points less: 630 mA
            {"boosts", {{}, {}, {{11, -20}, {12, -20}}}, 200, 315, 0, 0},
    };
    for (const Row& r : rows) {
        ClosedLoop loop(m, trace);
        std::map<uint64_t, double> timeInState;
        // Unequal steps, as a scenario's ticks and events come.
        for (int64_t ms : {7, 500, 61001, 1800000}) loop.advance(ms, r.limits, &timeInState);
        EXPECT_EQ(loop.clockMhz(), r.clock) << r.what;
        EXPECT_NEAR(loop.totals().chargeMah, r.mah, 1e-6) << r.what;
        EXPECT_EQ(loop.totals().saturatedMs, r.saturatedMs) << r.what;
        EXPECT_NEAR(loop.totals().unservedMc, r.unservedMc, 1e-6) << r.what;
        EXPECT_NEAR(loop.totals().demandMc, 150.0 * 1800, 1e-6) << r.what;
        EXPECT_NEAR(timeInState[r.clock], 1800e6, 1e-3) << r.what;
    }
}

}  // namespace
