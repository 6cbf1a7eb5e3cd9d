#include "host/tools/FeatureKeys.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <stdexcept>

#include "feature/FeatureCodes.h"
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
                mOn.insert(key.enables);
                checkGroup(key.enables);
            }
        }
        return std::move(mProblems);
    }

    std::vector<KeyProblem> runUse() {
        run();
        mProblems.clear();
        featureName();
        psmState();
        unreadEntries();
        lockLists();
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

    void add(Effect effect, const std::string& key, bool isProfile, const std::string& message,
             bool note = false) {
        mProblems.push_back(KeyProblem{effect, key, isProfile, message, note, false});
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
            unusable(&S::mGpuSampleCount,
                     std::to_string(v) +
                             ": the GPU monitor keeps at most this many samples, so its list never "
                             "holds one, the average it evaluates is never made and no GPU profile "
                             "is ever chosen");
        }
        int timer = 0;
        if (parsed(&S::mGpuSampleCount, &v) && parsed(&S::mGameTimerMs, &timer) && v > 0 &&
            timer > 0 && static_cast<int64_t>(v) * timer > kLongestFillMs) {
            misbehaves(&S::mGpuSampleCount,
                       std::to_string(v) + ": at one sample every " + std::to_string(timer) +
                               " ms the list is first full " +
                               std::to_string(static_cast<int64_t>(v) * timer / 60000) +
                               " minutes after a game starts; until then no stability check "
                               "passes and no GPU profile is chosen");
        }
        if (parsed(&S::mGpuBusyStabilityThreshold, &v) && v < 0) {
            unusable(&S::mGpuBusyStabilityThreshold,
                     std::to_string(v) +
                             ": a busy range is never negative, so the GPU monitor never finds "
                             "the GPU stable and never chooses a GPU profile");
        }
        for (int S::*threshold : {&S::mGpuFreqThresholdLow, &S::mGpuFreqThresholdHigh}) {
            if (parsed(threshold, &v) && v < 0) {
                unusable(threshold,
                         std::to_string(v) +
                                 " MHz: the GPU monitor compares it with an unsigned average "
                                 "frequency, as which a negative number reads as a huge one, so "
                                 "its choice no longer follows the GPU frequency");
            }
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
            } else if (parsed(threshold, &v) && v < 0) {
                unusable(threshold,
                         std::to_string(v) +
                                 " mA: the battery monitor counts a charging battery as 0 mA of "
                                 "discharge, so its average is never below 0 and a negative "
                                 "threshold is never crossed that way");
            }
        }
    }

    // The host builds the feature by the name in <Feature name>, from the names the plug-in
    // registers.
    void featureName() {
        if (mInfo.featureName == codes::kFeatureName) return;
        mProblems.push_back(KeyProblem{Effect::Unusable, "", false,
                                       "<Feature name=\"" + mInfo.featureName +
                                               "\">: the plug-in registers its feature as \"" +
                                               codes::kFeatureName +
                                               "\" only, so the host finds no feature of this "
                                               "name and builds none",
                                       false, true});
    }

    // Event dispatch knows the PSM modes codes::kModeOff to codes::kModeBatteryWatch.
    void psmState() {
        int v = 0;
        if (!parsed(&S::mPsmState, &v) || (v >= codes::kModeOff && v <= codes::kModeBatteryWatch)) {
            return;
        }
        unusable(&S::mPsmState,
                 std::to_string(v) + ": event dispatch knows the PSM modes " +
                         std::to_string(codes::kModeOff) + " to " +
                         std::to_string(codes::kModeBatteryWatch) +
                         "; in this one start and stop events do nothing, and as it is not 0 "
                         "every usable power mode hint is refused");
    }

    // A configuration entry or profile that no part reads: a key the table does not know (a
    // misspelt one is named with the key meant), or one of a part that is off.
    void unreadEntries() {
        // Deep mode reads every config entry as property texts: with it on, an unknown key is
        // a property text, unless it looks like a setting misspelt.
        const bool deep = mOn.count(Group::DeepMode) != 0;
        for (const auto& [name, value] : mInfo.configs) {
            const Key* key = tableKey(name, false);
            if (key != nullptr) {
                if (key->group != Group::Core && mOn.count(key->group) == 0)
                    offPart(*key, name, false);
                continue;
            }
            if (name == settings::kPropertyListExcluded) continue;
            const Key* meant = nearest(name, false);
            if (meant != nullptr) {
                add(Effect::Unusable, name, false,
                    "config \"" + name + "\" is read by no part; did you mean \"" + meant->name +
                            "\"? (keys are matched exactly, case included)");
            } else if (!deep) {
                add(Effect::Unusable, name, false,
                    "config \"" + name +
                            "\" is read by no part of the feature (only deep mode reads every "
                            "entry, as property texts, and it is off)");
            }
        }
        for (const auto& [name, lists] : mInfo.profiles) {
            if (name.find(settings::kDynamicProfileMark) != std::string::npos) {
                if (mOn.count(Group::GpuMonitor) == 0)
                    offPart(*tableKey(settings::kDynamicProfileMark, true), name, true);
                continue;
            }
            const Key* key = tableKey(name, true);
            if (key != nullptr) {
                if (key->group != Group::Core && mOn.count(key->group) == 0)
                    offPart(*key, name, true);
                continue;
            }
            const Key* meant = nearest(name, true);
            add(deep && meant == nullptr ? Effect::Misbehaves : Effect::Unusable, name, true,
                "profile \"" + name + "\" is read by no part" +
                        (meant != nullptr ? std::string("; did you mean \"") + meant->name + "\"?"
                         : deep           ? " (deep mode lists every profile but applies "
                                            "only its own)"
                                          : ""));
        }
    }

    // An entry of a part that this configuration turns off: read by nothing here.
    void offPart(const Key& key, const std::string& name, bool profile) {
        const char* switchName = "";
        for (const Key& k : settings::kKeys) {
            if (k.enables == key.group) switchName = k.name;
        }
        add(Effect::Misbehaves, name, profile,
            std::string(profile ? "profile \"" : "config \"") + name + "\" is read only with \"" +
                    switchName + "\" on, and it is off here");
    }

    // The table's key of this name (a profile or a config), or null.
    static const Key* tableKey(const std::string& name, bool profile) {
        for (const Key& key : settings::kKeys) {
            const bool isProfile = key.conversion == Conversion::Profile ||
                                   key.conversion == Conversion::DynamicProfiles;
            if (isProfile == profile && name == key.name) return &key;
        }
        return nullptr;
    }

    // The table's key that `name` most likely misspells: equal but for case, or one or two
    // letters off in a name of six letters or more.
    static const Key* nearest(const std::string& name, bool profile) {
        const Key* best = nullptr;
        size_t bestDistance = 3;
        for (const Key& key : settings::kKeys) {
            const bool isProfile = key.conversion == Conversion::Profile;
            if (isProfile != profile || key.conversion == Conversion::DynamicProfiles) continue;
            const std::string candidate = key.name;
            if (strcasecmp(candidate.c_str(), name.c_str()) == 0) return &key;
            if (candidate.size() < 6) continue;
            const size_t d = distance(name, candidate);
            if (d < bestDistance) {
                bestDistance = d;
                best = &key;
            }
        }
        return best;
    }

    // Edits (insert, delete, replace) from one text to the other.
    static size_t distance(const std::string& a, const std::string& b) {
        std::vector<size_t> row(b.size() + 1);
        for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
        for (size_t i = 1; i <= a.size(); ++i) {
            size_t diagonal = row[0];
            row[0] = i;
            for (size_t j = 1; j <= b.size(); ++j) {
                const size_t up = row[j];
                row[j] = std::min(
                        {row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
                diagonal = up;
            }
        }
        return row[b.size()];
    }

    // A profile's lock list is handed to the performance library as opcode, value pairs; an
    // odd-length list leaves its last opcode without a value. The task-load boost's list holds
    // opcodes alone.
    void lockLists() {
        const std::string boost = keyOf(&S::taskBoostOpcodes).name;
        for (const auto& [name, lists] : mInfo.profiles) {
            if (name == boost || lists.empty() || lists[0].size() % 2 == 0) continue;
            add(Effect::Unusable, name, true,
                "profile \"" + name + "\" has a first <PerfLock> of " +
                        std::to_string(lists[0].size()) +
                        " numbers; a lock takes opcode, value pairs, so its last opcode has no "
                        "value and the performance library reads past the list");
        }
    }

    // "config "<key>" = <what>", a value accepted but not working as meant.
    void misbehaves(int S::*member, const std::string& what) {
        const char* name = keyOf(member).name;
        add(Effect::Misbehaves, name, false, std::string("config \"") + name + "\" = " + what);
    }

    // "config "<key>" = <what>", a value the part cannot work with at all.
    void unusable(int S::*member, const std::string& what) {
        const char* name = keyOf(member).name;
        add(Effect::Unusable, name, false, std::string("config \"") + name + "\" = " + what);
    }

    // Deep mode takes every config value into its property list, the scalar settings included;
    // pieces pair up as name, value in the map's order, so an entry that does not hold whole
    // pairs shifts every pair after it.
    void deepModeProperties() {
        std::vector<std::string> pieces;
        std::vector<bool> fromSetting;  // each piece: from one of the feature's own settings
        for (const auto& [key, value] : mInfo.configs) {
            if (key == settings::kPropertyListExcluded) continue;
            const size_t before = pieces.size();
            splitInto(value, &pieces);
            const size_t count = pieces.size() - before;
            const bool setting = tableKey(key, false) != nullptr;
            fromSetting.resize(pieces.size(), setting);
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
            // A setting of the feature is a single value by design: how deep mode reads it is
            // worth telling, not a mistake of the configuration.
            add(Effect::Misbehaves, key, false, message, setting);
        }
        for (size_t i = 0; i + 1 < pieces.size(); i += 2) {
            const std::string& name = pieces[i];
            if (name.find('/') != std::string::npos || name.size() >= 92) {
                add(Effect::Misbehaves, "PROPERTIES", false,
                    "deep mode would set property \"" + name + "\" = \"" + pieces[i + 1] +
                            "\", which is not a valid property name; the write fails",
                    fromSetting[i] && fromSetting[i + 1]);
            }
        }
        if (pieces.size() % 2 == 1) {
            add(Effect::Misbehaves, "PROPERTIES", false,
                "deep mode's property list ends with \"" + pieces.back() +
                        "\" alone, a name without a value, which is ignored",
                fromSetting.back());
        }
    }

    // A list filled later than an hour into a game is as good as never.
    static constexpr int64_t kLongestFillMs = 3600000;

    const PowerOptFeatureInfo& mInfo;
    std::vector<KeyProblem> mProblems;
    std::set<Group> mOn;  // the parts this configuration turns on
    // The numbers as the feature would read them, and which keys converted.
    FeatureSettings mValues;
    std::set<const Key*> mParsed;
};

}  // namespace

std::vector<KeyProblem> FeatureKeys::check(const PowerOptFeatureInfo& info) {
    return Checker(info).run();
}

std::vector<KeyProblem> FeatureKeys::checkUse(const PowerOptFeatureInfo& info) {
    return Checker(info).runUse();
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
