// Battery monitor. Placeholder until persistence lands: ticks take no sample.

#include "feature/PSMPowerOptFeature.h"

void PSMPowerOptFeature::getBatteryStatus() {}

void PSMPowerOptFeature::batterytimerCallBack(void* /*feature*/) {}

void PSMPowerOptFeature::ResetBattery() {}
