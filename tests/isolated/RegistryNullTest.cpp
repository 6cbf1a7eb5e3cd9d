// Registration into a host whose registry does not exist yet. This program links the host
// library (the registry) and the fake performance library but not the plug-in, which it loads by
// path as the power service does, after checking the registry's state.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "feature/PowerOptFeature.h"
#include "host/PluginHost.h"
#include "host/fakeperf/FakePerf.h"
#include "tests/support/TestConfig.h"

namespace {

TEST(PluginRegistration, NullRegistry_LoadCreatesItWithOneEntry) {
    ASSERT_EQ(PowerOptFeature::mFeatureMapInstanceList, nullptr);
    pwr::host::PluginHost host;
    std::string error;
    ASSERT_TRUE(host.load(PWR_PLUGIN_PATH, &error)) << error;

    const auto* registry = PowerOptFeature::mFeatureMapInstanceList;
    ASSERT_NE(registry, nullptr);
    ASSERT_EQ(registry->size(), 1u);
    EXPECT_EQ(registry->begin()->first, "PSMPowerOptFeature");
    ASSERT_NE(registry->begin()->second, nullptr);

    // The registered factory builds the feature; the host drives it through the base class.
    fakeperf::reset();
    std::unique_ptr<PowerOptFeature> feature =
            pwr::host::PluginHost::create("PSMPowerOptFeature", pwr::test::minimalConfig(), &error);
    ASSERT_NE(feature, nullptr) << error;
    EXPECT_EQ(feature->name, "PSMPowerOptFeature");
    feature->sendEvents(pwr::test::powerModeHint(1));  // light mode takes the light profile's lock
    EXPECT_EQ(fakeperf::heldLocks().size(), 1u);
    featureData out;
    EXPECT_EQ(feature->getData("key", out, 0), 0);
    EXPECT_EQ(out.status, -1);
    feature.reset();
}

}  // namespace
