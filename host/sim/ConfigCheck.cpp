#include "host/sim/ConfigCheck.h"

#include <vector>

#include "host/sim/Scenario.h"
#include "host/tools/FeatureConfigXml.h"
#include "host/tools/FeatureKeys.h"
#include "host/tools/InputFile.h"

namespace pwr::sim {
namespace {

using tools::FeatureKeys;
using tools::KeyProblem;

const char* consequence(KeyProblem::Effect effect) {
    switch (effect) {
        case KeyProblem::Effect::NotReady:
            return " (the feature would load not ready and ignore every event)";
        case KeyProblem::Effect::Throws:
            return " (the feature's constructor would throw)";
        case KeyProblem::Effect::Undefined:
            return " (undefined behaviour: expect a crash)";
        case KeyProblem::Effect::Unusable:
        case KeyProblem::Effect::Misbehaves:
            return "";
    }
    return "";
}

// A JSON file is a scenario or a device model: says so, and for a scenario which configuration
// it names.
void explainJson(const std::string& path, const std::string& text, std::ostream& out) {
    out << path << ": error: this is a JSON file (a scenario or a device model); --check reads "
        << "the XML feature configuration (docs/config-format.md)";
    Scenario scenario;
    std::string error;
    if (Scenario::parseText(text, path, &scenario, &error) && !scenario.configPath.empty()) {
        out << "; this scenario runs " << scenario.configPath << ": pwr-sim --check "
            << scenario.configPath;
    }
    out << '\n';
}

bool looksLikeJson(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    return first != std::string::npos && (text[first] == '{' || text[first] == '[');
}

}  // namespace

int checkConfig(const std::string& path, bool strict, std::ostream& out) {
    tools::FeatureConfig config;
    std::string error;
    std::string text;
    if (!tools::readInputFile(path, &text, &error)) {
        out << error << '\n';
        return 1;
    }
    if (looksLikeJson(text)) {
        explainJson(path, text, out);
        return 1;
    }
    if (!tools::FeatureConfigXml::parseText(text, path, &config, &error)) {
        out << error << '\n' << path << ": not a valid configuration\n";
        return 1;
    }
    int errors = 0;
    int warnings = 0;
    std::vector<KeyProblem> problems = FeatureKeys::check(config.info);
    for (KeyProblem& problem : FeatureKeys::checkUse(config.info)) {
        problems.push_back(std::move(problem));
    }
    for (const KeyProblem& problem : problems) {
        const bool isError = problem.effect != KeyProblem::Effect::Misbehaves;
        const std::string where = problem.feature ? path + ":" + std::to_string(config.featureLine)
                                  : problem.profile ? config.whereProfile(problem.key)
                                                    : config.whereConfig(problem.key);
        if (problem.note) {
            out << where << ": note: " << problem.message << '\n';
            continue;
        }
        (isError ? errors : warnings)++;
        out << where << (isError ? ": error: " : ": warning: ") << problem.message
            << consequence(problem.effect) << '\n';
    }
    if (errors == 0 && FeatureKeys::deepModeOn(config.info)) {
        const std::vector<std::string> props = FeatureKeys::deepModeProperties(config.info);
        out << path << ": note: deep mode will set " << props.size() / 2 << " properties:";
        for (size_t i = 0; i + 1 < props.size(); i += 2) {
            out << (i == 0 ? " " : ", ") << props[i] << "=" << props[i + 1];
        }
        out << '\n';
    }
    out << path << ": " << errors << (errors == 1 ? " error, " : " errors, ") << warnings
        << (warnings == 1 ? " warning" : " warnings") << '\n';
    return errors > 0 || (strict && warnings > 0) ? 1 : 0;
}

}  // namespace pwr::sim
