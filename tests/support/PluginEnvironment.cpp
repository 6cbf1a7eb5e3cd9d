// Every test program loads the plug-in as the power service does, by dlopen, before any test
// runs; the registry is filled by the library's own static initialiser. Suites that also call
// the plug-in's classes directly share that one loaded copy.

#include <gtest/gtest.h>

#include "host/PluginHost.h"

namespace {

class PluginEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(mHost.load(PWR_PLUGIN_PATH, &error)) << error;
    }

  private:
    pwr::host::PluginHost mHost;
};

const auto* const gPluginEnvironment = ::testing::AddGlobalTestEnvironment(new PluginEnvironment());

}  // namespace
