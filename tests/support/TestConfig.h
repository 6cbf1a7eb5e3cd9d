#pragma once

#include "feature/PowerOptFeature.h"

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

}  // namespace pwr::test
