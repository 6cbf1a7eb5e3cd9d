// Deep mode. Placeholder until persistence lands: the set-up creates the battery timer only.

#include "feature/PSMPowerOptFeature.h"

#include "platform/Log.h"

using pwr::kModFeature;

bool PSMPowerOptFeature::initDeepMode(PowerOptFeatureInfo& /*info*/) {
    mBatteryTimerStruct = Timer().Timer_create(&PSMPowerOptFeature::batterytimerCallBack, this);
    if (mBatteryTimerStruct == nullptr) {
        PWR_LOG(kModFeature, "initDeepMode", 1, "TimerStruct is nullptr !!");
        return false;
    }
    return true;
}

void PSMPowerOptFeature::deeptimerCallBack(void* /*feature*/) {}

void PSMPowerOptFeature::resetDeepMode() {}
