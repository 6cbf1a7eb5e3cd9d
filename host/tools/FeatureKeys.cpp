#include "host/tools/FeatureKeys.h"

#include <cctype>
#include <climits>
#include <cmath>
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

class Checker {
  public:
    explicit Checker(const PowerOptFeatureInfo& info) : mInfo(info) {}

    std::vector<KeyProblem> run() {
        number("PSM_STATE", Conversion::Double);
        profile("PROFILE_LIGHT_MODE");
        int deepMode = 0;
        if (number("DEEP_MODE", Conversion::Int, &deepMode) && deepMode != 0) {
            for (const char* key : kDeepModeNumbers) number(key, Conversion::Int);
            for (const char* key : kDeepModeTexts) present(key);
            for (const char* name : kDeepModeProfiles) profile(name);
        }
        int gpuMode = 0;
        if (number("GPUMode", Conversion::Int, &gpuMode) && gpuMode != 0) {
            for (const char* key : kGpuNumbers) number(key, Conversion::Double);
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
                // The feature truncates to int; beyond int's range that is undefined.
                if (!std::isfinite(d) || d <= double{INT_MIN} - 1 || d >= double{INT_MAX} + 1) {
                    add(Effect::Misbehaves, key, false,
                        quoted + " is not a finite number within the int range");
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
        } else if (it->second[0].empty()) {
            add(Effect::Misbehaves, name, true,
                std::string("profile \"") + name +
                        "\" has an empty first <PerfLock>; no lock can be taken with it");
        }
    }

    void dynamicProfiles() {
        size_t count = 0;
        for (const auto& [name, lists] : mInfo.profiles) {
            count += name.find(kDynamicProfileMark) != std::string::npos ? 1 : 0;
        }
        if (count == 0) {
            add(Effect::NotReady, kDynamicProfileMark, true,
                "no profile whose name contains \"DYN_\"; the GPU monitor needs three");
        } else if (count < kDynamicProfilesUsed) {
            add(Effect::Misbehaves, kDynamicProfileMark, true,
                "only " + std::to_string(count) +
                        " profile(s) whose name contains \"DYN_\"; the GPU monitor uses three");
        }
    }

    const PowerOptFeatureInfo& mInfo;
    std::vector<KeyProblem> mProblems;
};

}  // namespace

std::vector<KeyProblem> FeatureKeys::check(const PowerOptFeatureInfo& info) {
    return Checker(info).run();
}

const KeyProblem* FeatureKeys::first(const std::vector<KeyProblem>& problems,
                                     KeyProblem::Effect effect) {
    for (const KeyProblem& problem : problems) {
        if (problem.effect == effect) return &problem;
    }
    return nullptr;
}

}  // namespace pwr::tools
