// Top-task discovery and task-load boost. Placeholder until persistence lands.

#include "feature/PSMPowerOptFeature.h"

bool PSMPowerOptFeature::getTopTask() {
    return false;
}

void PSMPowerOptFeature::updateTaskloadboost(std::string /*pid*/, int /*maxNumTask*/,
                                             int /*value*/) {}
