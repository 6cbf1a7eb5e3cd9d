// The feature built from arbitrary configurations, as the host builds it from whatever its XML
// held. It must never crash: an unparsable or out-of-range number throws std::invalid_argument or
// std::out_of_range out of the constructor, which is the specified behaviour; anything else is a
// failure. A feature that ends ready must have found every required setting.
//
// Input, one entry per line (the seed corpus is written this way):
//   KEY=VALUE          a setting in `configs`
//   @NAME=1,2,3;4,0x5  a profile in `profiles`: lists separated by ';', numbers by ','
//   +TEXT              an entry of `appList`
//   #...               ignored

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <android-base/strings.h>

#include "feature/PSMPowerOptFeature.h"
#include "fuzz/FuzzSupport.h"
#include "tests/support/FeaturePeer.h"

namespace {

std::vector<std::vector<int>> parseProfile(const std::string& text) {
    std::vector<std::vector<int>> profile;
    for (const std::string& list : android::base::Split(text, ";")) {
        std::vector<int> values;
        for (const std::string& piece : android::base::Split(list, ",")) {
            char* end = nullptr;
            const long value = strtol(piece.c_str(), &end, 0);
            if (end != piece.c_str()) values.push_back(static_cast<int>(value));
        }
        profile.push_back(std::move(values));
    }
    return profile;
}

PowerOptFeatureInfo decode(const uint8_t* data, size_t size) {
    PowerOptFeatureInfo info;
    info.featureName = "PSMPowerOptFeature";
    for (const std::string& line :
         android::base::Split(std::string(reinterpret_cast<const char*>(data), size), "\n")) {
        if (line.empty() || line[0] == '#') continue;
        if (line[0] == '+') {
            info.appList.push_back(line.substr(1));
            continue;
        }
        const bool profile = line[0] == '@';
        const std::string entry = profile ? line.substr(1) : line;
        const size_t eq = entry.find('=');
        const std::string key = entry.substr(0, eq);
        const std::string value = eq == std::string::npos ? "" : entry.substr(eq + 1);
        if (profile) {
            info.profiles[key] = parseProfile(value);
        } else {
            info.configs[key] = value;
        }
    }
    return info;
}

bool hasProfile(const PowerOptFeatureInfo& info, const char* name) {
    auto it = info.profiles.find(name);
    return it != info.profiles.end() && !it->second.empty();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    pwr::fuzz::quietLogs();
    pwr::fuzz::deviceRoot();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const PowerOptFeatureInfo info = decode(data, size);
    pwr::fuzz::Built built = pwr::fuzz::buildFeature(info);
    if (built.feature != nullptr) {
        auto& feature = static_cast<PSMPowerOptFeature&>(*built.feature);
        if (PSMPowerOptFeatureTestPeer(feature).ready()) {
            pwr::fuzz::check(info.configs.count("PSM_STATE") == 1, "ready without PSM_STATE");
            pwr::fuzz::check(info.configs.count("DEEP_MODE") == 1, "ready without DEEP_MODE");
            pwr::fuzz::check(info.configs.count("GPUMode") == 1, "ready without GPUMode");
            pwr::fuzz::check(hasProfile(info, "PROFILE_LIGHT_MODE"),
                             "ready without PROFILE_LIGHT_MODE");
        }
        featureData answer;
        built.feature->getData("PSM", answer, 0);
        built.feature.reset();
    }
    pwr::fuzz::clearStore();
    return 0;
}
