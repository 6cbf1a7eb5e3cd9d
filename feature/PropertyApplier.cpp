#include "feature/PropertyApplier.h"

#include <string.h>

#include "feature/LogSites.h"
#include "feature/StateStore.h"
#include "platform/Properties.h"

void PropertyApplier::ConvertToStringArray(const char* text, std::vector<std::string>& out) const {
    if (text == nullptr) {
        if (mDebugEnabled) PWR_LOG_AT(pwr::site::kNoPropsText);
        return;
    }
    // strtok_r writes a NUL over every delimiter it passes; split a private copy so that the
    // caller's text (a configuration value) stays as it was.
    std::string copy(text);
    char* rest = nullptr;
    for (char* token = strtok_r(copy.data(), ",", &rest); token != nullptr;
         token = strtok_r(nullptr, ",", &rest)) {
        if (mDebugEnabled) {
            // Some C libraries leave the rest pointer null after the last token.
            PWR_LOG_AT(pwr::site::kPropToken, token, rest != nullptr ? rest : "");
        }
        out.emplace_back(token);
    }
}

int PropertyApplier::applyProp(const std::string* list, int count) const {
    if (count < 2) return -1;
    int result = -1;
    for (int i = 0; i < count - 1; i += 2) {
        const std::string& name = list[i];
        const std::string& value = list[i + 1];
        if (mDebugEnabled) PWR_LOG_AT(pwr::site::kPropParam, name.c_str(), value.c_str());
        char old[PROP_VALUE_MAX] = {};
        result = property_get(name.c_str(), old, "0");
        // Saved before the property changes, so that whatever happens next the old value can
        // still be put back.
        mStore.pmDbWrite(name, old[0]);
        property_set(name.c_str(), value.c_str());
    }
    return result;
}

int PropertyApplier::readAndApplyProp(const std::vector<std::string>& list) const {
    if (list.empty()) return -1;
    if (mDebugEnabled) PWR_LOG_AT(pwr::site::kPropSize, static_cast<unsigned long>(list.size()));
    return applyProp(list.data(), static_cast<int>(list.size()));
}

void PropertyApplier::releaseProp(const std::vector<std::string>& list) const {
    if (mDebugEnabled) PWR_LOG_AT(pwr::site::kReleasePropSize, static_cast<int>(list.size()));
    if (list.size() < 2) return;
    for (size_t i = 0; i + 1 < list.size(); i += 2) {
        // No saved character (no row, or no store) gives NUL: the property becomes empty.
        char saved[PROP_VALUE_MAX] = {};
        saved[0] = mStore.pmDbRead(list[i]);
        property_set(list[i].c_str(), saved);
    }
}
