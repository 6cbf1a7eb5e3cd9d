#pragma once

// The host power service's plug-in contract, declared to match the host's own headers. The host
// defines the registry and the base class's out-of-line members; a plug-in defines only the
// inline pieces below (the default getData, the registration template and the factory).

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

// One feature's configuration, filled by the host from its XML feature configuration.
struct PowerOptFeatureInfo {
    std::string featureName;
    std::string featureDetail;
    std::vector<std::vector<int>> profileList;
    std::unordered_map<std::string, std::vector<std::vector<int>>> profiles;
    std::unordered_map<std::string, std::string> configs;
    std::vector<std::string> appList;
    std::vector<std::string> textList;
    std::vector<int32_t> valueList;
};

// An event delivered by the host.
struct AsyncTriggerPayload {
    int32_t hintId = 0;
    uint32_t hintType = 0;
    std::string appName;
};

// The host's answer record for getData.
struct featureData {
    int32_t status = 0;
    int32_t values[7] = {};
};

class PowerOptFeature;
using PowerOptFeatureFactory = PowerOptFeature* (*)(PowerOptFeatureInfo);

class PowerOptFeature {
  public:
    explicit PowerOptFeature(PowerOptFeatureInfo featureInfo);
    virtual ~PowerOptFeature();

    // Delivers one event. The host's default ignores it.
    virtual void sendEvents(AsyncTriggerPayload payload);

    // Answers a query of the host; the default writes -1 into the first word of `out`.
    virtual int getData(std::string key, featureData& out, int /*flags*/) {
        (void)key;
        out.status = -1;
        return 0;
    }

    // Feature name to factory, owned by the host; may still be null when the first plug-in
    // registers.
    static std::map<std::string, PowerOptFeatureFactory>* mFeatureMapInstanceList;

    std::string name;
    PowerOptFeatureInfo info;
    int32_t hostState = 0;
    int32_t hostHandle = -1;
};

// Builds a feature of type T from a configuration. Never returns null; an exception from T's
// constructor reaches the caller after the memory is freed.
template <typename T>
PowerOptFeature* createInstance(PowerOptFeatureInfo info) {
    return new T(info);
}

// A static object of this type in a plug-in enters the plug-in's factory into the host's registry
// when the library is loaded. The first registration of a name wins.
template <typename T>
class FeatureInstance : public PowerOptFeature {
  public:
    explicit FeatureInstance(const std::string& featureName)
        : PowerOptFeature(PowerOptFeatureInfo{}) {
        if (mFeatureMapInstanceList == nullptr) {
            mFeatureMapInstanceList = new std::map<std::string, PowerOptFeatureFactory>();
        }
        mFeatureMapInstanceList->emplace(featureName, &createInstance<T>);
    }
};
