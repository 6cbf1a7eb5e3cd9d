#include "host/sim/DeviceModel.h"

#include <errno.h>

#include <cstring>
#include <filesystem>
#include <set>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <nlohmann/json.hpp>

#include "host/sim/JsonNode.h"
#include "host/sim/PowerProfileXml.h"
#include "host/tools/FeatureConfigXml.h"
#include "host/tools/InputFile.h"

namespace pwr::sim {
namespace {

using android::base::StringPrintf;
using fakeperf::Resource;
using nlohmann::json;

constexpr double kMaxMa = 100000;
constexpr int64_t kMaxMhz = 100000;

// A power profile problem, reported with its file and line.
struct ProfileInvalid {
    std::string message;
};

// What a resource opcode may do: its name in the model file and its effect.
struct Action {
    const char* name;
    Resource::Kind kind;
    bool cpu;     // limits a CPU cluster ("cluster" says which) rather than the GPU
    bool levels;  // the value is a level counted down from the top frequency
};

constexpr Action kActions[] = {
        {"gpu_max_mhz", Resource::Kind::MaxFreq, false, false},
        {"gpu_min_mhz", Resource::Kind::MinFreq, false, false},
        {"gpu_max_level", Resource::Kind::MaxFreq, false, true},
        {"cpu_max_mhz", Resource::Kind::MaxFreq, true, false},
        {"cpu_min_mhz", Resource::Kind::MinFreq, true, false},
        {"cpu_max_level", Resource::Kind::MaxFreq, true, true},
        {"task_load_boost", Resource::Kind::TaskLoadBoost, false, false},
};

class Reader {
  public:
    Reader(DeviceModel* out, const std::string& folder) : mOut(out), mFolder(folder) {}

    void read(const json& root) {
        const JsonNode top = JsonNode(root, "").object("an object with the device model");
        top.onlyKeys({"name", "description", "power_profile", "base_ma", "gpu", "cpu_load",
                      "task_load_boost", "resources"});
        if (top.has("name")) mOut->name = top.child("name").text();
        if (top.has("description")) top.child("description").text();
        readPowerProfile(top.child("power_profile"));
        mOut->baseMa = top.child("base_ma").number(0, kMaxMa);
        readGpu(top.child("gpu").object("an object"));
        readCpuLoad(top.child("cpu_load"));
        if (top.has("task_load_boost")) {
            const JsonNode boost = top.child("task_load_boost").object("an object");
            boost.onlyKeys({"ma_per_point"});
            mOut->boostMaPerPoint = boost.child("ma_per_point").number(0, kMaxMa);
        }
        readResources(top.child("resources"));
    }

  private:
    void readPowerProfile(const JsonNode& node) {
        const std::string relative = node.text();
        if (relative.empty()) node.fail("must name the device's power_profile.xml");
        const std::filesystem::path path = relative[0] == '/'
                                                   ? std::filesystem::path(relative)
                                                   : std::filesystem::path(mFolder) / relative;
        mOut->powerProfileFile = path.lexically_normal().string();
        std::string error;
        if (!PowerProfileXml::parseFile(mOut->powerProfileFile, &mProfile, &error)) {
            throw ProfileInvalid{error};
        }
        mOut->batteryMah = scalar("battery.capacity", 1, 1e6);
        mOut->cpuActiveMa =
                mProfile.values.count("cpu.active") != 0 ? scalar("cpu.active", 0, kMaxMa) : 0;
        const std::vector<double>& cores = list("cpu.clusters.cores");
        for (size_t c = 0; c < cores.size(); ++c) {
            DeviceModel::CpuCluster cluster;
            if (cores[c] < 1 || cores[c] > 64 || cores[c] != static_cast<int>(cores[c])) {
                profileFail("cpu.clusters.cores",
                            StringPrintf("%g cores is not a count", cores[c]));
            }
            cluster.cores = static_cast<int>(cores[c]);
            const std::string speedsKey = "cpu.core_speeds.cluster" + std::to_string(c);
            const std::string powerKey = "cpu.core_power.cluster" + std::to_string(c);
            const std::vector<double>& speeds = list(speedsKey);
            const std::vector<double>& power = list(powerKey);
            if (power.size() != speeds.size()) {
                profileFail(powerKey, StringPrintf("%zu values for the %zu speeds of %s",
                                                   power.size(), speeds.size(), speedsKey.c_str()));
            }
            for (size_t i = 0; i < speeds.size(); ++i) {
                // The profile lists speeds in kHz, ascending.
                const uint64_t mhz = static_cast<uint64_t>(speeds[i] / 1000.0 + 0.5);
                if (mhz < 1 || (i > 0 && mhz <= cluster.speedsMhz.back())) {
                    profileFail(speedsKey, "speeds must be ascending kHz, each at least 1 MHz");
                }
                if (power[i] < 0) profileFail(powerKey, "a current cannot be negative");
                cluster.speedsMhz.push_back(mhz);
                cluster.coreMa.push_back(power[i]);
            }
            const std::string clusterKey = "cpu.cluster_power.cluster" + std::to_string(c);
            if (mProfile.values.count(clusterKey) != 0) {
                cluster.clusterMa = scalar(clusterKey, 0, kMaxMa);
            }
            mOut->clusters.push_back(cluster);
        }
    }

    [[noreturn]] void profileFail(const std::string& key, const std::string& what) {
        throw ProfileInvalid{mProfile.where(key) + ": \"" + key + "\": " + what};
    }

    const std::vector<double>& list(const std::string& key) {
        auto it = mProfile.values.find(key);
        if (it == mProfile.values.end() || it->second.empty()) {
            throw ProfileInvalid{mProfile.file + ": \"" + key +
                                 "\" is missing; the device model needs it"};
        }
        return it->second;
    }

    double scalar(const std::string& key, double min, double max) {
        const std::vector<double>& values = list(key);
        if (values.size() != 1 || values[0] < min || values[0] > max) {
            profileFail(key, StringPrintf("must be one number from %g to %g", min, max));
        }
        return values[0];
    }

    void readGpu(const JsonNode& gpu) {
        gpu.onlyKeys({"frequencies_mhz", "governor", "current_ma"});
        const JsonNode table = gpu.child("frequencies_mhz");
        const json& freqs = table.array();
        if (freqs.size() < 2) table.fail("must list at least two frequencies");
        std::set<uint64_t> seen;
        for (size_t i = 0; i < freqs.size(); ++i) {
            const JsonNode f = table.element(i);
            // The driver's nodes give Hz, which must fit the feature's 32-bit reader.
            if (!seen.insert(static_cast<uint64_t>(f.integer(1, 4294))).second) {
                f.fail("is listed twice");
            }
        }
        if (gpu.has("governor")) {
            const JsonNode governor = gpu.child("governor").object("an object");
            governor.onlyKeys({"target_busy", "period_ms"});
            if (governor.has("target_busy")) {
                mOut->targetBusy = governor.child("target_busy").number(1, 100);
            }
            if (governor.has("period_ms")) {
                mOut->governorPeriodMs = governor.child("period_ms").integer(1, 10000);
            }
        }
        const JsonNode current = gpu.child("current_ma").object("an object of MHz: currents");
        std::map<uint64_t, DeviceModel::GpuStep> steps;
        for (const auto& [key, value] : current.value().items()) {
            const JsonNode entry = JsonNode(value, current.join(key)).object("an object");
            entry.onlyKeys({"busy", "idle"});
            char* end = nullptr;
            errno = 0;
            const unsigned long long mhz = strtoull(key.c_str(), &end, 10);
            if (key.empty() || *end != '\0' || errno != 0 || seen.count(mhz) == 0) {
                entry.fail("is not a frequency of gpu.frequencies_mhz");
            }
            DeviceModel::GpuStep step;
            step.mhz = mhz;
            step.busyMa = entry.child("busy").number(0, kMaxMa);
            step.idleMa = entry.child("idle").number(0, kMaxMa);
            if (step.idleMa > step.busyMa) {
                entry.child("idle").fail("is more than the busy current at the same frequency");
            }
            steps[mhz] = step;
        }
        for (uint64_t mhz : seen) {
            auto it = steps.find(mhz);
            if (it == steps.end()) {
                current.fail(StringPrintf("no entry for %llu MHz of gpu.frequencies_mhz",
                                          static_cast<unsigned long long>(mhz)));
            }
            mOut->gpu.push_back(it->second);
        }
    }

    void readCpuLoad(const JsonNode& node) {
        const json& loads = node.array();
        if (loads.size() != mOut->clusters.size()) {
            node.fail(StringPrintf("lists %zu cluster(s); %s has %zu (cpu.clusters.cores)",
                                   loads.size(), mOut->powerProfileFile.c_str(),
                                   mOut->clusters.size()));
        }
        for (size_t c = 0; c < loads.size(); ++c) {
            const JsonNode load = node.element(c).object("an object");
            load.onlyKeys({"speed_mhz", "busy_cores"});
            DeviceModel::CpuCluster& cluster = mOut->clusters[c];
            cluster.loadMhz = load.child("speed_mhz").number(0, kMaxMhz);
            cluster.busyCores = load.child("busy_cores").number(0, cluster.cores);
        }
    }

    void readResources(const JsonNode& node) {
        const json& list = node.array();
        std::map<int, size_t> firstIndex;
        for (size_t i = 0; i < list.size(); ++i) {
            const JsonNode entry = node.element(i).object("an object with opcode and does");
            entry.onlyKeys({"opcode", "does", "cluster"});
            const JsonNode opcodeNode = entry.child("opcode");
            std::vector<int> values;
            std::string message;
            if (!tools::FeatureConfigXml::parseIntList(opcodeNode.text(), &values, &message) ||
                values.size() != 1) {
                opcodeNode.fail("must be one opcode, decimal or 0x hex of at most 32 bits" +
                                (message.empty() ? "" : ": " + message));
            }
            const int opcode = values[0];
            auto [first, added] = firstIndex.emplace(opcode, i);
            if (!added) {
                opcodeNode.fail(StringPrintf("0x%X is mapped twice (first at %s[%zu])",
                                             static_cast<unsigned>(opcode), node.path().c_str(),
                                             first->second));
            }
            const JsonNode does = entry.child("does");
            const std::string name = does.text();
            const Action* action = nullptr;
            std::string names;
            for (const Action& a : kActions) {
                if (name == a.name) action = &a;
                names += (names.empty() ? "" : ", ") + std::string(a.name);
            }
            if (action == nullptr)
                does.fail("\"" + name + "\" is not an effect; expected " + names);
            Resource resource;
            resource.kind = action->kind;
            if (action->cpu) {
                const JsonNode cluster = entry.child("cluster");
                const size_t c = static_cast<size_t>(
                        cluster.integer(0, static_cast<int64_t>(mOut->clusters.size()) - 1));
                resource.target = cpuClock(c);
                if (action->levels) {
                    for (uint64_t mhz : mOut->clusters[c].speedsMhz) {
                        resource.levelsMhz.push_back(static_cast<int>(mhz));
                    }
                }
            } else {
                if (entry.has("cluster")) entry.child("cluster").fail("only a CPU effect has one");
                if (action->kind != Resource::Kind::TaskLoadBoost) resource.target = kGpuClock;
                if (action->levels) {
                    for (const DeviceModel::GpuStep& step : mOut->gpu) {
                        resource.levelsMhz.push_back(static_cast<int>(step.mhz));
                    }
                }
            }
            mOut->resources[opcode] = resource;
        }
    }

    DeviceModel* mOut;
    std::string mFolder;
    PowerProfile mProfile;
};

}  // namespace

std::string cpuClock(size_t cluster) {
    return "cpu" + std::to_string(cluster);
}

std::vector<uint64_t> DeviceModel::gpuFrequenciesMhz() const {
    std::vector<uint64_t> out;
    for (const GpuStep& step : gpu) out.push_back(step.mhz);
    return out;
}

bool DeviceModel::parseText(std::string_view text, const std::string& name, DeviceModel* out,
                            std::string* error) {
    *out = DeviceModel{};
    out->file = name;
    json root;
    if (!parseJsonText(text, name, &root, error)) return false;
    try {
        Reader(out, std::filesystem::path(name).parent_path().string()).read(root);
    } catch (const JsonNode::Invalid& invalid) {
        *error = name + ": " + (invalid.path.empty() ? "" : invalid.path + ": ") + invalid.message;
        return false;
    } catch (const ProfileInvalid& invalid) {
        *error = invalid.message + " (power profile of " + name + ")";
        return false;
    } catch (const json::exception& e) {
        *error = name + ": " + e.what();
        return false;
    }
    return true;
}

bool DeviceModel::parseFile(const std::string& path, DeviceModel* out, std::string* error) {
    std::string content;
    if (!tools::readInputFile(path, &content, error)) return false;
    return parseText(content, path, out, error);
}

}  // namespace pwr::sim
