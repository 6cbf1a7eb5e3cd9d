// Registration into a host whose registry already has an entry under the feature's name. This
// program links the host library (the registry) but not the plug-in, which it loads by path after
// filling the registry.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "feature/PowerOptFeature.h"
#include "host/PluginHost.h"

namespace {

PowerOptFeature* hostOwnFactory(PowerOptFeatureInfo) {
    return nullptr;
}
PowerOptFeature* otherFactory(PowerOptFeatureInfo) {
    return nullptr;
}

TEST(PluginRegistration, PrefilledRegistry_ExistingEntryKept) {
    ASSERT_EQ(PowerOptFeature::mFeatureMapInstanceList, nullptr);
    auto* registry = new std::map<std::string, PowerOptFeatureFactory>{
            {"PSMPowerOptFeature", &hostOwnFactory}, {"OtherFeature", &otherFactory}};
    PowerOptFeature::mFeatureMapInstanceList = registry;

    pwr::host::PluginHost host;
    std::string error;
    ASSERT_TRUE(host.load(PWR_PLUGIN_PATH, &error)) << error;

    EXPECT_EQ(PowerOptFeature::mFeatureMapInstanceList, registry);
    EXPECT_EQ(*registry,
              (std::map<std::string, PowerOptFeatureFactory>{
                      {"PSMPowerOptFeature", &hostOwnFactory}, {"OtherFeature", &otherFactory}}));
}

}  // namespace
