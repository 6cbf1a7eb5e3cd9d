#pragma once

#include <string>
#include <vector>

#include "feature/PowerOptFeature.h"

namespace pwr::tools {

// One setting of a configuration that the feature cannot use as it stands.
struct KeyProblem {
    enum class Effect {
        NotReady,    // the feature's set-up stops here and the feature ignores every event
        Throws,      // the feature's constructor throws here (std::stod / std::stoi)
        Undefined,   // the feature reads past the end of a list: undefined behaviour, a crash
        Misbehaves,  // accepted, but the feature will not behave as intended
        Unusable,    // accepted, but a part of the feature cannot work with it at all
    };
    Effect effect = Effect::NotReady;
    std::string key;       // the configuration key or profile name
    bool profile = false;  // `key` names a profile rather than a config
    std::string message;   // one sentence naming the key
    // How the feature reads what was written on purpose, not a mistake: deep mode pairing the
    // scalar settings as property texts. Told, never counted as a problem.
    bool note = false;
    bool feature = false;  // about the <Feature> element itself
};

// The settings of PSMPowerOptFeature, read from the feature's own settings table
// (feature/FeatureSettings.h) in its order and with its conversions, so that a tool can say which
// key a failed construction tripped over: the
// constructor's std::invalid_argument carries no key, and a not-ready feature does not log every
// missing key (DEEP_MODE, for one, is missed silently).
class FeatureKeys {
  public:
    // Every problem in the order the feature meets them. Keys of the deep-mode and GPU-monitor
    // set-ups are checked only when "DEEP_MODE" / "GPUMode" are present and non-zero, as the
    // feature reads them only then.
    static std::vector<KeyProblem> check(const PowerOptFeatureInfo& info);

    // What the host and the parts cannot use, beyond reading the settings: another feature
    // name, a PSM mode outside the known ones, configs and profiles no part reads (a misspelt
    // key is named with the key meant; with deep mode on an unknown config is a property text),
    // odd-length lock lists.
    static std::vector<KeyProblem> checkUse(const PowerOptFeatureInfo& info);

    // Deep mode's property list as the feature builds it: every config value except "PSM", in
    // the map's own iteration order (a copy of the map iterates alike, so this is the order the
    // feature sees), split at commas without empty pieces. Names and values alternate; an odd
    // last piece is ignored by the feature.
    static std::vector<std::string> deepModeProperties(const PowerOptFeatureInfo& info);

    // Whether the configuration turns deep mode on (its switch present, converting, non-zero).
    static bool deepModeOn(const PowerOptFeatureInfo& info);

    // The first problem with the given effect, or null.
    static const KeyProblem* first(const std::vector<KeyProblem>& problems,
                                   KeyProblem::Effect effect);
};

}  // namespace pwr::tools
