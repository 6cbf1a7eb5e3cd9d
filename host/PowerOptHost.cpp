// What the host power service library owns of the plug-in contract: the registry and the base
// class's out-of-line members.

#include "feature/PowerOptFeature.h"

#include <utility>

std::map<std::string, PowerOptFeatureFactory>* PowerOptFeature::mFeatureMapInstanceList = nullptr;

PowerOptFeature::PowerOptFeature(PowerOptFeatureInfo featureInfo)
    : name(featureInfo.featureName), info(std::move(featureInfo)) {}

PowerOptFeature::~PowerOptFeature() = default;

void PowerOptFeature::sendEvents(AsyncTriggerPayload /*payload*/) {}
