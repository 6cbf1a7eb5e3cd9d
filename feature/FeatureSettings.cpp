#include "feature/FeatureSettings.h"

#include <map>

namespace pwr::settings {

namespace {

bool missing(const Key& key) {
    if (key.missing != nullptr) logSiteLine(key.missing);
    return false;
}

}  // namespace

bool read(const Key& key, PowerOptFeatureInfo& info, FeatureSettings& out) {
    switch (key.conversion) {
        case Conversion::TruncatedNumber:
        case Conversion::Integer: {
            const auto it = info.configs.find(key.name);
            if (it == info.configs.end()) return missing(key);
            out.*key.number = parseNumber(key.conversion, it->second);
            return true;
        }
        case Conversion::Text: {
            const auto it = info.configs.find(key.name);
            if (it == info.configs.end()) return missing(key);
            out.*key.text = it->second;
            return true;
        }
        case Conversion::Profile:
            out.*key.profile = info.profiles[key.name];
            return !(out.*key.profile).empty() || missing(key);
        case Conversion::DynamicProfiles: {
            // The host's map is unordered; the monitor indexes the profiles in key order.
            const std::map<std::string, Profile> ordered(info.profiles.begin(),
                                                         info.profiles.end());
            std::vector<Profile>& profiles = out.*key.profiles;
            for (const auto& [name, profile] : ordered) {
                if (name.find(key.name) != std::string::npos) profiles.push_back(profile);
            }
            return !profiles.empty() || missing(key);
        }
    }
    return false;
}

bool readGroup(Group group, PowerOptFeatureInfo& info, FeatureSettings& out) {
    for (const Key& key : kKeys) {
        if (key.group == group && !read(key, info, out)) return false;
    }
    return true;
}

}  // namespace pwr::settings
