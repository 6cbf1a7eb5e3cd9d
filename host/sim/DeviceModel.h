#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "host/fakeperf/FakePerf.h"

namespace pwr::sim {

// The clocks the resource table limits, as the fake performance library names them.
inline constexpr char kGpuClock[] = "gpu";
std::string cpuClock(size_t cluster);  // "cpu0", "cpu1", ...

// A device for the closed-loop simulation (docs/device-model.md): the GPU's frequency table and
// governor, what each perf-lock resource opcode does, and a power model. Battery capacity and
// the CPU clusters' speeds and currents come from the device's own power_profile.xml; the rest
// from the model's JSON file.
struct DeviceModel {
    // The GPU at one table frequency: battery current it adds while busy and while idle.
    struct GpuStep {
        uint64_t mhz = 0;
        double busyMa = 0;
        double idleMa = 0;
    };
    // One CPU cluster from the power profile, with the workload the model assumes for it.
    struct CpuCluster {
        int cores = 0;
        std::vector<uint64_t> speedsMhz;  // ascending
        std::vector<double> coreMa;       // per busy core at each speed
        double clusterMa = 0;             // while the cluster is on
        double loadMhz = 0;               // the speed the workload asks for
        double busyCores = 0;             // cores kept busy at it
    };

    std::string file;
    std::string name;
    std::string powerProfileFile;
    double batteryMah = 0;
    double baseMa = 0;              // everything but the GPU and the CPU clusters
    std::vector<GpuStep> gpu;       // ascending frequencies
    double targetBusy = 100;        // percent the governor lets the GPU be busy before stepping up
    int64_t governorPeriodMs = 20;  // how often it looks at the demand
    double cpuActiveMa = 0;         // the power profile's cpu.active
    std::vector<CpuCluster> clusters;
    double boostMaPerPoint = 0;  // saved per point of task-load scale-down per task
    std::map<int, fakeperf::Resource> resources;  // by opcode

    std::vector<uint64_t> gpuFrequenciesMhz() const;

    // False with `error` set to one line naming the file and the key (and line, for the power
    // profile) of the first missing, malformed or contradictory item; nothing throws. The power
    // profile is found relative to the model's folder.
    static bool parseFile(const std::string& path, DeviceModel* out, std::string* error);
    static bool parseText(std::string_view text, const std::string& name, DeviceModel* out,
                          std::string* error);
};

}  // namespace pwr::sim
