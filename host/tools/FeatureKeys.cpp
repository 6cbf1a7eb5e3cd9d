#include "host/tools/FeatureKeys.h"

#include <cctype>
#include <map>
#include <set>
#include <stdexcept>

#include "feature/FeatureSettings.h"

namespace pwr::tools {
namespace {

using Effect = KeyProblem::Effect;
using settings::Conversion;
using settings::Group;
using settings::Key;
using settings::keyOf;
using S = FeatureSettings;

// Appends the comma-separated pieces of `text` to `out`, leaving out empty ones, as the
// feature's strtok_r split does.
void splitInto(const std::string& text, std::vector<std::string>* out) {
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(',', start);
        if (end == std::string::npos) end = text.size();
        if (end > start) out->push_back(text.substr(start, end - start));
        start = end + 1;
    }
}

// Walks the feature's settings table in the feature's order, converting each key as the feature
// does, and then looks at the values the feature accepts but cannot work with.
class Checker {
  public:
    explicit Checker(const PowerOptFeatureInfo& info) : mInfo(info) {}

    std::vector<KeyProblem> run() {
        for (const Key& key : settings::kKeys) {
            if (key.group != Group::Core) continue;
            const bool read = check(key);
            // A switch turns its group on right where it stands, as in the feature.
            if (key.enables != Group::Core && read && mValues.*key.number != 0) {
                checkGroup(key.enables);
            }
        }
        return std::move(mProblems);
    }

  private:
    // True when the key is present and converts; numbers land in mValues.
    bool check(const Key& key) {
        switch (key.conversion) {
            case Conversion::TruncatedNumber:
            case Conversion::Integer:
                return number(key);
            case Conversion::Text:
                return present(key.name);
            case Conversion::Profile:
                profile(key);
                return true;
            case Conversion::DynamicProfiles:
                dynamicProfiles(key.name);
                return true;
        }
        return false;
    }

    void checkGroup(Group group) {
        for (const Key& key : settings::kKeys) {
            if (key.group == group) check(key);
        }
        if (group == Group::DeepMode) {
            batterySettings();
            deepModeProperties();
        } else {
            gpuSettings();
        }
    }

    void add(Effect effect, const std::string& key, bool isProfile, const std::string& message) {
        mProblems.push_back(KeyProblem{effect, key, isProfile, message});
    }

    const std::string* find(const char* key) {
        auto it = mInfo.configs.find(key);
        return it == mInfo.configs.end() ? nullptr : &it->second;
    }

    bool present(const char* key) {
        if (find(key) != nullptr) return true;
        add(Effect::NotReady, key, false, std::string("config \"") + key + "\" is missing");
        return false;
    }

    // Converts as the feature does. True with the value in mValues when it does not throw.
    bool number(const Key& key) {
        const std::string* value = find(key.name);
        if (value == nullptr) return present(key.name);
        const char* function =
                key.conversion == Conversion::TruncatedNumber ? "std::stod" : "std::stoi";
        const std::string quoted = "config \"" + std::string(key.name) + "\" = \"" + *value + "\"";
        size_t used = 0;
        int result = 0;
        try {
            result = settings::parseNumber(key.conversion, *value, &used);
        } catch (const settings::NotAnInt&) {
            add(Effect::Throws, key.name, false,
                quoted + " does not fit an int (the feature throws std::out_of_range)");
            return false;
        } catch (const std::invalid_argument&) {
            add(Effect::Throws, key.name, false,
                quoted + " is not a number (" + function + " throws std::invalid_argument)");
            return false;
        } catch (const std::out_of_range&) {
            add(Effect::Throws, key.name, false,
                quoted + " is out of range (" + function + " throws std::out_of_range)");
            return false;
        }
        size_t end = value->size();
        while (end > used && isspace(static_cast<unsigned char>((*value)[end - 1]))) --end;
        if (used < end) {
            add(Effect::Misbehaves, key.name, false,
                quoted + " is read as " + std::to_string(result) + "; the rest is ignored");
        }
        mValues.*key.number = result;
        mParsed.insert(&key);
        return true;
    }

    // The value of a numeric key that was present and converted.
    bool parsed(int S::*member, int* out) const {
        const Key& key = keyOf(member);
        if (mParsed.count(&key) == 0) return false;
        *out = mValues.*member;
        return true;
    }

    // A profile the feature needs: present and not empty.
    void profile(const Key& key) {
        const std::string name = key.name;
        auto it = mInfo.profiles.find(name);
        if (it == mInfo.profiles.end() || it->second.empty()) {
            add(Effect::NotReady, name, true,
                "profile \"" + name + "\" is missing or has no <PerfLock>");
        } else if (it->second[0].empty() && key.profile == &S::taskBoostOpcodes) {
            add(Effect::Misbehaves, name, true,
                "profile \"" + name +
                        "\" has an empty first <PerfLock>; the task-load boost finds no opcode "
                        "there and boosts nothing");
        } else if (it->second[0].empty()) {
            add(Effect::Misbehaves, name, true,
                "profile \"" + name +
                        "\" has an empty first <PerfLock>; no lock can be taken with it");
        }
    }

    void dynamicProfiles(const char* mark) {
        // In name order, as the monitor indexes them.
        const std::map<std::string, Profile> ordered(mInfo.profiles.begin(), mInfo.profiles.end());
        size_t count = 0;
        for (const auto& [name, lists] : ordered) {
            if (name.find(mark) == std::string::npos) continue;
            if (count < settings::kDynamicProfilesUsed && (lists.empty() || lists[0].empty())) {
                add(Effect::Misbehaves, name, true,
                    "dynamic GPU profile \"" + name + "\" (level " + std::to_string(count) +
                            ") has no lock list; choosing it leaves no profile held");
            }
            ++count;
        }
        const std::string quotedMark = std::string("\"") + mark + "\"";
        if (count == 0) {
            add(Effect::NotReady, mark, true,
                "no profile whose name contains " + quotedMark + "; the GPU monitor needs three");
        } else if (count < settings::kDynamicProfilesUsed) {
            add(Effect::Undefined, mark, true,
                "only " + std::to_string(count) + " profile(s) whose name contains " + quotedMark +
                        "; the GPU monitor picks among three and would read past the list");
        }
    }

    // Values the GPU monitor accepts but cannot work with.
    void gpuSettings() {
        int v = 0;
        if (parsed(&S::mGameTimerMs, &v) && v <= 0) {
            misbehaves(&S::mGameTimerMs,
                       std::to_string(v) +
                               " ms: the game timer never ticks, so no GPU profile is ever chosen");
        }
        if (parsed(&S::mGpuSampleCount, &v) && v <= 0) {
            misbehaves(&S::mGpuSampleCount,
                       std::to_string(v) + ": no sample is kept, so no GPU profile is ever chosen");
        }
        int low = 0;
        int high = 0;
        if (parsed(&S::mGpuFreqThresholdLow, &low) && parsed(&S::mGpuFreqThresholdHigh, &high) &&
            low > high) {
            misbehaves(&S::mGpuFreqThresholdLow,
                       std::to_string(low) + " MHz is above " +
                               keyOf(&S::mGpuFreqThresholdHigh).name + " = " +
                               std::to_string(high) + " MHz: the balanced profile is never chosen");
        }
    }

    // Values the battery monitor accepts but cannot work with.
    void batterySettings() {
        int v = 0;
        if (parsed(&S::mMaxSampleNum, &v) && v <= 0) {
            misbehaves(&S::mMaxSampleNum,
                       std::to_string(v) + ": the battery monitor never evaluates its samples");
        }
        if (parsed(&S::taskLoadBoostScale, &v) && v >= 0) {
            misbehaves(&S::taskLoadBoostScale,
                       std::to_string(v) +
                               ": only a negative value scales a task down; this one boosts "
                               "nothing");
        }
        for (int S::*threshold :
             {&S::mGameScalingUp, &S::mGameScalingDown, &S::mBrowserScalingUp,
              &S::mBrowserScalingDown, &S::mVideoScalingUp, &S::mVideoScalingDown}) {
            if (parsed(threshold, &v) && v == 0) {
                misbehaves(threshold,
                           "0: the battery monitor takes 0 as not configured and never acts for "
                           "that application type");
            }
        }
    }

    // "config "<key>" = <what>", a value accepted but not working as meant.
    void misbehaves(int S::*member, const std::string& what) {
        const char* name = keyOf(member).name;
        add(Effect::Misbehaves, name, false, std::string("config \"") + name + "\" = " + what);
    }

    // Deep mode takes every config value into its property list, the scalar settings included;
    // pieces pair up as name, value in the map's order, so an entry that does not hold whole
    // pairs shifts every pair after it.
    void deepModeProperties() {
        std::vector<std::string> pieces;
        for (const auto& [key, value] : mInfo.configs) {
            if (key == settings::kPropertyListExcluded) continue;
            const size_t before = pieces.size();
            splitInto(value, &pieces);
            const size_t count = pieces.size() - before;
            if (count % 2 == 0) continue;
            // Where this entry's pieces land: a piece at an even index is a name.
            const bool startsAsValue = before % 2 == 1;
            std::string message = "config \"" + key + "\" = \"" + value + "\" holds " +
                                  std::to_string(count) +
                                  " comma-separated piece(s), not whole name,value pairs; deep "
                                  "mode takes every config value as properties, so \"";
            message += startsAsValue ? pieces[before] + "\" becomes the value of property \"" +
                                               pieces[before - 1] + "\""
                                     : pieces[before] + "\" becomes a property name";
            add(Effect::Misbehaves, key, false, message);
        }
        for (size_t i = 0; i + 1 < pieces.size(); i += 2) {
            const std::string& name = pieces[i];
            if (name.find('/') != std::string::npos || name.size() >= 92) {
                add(Effect::Misbehaves, "PROPERTIES", false,
                    "deep mode would set property \"" + name + "\" = \"" + pieces[i + 1] +
                            "\", which is not a valid property name; the write fails");
            }
        }
        if (pieces.size() % 2 == 1) {
            add(Effect::Misbehaves, "PROPERTIES", false,
                "deep mode's property list ends with \"" + pieces.back() +
                        "\" alone, a name without a value, which is ignored");
        }
    }

    const PowerOptFeatureInfo& mInfo;
    std::vector<KeyProblem> mProblems;
    // The numbers as the feature would read them, and which keys converted.
    FeatureSettings mValues;
    std::set<const Key*> mParsed;
};

}  // namespace

std::vector<KeyProblem> FeatureKeys::check(const PowerOptFeatureInfo& info) {
    return Checker(info).run();
}

std::vector<std::string> FeatureKeys::deepModeProperties(const PowerOptFeatureInfo& info) {
    std::vector<std::string> pieces;
    for (const auto& [key, value] : info.configs) {
        if (key != settings::kPropertyListExcluded) splitInto(value, &pieces);
    }
    return pieces;
}

const KeyProblem* FeatureKeys::first(const std::vector<KeyProblem>& problems,
                                     KeyProblem::Effect effect) {
    for (const KeyProblem& problem : problems) {
        if (problem.effect == effect) return &problem;
    }
    return nullptr;
}

bool FeatureKeys::deepModeOn(const PowerOptFeatureInfo& info) {
    for (const Key& key : settings::kKeys) {
        if (key.enables != Group::DeepMode) continue;
        auto it = info.configs.find(key.name);
        if (it == info.configs.end()) return false;
        try {
            return settings::parseNumber(key.conversion, it->second) != 0;
        } catch (const std::exception&) {
            return false;
        }
    }
    return false;
}

}  // namespace pwr::tools
