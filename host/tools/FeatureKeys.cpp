#include "host/tools/FeatureKeys.h"

#include <cctype>
#include <climits>
#include <cmath>
#include <map>
#include <stdexcept>

namespace pwr::tools {
namespace {

using Effect = KeyProblem::Effect;

// Read by the deep-mode set-up as base-10 ints, in this order.
constexpr const char* kDeepModeNumbers[] = {
        "VIDEO_SCALING_UP",   "BROWSER_SCALING_UP",           "GAME_SCALING_UP",
        "VIDEO_SCALING_DOWN", "BROWSER_SCALING_DOWN",         "GAME_SCALING_DOWN",
        "MAX_SAMPLE_NUM",     "SCALING_DOWN_TASK_LOAD_BOOST",
};
constexpr const char* kDeepModeTexts[] = {"CPUNODE", "CPUPOLICY"};
constexpr const char* kDeepModeProfiles[] = {"DEFAULT", "PSM_OPT_RESOURCE"};

// Read by the GPU monitor's set-up with std::stod, truncated to int, in this order.
constexpr const char* kGpuNumbers[] = {
        "GAME_TIMER",
        "GPU_SAMPLE_COUNT",
        "STABILITY_SAMPLE_COUNT",
        "GPU_BUSY_STABILITY_THRESHOLD",
        "GPU_Freq_THRESHOLD_LOW",
        "GPU_Freq_THRESHOLD_HIGH",
};
// The GPU monitor picks among the first three profiles whose names contain this.
constexpr char kDynamicProfileMark[] = "DYN_";
constexpr size_t kDynamicProfilesUsed = 3;

enum class Conversion { Double, Int };
using Profile = std::vector<std::vector<int>>;

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

class Checker {
  public:
    explicit Checker(const PowerOptFeatureInfo& info) : mInfo(info) {}

    std::vector<KeyProblem> run() {
        number("PSM_STATE", Conversion::Double);
        profile("PROFILE_LIGHT_MODE");
        int deepMode = 0;
        if (number("DEEP_MODE", Conversion::Int, &deepMode) && deepMode != 0) {
            std::map<std::string, int> values;
            for (const char* key : kDeepModeNumbers) {
                int value = 0;
                if (number(key, Conversion::Int, &value)) values[key] = value;
            }
            for (const char* key : kDeepModeTexts) present(key);
            for (const char* name : kDeepModeProfiles) profile(name);
            batterySettings(values);
            deepModeProperties();
        }
        int gpuMode = 0;
        if (number("GPUMode", Conversion::Int, &gpuMode) && gpuMode != 0) {
            std::map<std::string, int> values;
            for (const char* key : kGpuNumbers) {
                int value = 0;
                if (number(key, Conversion::Double, &value)) values[key] = value;
            }
            gpuSettings(values);
            dynamicProfiles();
        }
        return std::move(mProblems);
    }

  private:
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

    // Converts as the feature does. True with `out` set when the conversion does not throw.
    bool number(const char* key, Conversion conversion, int* out = nullptr) {
        const std::string* value = find(key);
        if (value == nullptr) return present(key);
        const char* function = conversion == Conversion::Double ? "std::stod" : "std::stoi";
        const std::string quoted = "config \"" + std::string(key) + "\" = \"" + *value + "\"";
        size_t used = 0;
        int result = 0;
        try {
            if (conversion == Conversion::Double) {
                const double d = std::stod(*value, &used);
                // The feature refuses a value no int can hold with std::out_of_range.
                if (!std::isfinite(d) || d <= double{INT_MIN} - 1 || d >= double{INT_MAX} + 1) {
                    add(Effect::Throws, key, false,
                        quoted + " does not fit an int (the feature throws std::out_of_range)");
                    return false;
                }
                result = static_cast<int>(d);
            } else {
                result = std::stoi(*value, &used);
            }
        } catch (const std::invalid_argument&) {
            add(Effect::Throws, key, false,
                quoted + " is not a number (" + function + " throws std::invalid_argument)");
            return false;
        } catch (const std::out_of_range&) {
            add(Effect::Throws, key, false,
                quoted + " is out of range (" + function + " throws std::out_of_range)");
            return false;
        }
        size_t end = value->size();
        while (end > used && isspace(static_cast<unsigned char>((*value)[end - 1]))) --end;
        if (used < end) {
            add(Effect::Misbehaves, key, false,
                quoted + " is read as " + std::to_string(result) + "; the rest is ignored");
        }
        if (out != nullptr) *out = result;
        return true;
    }

    // A profile the feature needs: present with a non-empty first list.
    void profile(const char* name) {
        auto it = mInfo.profiles.find(name);
        if (it == mInfo.profiles.end() || it->second.empty()) {
            add(Effect::NotReady, name, true,
                std::string("profile \"") + name + "\" is missing or has no <PerfLock>");
        } else if (it->second[0].empty() && std::string(name) == "PSM_OPT_RESOURCE") {
            // Deep mode's set-up needs the boost opcode, the first int of the first list.
            add(Effect::NotReady, name, true,
                std::string("profile \"") + name +
                        "\" has an empty first <PerfLock>; deep mode "
                        "needs the task-load boost opcode there");
        } else if (it->second[0].empty()) {
            add(Effect::Misbehaves, name, true,
                std::string("profile \"") + name +
                        "\" has an empty first <PerfLock>; no lock can be taken with it");
        }
    }

    void dynamicProfiles() {
        // In name order, as the monitor indexes them.
        const std::map<std::string, Profile> ordered(mInfo.profiles.begin(), mInfo.profiles.end());
        size_t count = 0;
        for (const auto& [name, lists] : ordered) {
            if (name.find(kDynamicProfileMark) == std::string::npos) continue;
            if (count < kDynamicProfilesUsed && (lists.empty() || lists[0].empty())) {
                add(Effect::Misbehaves, name, true,
                    "dynamic GPU profile \"" + name + "\" (level " + std::to_string(count) +
                            ") has no lock list; choosing it leaves no profile held");
            }
            ++count;
        }
        if (count == 0) {
            add(Effect::NotReady, kDynamicProfileMark, true,
                "no profile whose name contains \"DYN_\"; the GPU monitor needs three");
        } else if (count < kDynamicProfilesUsed) {
            add(Effect::Undefined, kDynamicProfileMark, true,
                "only " + std::to_string(count) +
                        " profile(s) whose name contains \"DYN_\"; the GPU monitor picks among "
                        "three and would read past the list");
        }
    }

    // Values the GPU monitor accepts but cannot work with.
    void gpuSettings(const std::map<std::string, int>& values) {
        auto value = [&](const char* key, int* out) {
            auto it = values.find(key);
            if (it == values.end()) return false;
            *out = it->second;
            return true;
        };
        int v = 0;
        if (value("GAME_TIMER", &v) && v <= 0) {
            add(Effect::Misbehaves, "GAME_TIMER", false,
                "config \"GAME_TIMER\" = " + std::to_string(v) +
                        " ms: the game timer never ticks, so no GPU profile is ever chosen");
        }
        if (value("GPU_SAMPLE_COUNT", &v) && v <= 0) {
            add(Effect::Misbehaves, "GPU_SAMPLE_COUNT", false,
                "config \"GPU_SAMPLE_COUNT\" = " + std::to_string(v) +
                        ": no sample is kept, so no GPU profile is ever chosen");
        }
        int low = 0;
        int high = 0;
        if (value("GPU_Freq_THRESHOLD_LOW", &low) && value("GPU_Freq_THRESHOLD_HIGH", &high) &&
            low > high) {
            add(Effect::Misbehaves, "GPU_Freq_THRESHOLD_LOW", false,
                "config \"GPU_Freq_THRESHOLD_LOW\" = " + std::to_string(low) +
                        " MHz is above GPU_Freq_THRESHOLD_HIGH = " + std::to_string(high) +
                        " MHz: the balanced profile is never chosen");
        }
    }

    // Values the battery monitor accepts but cannot work with.
    void batterySettings(const std::map<std::string, int>& values) {
        auto it = values.find("MAX_SAMPLE_NUM");
        if (it != values.end() && it->second <= 0) {
            add(Effect::Misbehaves, "MAX_SAMPLE_NUM", false,
                "config \"MAX_SAMPLE_NUM\" = " + std::to_string(it->second) +
                        ": the battery monitor never evaluates its samples");
        }
        it = values.find("SCALING_DOWN_TASK_LOAD_BOOST");
        if (it != values.end() && it->second >= 0) {
            add(Effect::Misbehaves, "SCALING_DOWN_TASK_LOAD_BOOST", false,
                "config \"SCALING_DOWN_TASK_LOAD_BOOST\" = " + std::to_string(it->second) +
                        ": only a negative value scales a task down; this one boosts nothing");
        }
        for (const char* key : {"GAME_SCALING_UP", "GAME_SCALING_DOWN", "BROWSER_SCALING_UP",
                                "BROWSER_SCALING_DOWN", "VIDEO_SCALING_UP", "VIDEO_SCALING_DOWN"}) {
            it = values.find(key);
            if (it != values.end() && it->second == 0) {
                add(Effect::Misbehaves, key, false,
                    std::string("config \"") + key +
                            "\" = 0: the battery monitor takes 0 as not configured and never "
                            "acts for that application type");
            }
        }
    }

    // Deep mode takes every config value into its property list, the scalar settings included;
    // pieces pair up as name, value in the map's order, so an entry that does not hold whole
    // pairs shifts every pair after it.
    void deepModeProperties() {
        std::vector<std::string> pieces;
        for (const auto& [key, value] : mInfo.configs) {
            if (key == "PSM") continue;
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
};

}  // namespace

std::vector<KeyProblem> FeatureKeys::check(const PowerOptFeatureInfo& info) {
    return Checker(info).run();
}

std::vector<std::string> FeatureKeys::deepModeProperties(const PowerOptFeatureInfo& info) {
    std::vector<std::string> pieces;
    for (const auto& [key, value] : info.configs) {
        if (key != "PSM") splitInto(value, &pieces);
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

}  // namespace pwr::tools
