// Loads a build of the plug-in as the power service does and builds its feature once, from an
// empty configuration. It proves what a link that allows undefined symbols cannot: every symbol
// the plug-in needs is bound at load time, and its static initialiser registers the feature.
//
//   plugin_load_check LIBRARY
//
// Built by scripts/check-mini-soong.sh against the translated build's own host library.

#include <cstdio>
#include <memory>
#include <string>

#include "host/PluginHost.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s LIBRARY\n", argv[0]);
        return 2;
    }
    const char* library = argv[1];
    const char* featureName = "PSMPowerOptFeature";
    pwr::host::PluginHost host;
    std::string error;
    if (!host.load(library, &error)) {
        std::fprintf(stderr, "%s does not load: %s\n", library, error.c_str());
        return 1;
    }
    // Without settings the feature is built in its not-ready state; the factory never refuses.
    std::unique_ptr<PowerOptFeature> feature =
            pwr::host::PluginHost::create(featureName, PowerOptFeatureInfo{}, &error);
    if (feature == nullptr) {
        std::fprintf(stderr, "%s loads but %s\n", library, error.c_str());
        return 1;
    }
    feature.reset();
    std::printf("%s loads, registers %s, and builds and deletes the feature\n", library,
                featureName);
    return 0;
}
