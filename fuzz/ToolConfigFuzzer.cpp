// The host tool's XML feature configuration, parsed from arbitrary text. Parsing must never crash
// and never throw. When a text parses, the tool's check of the feature's keys must predict what
// the feature does with that configuration: the first problem that is not a mere misbehaviour
// says whether the constructor throws or leaves the feature not ready, and with no such problem
// the feature ends ready. The feature is built through the registry, as the tool and the host
// build it.

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "feature/PSMPowerOptFeature.h"
#include "fuzz/FuzzSupport.h"
#include "host/tools/FeatureConfigXml.h"
#include "host/tools/FeatureKeys.h"
#include "tests/support/FeaturePeer.h"

using pwr::tools::FeatureConfig;
using pwr::tools::FeatureConfigXml;
using pwr::tools::FeatureKeys;
using pwr::tools::KeyProblem;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    pwr::fuzz::quietLogs();
    pwr::fuzz::deviceRoot();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    FeatureConfig config;
    std::string error;
    if (!FeatureConfigXml::parseText(text, "fuzz.xml", &config, &error)) {
        pwr::fuzz::check(!error.empty(), "a refused configuration says why");
        return 0;
    }
    const std::vector<KeyProblem> problems = FeatureKeys::check(config.info);
    // Only these stop the set-up; values the feature misreads or a part cannot work with, and
    // too few dynamic profiles (a later tick indexes past them), leave the feature ready.
    const auto found = std::find_if(problems.begin(), problems.end(), [](const KeyProblem& p) {
        return p.effect == KeyProblem::Effect::NotReady || p.effect == KeyProblem::Effect::Throws;
    });
    const KeyProblem* decisive = found != problems.end() ? &*found : nullptr;

    pwr::fuzz::Built built = pwr::fuzz::buildFeature(config.info);
    const bool predictsThrow =
            decisive != nullptr && decisive->effect == KeyProblem::Effect::Throws;
    pwr::fuzz::check(built.threw == predictsThrow,
                     "the key check predicts whether the constructor throws");
    if (built.feature != nullptr) {
        const bool ready =
                PSMPowerOptFeatureTestPeer(static_cast<PSMPowerOptFeature&>(*built.feature))
                        .ready();
        pwr::fuzz::check(ready == (decisive == nullptr),
                         "the key check predicts whether the feature ends ready");
        built.feature.reset();
    }
    pwr::fuzz::clearStore();
    return 0;
}
