#include "host/sim/ConfigCheck.h"

#include <vector>

#include "host/tools/FeatureConfigXml.h"
#include "host/tools/FeatureKeys.h"

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
        case KeyProblem::Effect::Misbehaves:
            return "";
    }
    return "";
}

}  // namespace

int checkConfig(const std::string& path, bool strict, std::ostream& out) {
    tools::FeatureConfig config;
    std::string error;
    if (!tools::FeatureConfigXml::parseFile(path, &config, &error)) {
        out << error << '\n' << path << ": not a valid configuration\n";
        return 1;
    }
    int errors = 0;
    int warnings = 0;
    for (const KeyProblem& problem : FeatureKeys::check(config.info)) {
        const bool isError = problem.effect != KeyProblem::Effect::Misbehaves;
        (isError ? errors : warnings)++;
        const std::string where = problem.profile ? config.whereProfile(problem.key)
                                                  : config.whereConfig(problem.key);
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
