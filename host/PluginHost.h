#pragma once

#include <memory>
#include <string>

#include "feature/PowerOptFeature.h"
#include "platform/LibraryHandle.h"

namespace pwr::host {

// Loads feature plug-ins and builds features the way the power service does: dlopen the library,
// find the factory by feature name in the registry, call it with the parsed configuration, and
// delete the feature through its virtual destructor.
class PluginHost {
  public:
    PluginHost() = default;
    // Unloads the plug-in: every feature built from it must be gone by then.
    ~PluginHost() = default;
    PluginHost(const PluginHost&) = delete;
    PluginHost& operator=(const PluginHost&) = delete;

    // Loads a plug-in library by file name or path. False (with `error` set) when it cannot be.
    bool load(const std::string& library, std::string* error);

    // An exported symbol of the loaded plug-in (dlsym on its handle), or null.
    void* symbol(const char* name) const;

    // The factory registered under `featureName`, or null.
    static PowerOptFeatureFactory findFactory(const std::string& featureName);

    // Builds the feature registered under `featureName`; null (with `error` set) when no factory
    // is registered. Exceptions from the feature's constructor propagate, as they do to the host.
    static std::unique_ptr<PowerOptFeature> create(const std::string& featureName,
                                                   const PowerOptFeatureInfo& info,
                                                   std::string* error);

  private:
    LibraryHandle mPlugin;
};

}  // namespace pwr::host
