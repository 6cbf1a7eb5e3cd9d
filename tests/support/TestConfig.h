#pragma once

// Configurations of the feature, events, and features built through the host's registry, as the
// power service builds them. Free of GoogleTest, for the fuzz targets and benchmarks too.

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "feature/PSMPowerOptFeature.h"
#include "host/PluginHost.h"
#include "platform/Properties.h"

namespace pwr::test {

// The smallest configuration with which the feature ends ready: PSM_STATE as given, a light
// profile, deep mode and the GPU monitor off.
inline PowerOptFeatureInfo minimalConfig(const std::string& psmState = "0") {
    PowerOptFeatureInfo info;
    info.featureName = "PSMPowerOptFeature";
    info.configs["PSM_STATE"] = psmState;
    info.configs["DEEP_MODE"] = "0";
    info.configs["GPUMode"] = "0";
    info.profiles["PROFILE_LIGHT_MODE"] = {{0x40C00000, 0x1, 0x40804000, 0x5DC}};
    return info;
}

// The state store's directory, part of the device's image: a fake tree must provide it.
inline constexpr char kStoreDirectory[] = "/data/vendor/pwr";

// The task-load boost opcode of the deep-mode configuration below.
inline constexpr int kTaskBoostOpcode = 0x40C68000;

// A configuration with deep mode on and every battery-monitor setting present: thresholds in mA
// (game 700/100, browser 800/200, video 900/300), MAX_SAMPLE_NUM 5, a task-load scaling of -20.
//
// The deep-mode set-up takes every setting's value as property text too, so every token of every
// value is distinct ("-0" for GPUMode): a name that occurred twice in the property list would be
// set twice, and its second save would record deep mode's own value.
inline PowerOptFeatureInfo deepModeConfig(const std::string& psmState = "0") {
    PowerOptFeatureInfo info = minimalConfig(psmState);
    info.configs["DEEP_MODE"] = "1";
    info.configs["GPUMode"] = "-0";
    info.configs["VIDEO_SCALING_UP"] = "900";
    info.configs["BROWSER_SCALING_UP"] = "800";
    info.configs["GAME_SCALING_UP"] = "700";
    info.configs["VIDEO_SCALING_DOWN"] = "300";
    info.configs["BROWSER_SCALING_DOWN"] = "200";
    info.configs["GAME_SCALING_DOWN"] = "100";
    info.configs["MAX_SAMPLE_NUM"] = "5";
    info.configs["SCALING_DOWN_TASK_LOAD_BOOST"] = "-20";
    info.configs["CPUNODE"] = "cpu0";
    info.configs["CPUPOLICY"] = "policy0";
    info.configs["DEEP_PROPS"] = "vendor.pwr.wifi_scan,7,vendor.pwr.sync,8,vendor.pwr.anim,9";
    info.configs["PSM"] = "vendor.pwr.psm_only,6";  // not a property: the set-up skips it
    info.profiles["DEFAULT"] = {{0x40C10000, 0x3, 0x40800000, 0x4B0}};
    info.profiles["PSM_OPT_RESOURCE"] = {{kTaskBoostOpcode}};
    info.appList = {"com.example.ignored"};
    return info;
}

// The GPU stability monitor's settings and three dynamic profiles, which GPUMode 1 requires.
inline void addGpuMonitorSettings(PowerOptFeatureInfo& info,
                                  const std::string& gameTimerMs = "1000") {
    info.configs["GPUMode"] = "1";
    info.configs["GAME_TIMER"] = gameTimerMs;
    info.configs["GPU_SAMPLE_COUNT"] = "5";
    info.configs["STABILITY_SAMPLE_COUNT"] = "3";
    info.configs["GPU_BUSY_STABILITY_THRESHOLD"] = "10";
    info.configs["GPU_Freq_THRESHOLD_LOW"] = "300";
    info.configs["GPU_Freq_THRESHOLD_HIGH"] = "600";
    info.profiles["DYN_GPU_0_HIGH"] = {{0x42804000, 0x3}};
    info.profiles["DYN_GPU_1_MID"] = {{0x42804000, 0x2}};
    info.profiles["DYN_GPU_2_LOW"] = {{0x42804000, 0x1}};
}

inline PowerOptFeatureInfo gpuMonitorConfig(const std::string& psmState,
                                            const std::string& gameTimerMs = "1000") {
    PowerOptFeatureInfo info = minimalConfig(psmState);
    addGpuMonitorSettings(info, gameTimerMs);
    return info;
}

inline AsyncTriggerPayload event(int32_t hintId, const std::string& appName,
                                 uint32_t hintType = 0) {
    AsyncTriggerPayload payload;
    payload.hintId = hintId;
    payload.hintType = hintType;
    payload.appName = appName;
    return payload;
}

// Builds the feature through the factory the plug-in registered, as the host does.
inline std::unique_ptr<PSMPowerOptFeature> createFeature(const PowerOptFeatureInfo& info) {
    PowerOptFeatureFactory factory =
            pwr::host::PluginHost::findFactory(PSMPowerOptFeature::kFeatureName);
    if (factory == nullptr) throw std::logic_error("PSMPowerOptFeature is not registered");
    return std::unique_ptr<PSMPowerOptFeature>(static_cast<PSMPowerOptFeature*>(factory(info)));
}

// A feature built through the host's registry, as the power service builds it.
class FeatureHandle {
  public:
    explicit FeatureHandle(const PowerOptFeatureInfo& info) {
        std::string error;
        mFeature = host::PluginHost::create(PSMPowerOptFeature::kFeatureName, info, &error);
        if (mFeature == nullptr) throw std::runtime_error("no feature: " + error);
    }
    PSMPowerOptFeature& operator*() const { return static_cast<PSMPowerOptFeature&>(*mFeature); }
    PSMPowerOptFeature* operator->() const { return &**this; }
    // Deletes the feature as the host does (timers first, then the store).
    void reset() { mFeature.reset(); }

  private:
    std::unique_ptr<PowerOptFeature> mFeature;
};

// The value of a system property, or `unset` when it has none or an empty one.
inline std::string propertyValue(const std::string& name, const char* unset = "<unset>") {
    char value[PROP_VALUE_MAX] = {};
    property_get(name.c_str(), value, unset);
    return value;
}

inline void setProperty(const std::string& name, const std::string& value) {
    if (property_set(name.c_str(), value.c_str()) != 0) {
        throw std::runtime_error("cannot set property " + name);
    }
}

// The usable power mode hint selecting PSM type `type` (action 1).
inline AsyncTriggerPayload powerModeHint(int type, const std::string& app = "") {
    return event(0x15E0, app, (1u << 7) | static_cast<uint32_t>(type));
}

}  // namespace pwr::test
