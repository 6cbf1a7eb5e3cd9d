#include "host/PluginHost.h"

#include <dlfcn.h>

namespace pwr::host {

bool PluginHost::load(const std::string& library, std::string* error) {
    if (mPlugin != nullptr) {
        if (error != nullptr) *error = "a plug-in is already loaded";
        return false;
    }
    mPlugin = openLibrary(library.c_str());
    if (mPlugin == nullptr) {
        if (error != nullptr) *error = dlerror();
        return false;
    }
    return true;
}

void* PluginHost::symbol(const char* name) const {
    return mPlugin != nullptr ? dlsym(mPlugin.get(), name) : nullptr;
}

PowerOptFeatureFactory PluginHost::findFactory(const std::string& featureName) {
    auto* registry = PowerOptFeature::mFeatureMapInstanceList;
    if (registry == nullptr) return nullptr;
    auto it = registry->find(featureName);
    return it == registry->end() ? nullptr : it->second;
}

std::unique_ptr<PowerOptFeature> PluginHost::create(const std::string& featureName,
                                                    const PowerOptFeatureInfo& info,
                                                    std::string* error) {
    PowerOptFeatureFactory factory = findFactory(featureName);
    if (factory == nullptr) {
        if (error != nullptr) *error = "no feature registered as " + featureName;
        return nullptr;
    }
    return std::unique_ptr<PowerOptFeature>(factory(info));
}

}  // namespace pwr::host
