#include "host/sim/PowerModel.h"

#include <algorithm>
#include <cstdlib>

namespace pwr::sim {

double PowerModel::gpuMa(uint64_t mhz, double busyFraction) const {
    for (const DeviceModel::GpuStep& step : mModel.gpu) {
        if (step.mhz == mhz) return step.idleMa + (step.busyMa - step.idleMa) * busyFraction;
    }
    return 0;  // not a table frequency: the governor never picks one
}

double PowerModel::cpuMa(const fakeperf::Limits& limits) const {
    double clusters = 0;
    for (size_t c = 0; c < mModel.clusters.size(); ++c) {
        const DeviceModel::CpuCluster& cluster = mModel.clusters[c];
        double speed = cluster.loadMhz;
        auto max = limits.maxMhz.find(cpuClock(c));
        if (max != limits.maxMhz.end()) speed = std::min(speed, static_cast<double>(max->second));
        auto min = limits.minMhz.find(cpuClock(c));
        if (min != limits.minMhz.end()) speed = std::max(speed, static_cast<double>(min->second));
        size_t level = 0;
        while (level + 1 < cluster.speedsMhz.size() &&
               static_cast<double>(cluster.speedsMhz[level + 1]) <= speed) {
            ++level;
        }
        // A held minimum between two speeds runs the cluster at the speed above it.
        if (min != limits.minMhz.end() &&
            static_cast<double>(cluster.speedsMhz[level]) < static_cast<double>(min->second) &&
            level + 1 < cluster.speedsMhz.size()) {
            ++level;
        }
        clusters += cluster.clusterMa + cluster.busyCores * cluster.coreMa[level];
    }
    double saved = 0;
    for (const auto& [pid, value] : limits.boosts)
        saved += std::abs(value) * mModel.boostMaPerPoint;
    return mModel.cpuActiveMa + std::max(0.0, clusters - saved);
}

}  // namespace pwr::sim
