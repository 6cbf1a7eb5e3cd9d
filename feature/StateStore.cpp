// Power-saving state store. Placeholder until the record store lands: no persistence.

#include "feature/PSMPowerOptFeature.h"

void PSMPowerOptFeature::pmDbInit() {}

void PSMPowerOptFeature::pmDbWrite(std::string /*key*/, char /*value*/) {}

char PSMPowerOptFeature::pmDbRead(std::string /*key*/) {
    return 0;
}
