#pragma once

#include <memory>
#include <ostream>
#include <string>

#include "feature/PowerOptFeature.h"
#include "host/PluginHost.h"
#include "host/tools/FeatureConfigXml.h"
#include "host/tools/FeatureKeys.h"

namespace pwr::tools {

// Builds a feature from its XML configuration the way the power service does (load the plug-in,
// find the factory by name in the registry, call it), and reports each way that can fail on
// `err` as one line "<tool>: error: ..." naming the file, line and key where there is one.
class FeatureLauncher {
  public:
    FeatureLauncher(std::string tool, const FeatureConfig& config, std::ostream& err)
        : mTool(std::move(tool)), mConfig(config), mErr(err) {}

    // Loads `pluginPath` into `plugin` and checks that it registers the configuration's feature.
    bool load(host::PluginHost& plugin, const std::string& pluginPath);

    // Calls the registered factory. Null, after the error is reported, when nothing was built;
    // a constructor that throws (an unparsable number) is reported with the key it tripped over.
    std::unique_ptr<PowerOptFeature> build();

    // A host learns whether the feature is ready only from its log: the constructor's last line,
    // which ends with this text, is written just before it turns ready.
    std::string readyLogSuffix() const;

    // Reports a feature that ended not ready, with notes naming the keys it misses; returns 1.
    int reportNotReady();

    // Warns about settings the feature accepted but will not use as meant.
    void warnAboutKeys();

    // "<tool>: error: <message>"; returns 1.
    int fail(const std::string& message);
    void warn(const std::string& message);
    void note(const std::string& message);

    // "<file>:<line>" of the setting a problem is about.
    std::string where(const KeyProblem& problem) const;

  private:
    static std::string registeredNames();
    static std::string demangled(const char* mangled);

    const std::string mTool;
    const FeatureConfig& mConfig;
    std::ostream& mErr;
};

}  // namespace pwr::tools
