#pragma once

// Configurations for the feature's optional parts and a factory call made the way the host
// makes it.

#include <memory>
#include <stdexcept>
#include <string>

#include "feature/PSMPowerOptFeature.h"
#include "host/PluginHost.h"
#include "tests/support/TestConfig.h"

namespace pwr::test {

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

// Deep mode's settings (battery thresholds, CPU names, deep profile, boost opcodes), which
// DEEP_MODE 1 requires. Deep mode opens the state store under the device root: give the test a
// DeviceTree.
inline void addDeepModeSettings(PowerOptFeatureInfo& info) {
    info.configs["DEEP_MODE"] = "1";
    info.configs["VIDEO_SCALING_UP"] = "800";
    info.configs["BROWSER_SCALING_UP"] = "700";
    info.configs["GAME_SCALING_UP"] = "900";
    info.configs["VIDEO_SCALING_DOWN"] = "300";
    info.configs["BROWSER_SCALING_DOWN"] = "200";
    info.configs["GAME_SCALING_DOWN"] = "400";
    info.configs["MAX_SAMPLE_NUM"] = "5";
    info.configs["SCALING_DOWN_TASK_LOAD_BOOST"] = "50";
    info.configs["CPUNODE"] = "cpu0";
    info.configs["CPUPOLICY"] = "policy0";
    info.profiles["DEFAULT"] = {{0x40800000, 0x3E8}};
    info.profiles["PSM_OPT_RESOURCE"] = {{0x42C10000}};
}

inline PowerOptFeatureInfo gpuMonitorConfig(const std::string& psmState,
                                            const std::string& gameTimerMs = "1000") {
    PowerOptFeatureInfo info = minimalConfig(psmState);
    addGpuMonitorSettings(info, gameTimerMs);
    return info;
}

inline PowerOptFeatureInfo deepModeConfig(const std::string& psmState) {
    PowerOptFeatureInfo info = minimalConfig(psmState);
    addDeepModeSettings(info);
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

}  // namespace pwr::test
