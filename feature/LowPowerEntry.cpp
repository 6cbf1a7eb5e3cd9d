// Low-power mode entry. Placeholder until persistence lands: does nothing.

#include "feature/PSMPowerOptFeature.h"

void PSMPowerOptFeature::lowPowerInit() {}
