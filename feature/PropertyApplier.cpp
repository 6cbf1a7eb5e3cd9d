// System properties that a power mode changes for as long as it is active.
//
// Before a property is set, the first character of its current value is saved in the state store
// (an unset property reads as "0"); releasing sets each property back to that one character. The
// properties handled are single-character switches, so one saved character is the whole value.

#include <string.h>

#include "feature/PSMPowerOptFeature.h"

#include "platform/Log.h"
#include "platform/Properties.h"

using pwr::kModFeature;

void PSMPowerOptFeature::ConvertToStringArray(const char* text, std::vector<std::string>& out) {
    if (text == nullptr) {
        if (debugEnabled) PWR_LOG(kModFeature, "ConvertToStringArray", 1051, "No props \n");
        return;
    }
    // strtok_r writes a NUL over every delimiter it passes; split a private copy so that the
    // caller's text (a configuration value) stays as it was.
    std::string copy(text);
    char* rest = nullptr;
    for (char* token = strtok_r(copy.data(), ",", &rest); token != nullptr;
         token = strtok_r(nullptr, ",", &rest)) {
        if (debugEnabled) {
            // Some C libraries leave the rest pointer null after the last token.
            PWR_LOG(kModFeature, "ConvertToStringArray", 1057, "pch[%s]; pSave[%s]\n", token,
                    rest != nullptr ? rest : "");
        }
        out.emplace_back(token);
    }
}

int PSMPowerOptFeature::applyProp(std::string* list, int count, int /*duration*/) {
    if (count < 2) return -1;
    int result = -1;
    for (int i = 0; i < count - 1; i += 2) {
        const std::string& name = list[i];
        const std::string& value = list[i + 1];
        if (debugEnabled) {
            PWR_LOG(kModFeature, "applyProp", 869, "param for config:%s,%s", name.c_str(),
                    value.c_str());
        }
        char old[PROP_VALUE_MAX] = {};
        result = property_get(name.c_str(), old, "0");
        // Saved before the property changes, so that whatever happens next the old value can
        // still be put back.
        pmDbWrite(name, old[0]);
        property_set(name.c_str(), value.c_str());
    }
    return result;
}

int PSMPowerOptFeature::readAndApplyProp(std::vector<std::string> list, int duration) {
    if (list.empty()) return -1;
    if (debugEnabled) {
        PWR_LOG(kModFeature, "readAndApplyProp", 848, "Prop size %lu",
                static_cast<unsigned long>(list.size()));
    }
    return applyProp(list.data(), static_cast<int>(list.size()), duration);
}

void PSMPowerOptFeature::releaseProp(std::vector<std::string> list) {
    if (debugEnabled) {
        PWR_LOG(kModFeature, "releaseProp", 886, " Array size %d", static_cast<int>(list.size()));
    }
    if (list.size() < 2) return;
    for (size_t i = 0; i + 1 < list.size(); i += 2) {
        // No saved character (no row, or no store) gives NUL: the property becomes empty.
        char saved[PROP_VALUE_MAX] = {};
        saved[0] = pmDbRead(list[i]);
        property_set(list[i].c_str(), saved);
    }
}
