// ConvertToStringArray on arbitrary text: the tokens appended must be exactly the comma-separated
// pieces of the text up to its first NUL, empty pieces dropped, in order, after what the list
// already held. Runs with the feature's debug logging on, so the token lines are formatted too.

#include <cstdint>
#include <string>
#include <vector>

#include <android-base/strings.h>

#include "feature/PSMPowerOptFeature.h"
#include "fuzz/FuzzSupport.h"
#include "tests/support/FeaturePeer.h"

namespace {
PSMPowerOptFeature* gFeature = nullptr;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    pwr::fuzz::quietLogs();
    pwr::fuzz::deviceRoot();
    PowerOptFeatureInfo info;
    info.featureName = "PSMPowerOptFeature";
    info.configs = {{"PSM_STATE", "0"}, {"DEEP_MODE", "0"}, {"GPUMode", "0"}};
    info.profiles["PROFILE_LIGHT_MODE"] = {{0x40C00000, 1}};
    gFeature = new PSMPowerOptFeature(info);
    PSMPowerOptFeatureTestPeer(*gFeature).setDebugEnabled(true);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> list = {"before"};
    gFeature->ConvertToStringArray(text.c_str(), list);

    std::vector<std::string> expected = {"before"};
    for (std::string& token : android::base::Split(text.c_str(), ",")) {
        if (!token.empty()) expected.push_back(std::move(token));
    }
    pwr::fuzz::check(list == expected, "tokens are the non-empty comma-separated pieces");

    std::vector<std::string> none;
    gFeature->ConvertToStringArray(nullptr, none);
    pwr::fuzz::check(none.empty(), "a null text adds nothing");
    return 0;
}
