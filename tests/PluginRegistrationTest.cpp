#include <gtest/gtest.h>

#include "feature/LogSites.h"
#include "feature/PSMPowerOptFeature.h"
#include "host/PluginHost.h"
#include "host/fakeperf/FakePerf.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestConfig.h"

namespace {

TEST(PluginRegistration, RegistersFactoryAtLoad) {
    ASSERT_NE(PowerOptFeature::mFeatureMapInstanceList, nullptr);
    EXPECT_NE(pwr::host::PluginHost::findFactory("PSMPowerOptFeature"), nullptr);
}

TEST(PluginRegistration, MinimalConfigIsReady) {
    fakeperf::reset();
    pwr::test::LogCapture log;
    std::string error;
    auto feature =
            pwr::host::PluginHost::create("PSMPowerOptFeature", pwr::test::minimalConfig(), &error);
    ASSERT_NE(feature, nullptr) << error;
    auto& psm = static_cast<PSMPowerOptFeature&>(*feature);
    EXPECT_TRUE(PSMPowerOptFeatureTestPeer(psm).ready());
    EXPECT_TRUE(log.contains(pwr::linePrefix(pwr::site::kConstructor) +
                             "Constructor PSMPowerOptFeature"))
            << ::testing::PrintToString(log.messages());
}

}  // namespace
