#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "host/fakeperf/FakePerf.h"
#include "host/sim/DeviceModel.h"
#include "host/sim/Governor.h"
#include "host/sim/PowerModel.h"
#include "host/sim/Scenario.h"

namespace pwr::sim {

// The GPU and battery of a device that reacts to the feature's locks. A scenario's GPU point
// describes demand: `busy` percent of work at its `freq_mhz`. Every governor period (and
// whenever the limits change) the governor picks the frequency for the demand within the limits
// in force; the time at each frequency, the busy time and the power model's current are
// integrated from step to step, and with them the figures a tuning run is judged by.
class ClosedLoop {
  public:
    // Cumulative since the start.
    struct Totals {
        double chargeMah = 0;
        int64_t saturatedMs = 0;  // time the demand was above what the allowed frequency serves
        double demandMc = 0;      // work asked for, in megacycles
        double unservedMc = 0;    // of which not done
    };

    ClosedLoop(const DeviceModel& model, const std::vector<GpuPoint>& demand);

    // Runs the device from the previous time to `nowMs` (later times only) under `limits`, which
    // held all along, and adds the time spent at each frequency to `timeInStateUs` (MHz ->
    // microseconds). Afterwards the accessors describe the device at `nowMs`.
    void advance(int64_t nowMs, const fakeperf::Limits& limits,
                 std::map<uint64_t, double>* timeInStateUs);

    uint64_t clockMhz() const { return mClockMhz; }
    double demandMhz() const { return mDemandMhz; }
    double currentMa() const { return mCurrentMa; }
    // Busy and total microseconds of the last advance's window.
    double windowBusyUs() const { return mWindowBusyUs; }
    double windowUs() const { return mWindowUs; }
    const Totals& totals() const { return mTotals; }

  private:
    // Work per second (MHz) asked for at `ms`; none before the first point.
    double demandAt(int64_t ms);

    const DeviceModel& mModel;
    const std::vector<GpuPoint>& mDemand;
    Governor mGovernor;
    PowerModel mPower;
    size_t mCursor = 0;  // into mDemand: times only grow
    int64_t mNowMs = 0;
    uint64_t mClockMhz = 0;
    double mDemandMhz = 0;
    double mCurrentMa = 0;
    double mWindowBusyUs = 0;
    double mWindowUs = 0;
    Totals mTotals;
};

}  // namespace pwr::sim
