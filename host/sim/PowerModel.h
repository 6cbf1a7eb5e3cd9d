#pragma once

#include <cstdint>

#include "host/fakeperf/FakePerf.h"
#include "host/sim/DeviceModel.h"

namespace pwr::sim {

// The battery current of the closed-loop device: the base current, the CPU clusters running
// their workload under the held limits less what task-load scale-downs save, and the GPU at its
// frequency and load.
class PowerModel {
  public:
    explicit PowerModel(const DeviceModel& model) : mModel(model) {}

    // mA of the GPU at table frequency `mhz`, busy `busyFraction` (0 to 1) of the time: its idle
    // current plus that share of the difference to its busy current.
    double gpuMa(uint64_t mhz, double busyFraction) const;

    // mA of the CPU: cpu.active, and for each cluster its own current plus the busy cores at the
    // workload's speed held within the limits (the highest table speed at or below the lower of
    // the two; at least the held minimum); less ma_per_point for each point of scale-down of
    // each boosted task, down to cpu.active at the least.
    double cpuMa(const fakeperf::Limits& limits) const;

    // mA of the whole device.
    double totalMa(uint64_t gpuMhz, double busyFraction, double cpuMa) const {
        return mModel.baseMa + cpuMa + gpuMa(gpuMhz, busyFraction);
    }

  private:
    const DeviceModel& mModel;
};

}  // namespace pwr::sim
