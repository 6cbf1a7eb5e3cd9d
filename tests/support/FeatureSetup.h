#pragma once

// The GPU monitor's configuration, events, and a factory call made the way the host makes it.
// Deep mode's configuration is in DeepModeConfig.h.

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

}  // namespace pwr::test
