// Property application. Placeholder until persistence lands: nothing is applied.

#include "feature/PSMPowerOptFeature.h"

void PSMPowerOptFeature::ConvertToStringArray(const char* /*text*/,
                                              std::vector<std::string>& /*out*/) {}

int PSMPowerOptFeature::applyProp(std::string* /*list*/, int /*count*/, int /*duration*/) {
    return -1;
}

int PSMPowerOptFeature::readAndApplyProp(std::vector<std::string> /*list*/, int /*duration*/) {
    return -1;
}

void PSMPowerOptFeature::releaseProp(std::vector<std::string> /*list*/) {}
