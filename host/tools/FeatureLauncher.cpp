#include "host/tools/FeatureLauncher.h"

#include <cxxabi.h>
#include <stdlib.h>

#include <exception>
#include <typeinfo>
#include <vector>

namespace pwr::tools {

bool FeatureLauncher::load(host::PluginHost& plugin, const std::string& pluginPath) {
    std::string error;
    if (!plugin.load(pluginPath, &error)) {
        fail("cannot load the plug-in " + pluginPath + ": " + error);
        return false;
    }
    const std::string& name = mConfig.info.featureName;
    if (host::PluginHost::findFactory(name) == nullptr) {
        fail(mConfig.file + ":" + std::to_string(mConfig.featureLine) + ": " + pluginPath +
             " registers no feature named \"" + name + "\"" + registeredNames());
        return false;
    }
    return true;
}

std::unique_ptr<PowerOptFeature> FeatureLauncher::build() {
    std::string error;
    const char* type = nullptr;
    std::string what;
    try {
        std::unique_ptr<PowerOptFeature> feature =
                host::PluginHost::create(mConfig.info.featureName, mConfig.info, &error);
        if (feature == nullptr) fail(error);
        return feature;
    } catch (const std::exception& e) {
        type = typeid(e).name();
        what = e.what();
    } catch (...) {
        type = "an unknown exception";
    }
    // The exception carries no key: the keys are converted here in the feature's order until one
    // throws the same way.
    const std::vector<KeyProblem> problems = FeatureKeys::check(mConfig.info);
    const KeyProblem* culprit = FeatureKeys::first(problems, KeyProblem::Effect::Throws);
    if (culprit != nullptr) {
        fail(where(*culprit) + ": " + culprit->message +
             "; the feature's constructor threw, no feature was built");
    } else {
        fail(mConfig.file + ": the feature's constructor threw " + demangled(type) +
             (what.empty() ? "" : " (" + what + ")") + "; no feature was built");
    }
    return nullptr;
}

std::string FeatureLauncher::readyLogSuffix() const {
    return ": Constructor " + mConfig.info.featureName;
}

int FeatureLauncher::reportNotReady() {
    fail(mConfig.file + ": the feature " + mConfig.info.featureName +
         " ended not ready and would ignore every event, so none was replayed; its log lines "
         "above say why");
    for (const KeyProblem& problem : FeatureKeys::check(mConfig.info)) {
        if (problem.effect == KeyProblem::Effect::NotReady) {
            note(where(problem) + ": " + problem.message);
        }
    }
    return 1;
}

void FeatureLauncher::warnAboutKeys() {
    for (const auto& problems :
         {FeatureKeys::check(mConfig.info), FeatureKeys::checkUse(mConfig.info)}) {
        for (const KeyProblem& problem : problems) {
            // How deep mode reads the feature's own settings is told by --check, not every run.
            if (!problem.note) warn(where(problem) + ": " + problem.message);
        }
    }
}

int FeatureLauncher::fail(const std::string& message) {
    mErr << mTool << ": error: " << message << '\n';
    return 1;
}

void FeatureLauncher::warn(const std::string& message) {
    mErr << mTool << ": warning: " << message << '\n';
}

void FeatureLauncher::note(const std::string& message) {
    mErr << mTool << ": note: " << message << '\n';
}

std::string FeatureLauncher::where(const KeyProblem& problem) const {
    if (problem.feature) return mConfig.file + ":" + std::to_string(mConfig.featureLine);
    return problem.profile ? mConfig.whereProfile(problem.key) : mConfig.whereConfig(problem.key);
}

std::string FeatureLauncher::registeredNames() {
    const auto* registry = PowerOptFeature::mFeatureMapInstanceList;
    if (registry == nullptr || registry->empty()) return " (it registers none)";
    std::string names;
    for (const auto& entry : *registry) names += (names.empty() ? "" : ", ") + entry.first;
    return " (registered: " + names + ")";
}

std::string FeatureLauncher::demangled(const char* mangled) {
    if (mangled == nullptr) return "";
    int status = 0;
    std::unique_ptr<char, decltype(&free)> name(
            abi::__cxa_demangle(mangled, nullptr, nullptr, &status), &free);
    return status == 0 && name != nullptr ? name.get() : mangled;
}

}  // namespace pwr::tools
