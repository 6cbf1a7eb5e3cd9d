#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include "feature/PSMPowerOptFeature.h"
#include "host/PluginHost.h"
#include "platform/Properties.h"

namespace pwr::test {

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
    AsyncTriggerPayload payload;
    payload.hintId = 0x15E0;
    payload.hintType = (1u << 7) | static_cast<uint32_t>(type);
    payload.appName = app;
    return payload;
}

}  // namespace pwr::test
