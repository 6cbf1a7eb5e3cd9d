// The feature's yes/no questions about an application: the performance library's catalogue for
// the type, the feature's own ignore list for isIgnored.

#include "feature/PSMPowerOptFeature.h"

#include <utility>

#include "platform/Log.h"
#include "platform/PowerOptClassifier.h"

using pwr::kModFeature;

namespace {
constexpr int kTypeGame = 2;
constexpr int kTypeBrowser = 3;
constexpr int kTypeOtherEligible = 5;
}  // namespace

bool PSMPowerOptFeature::isGame(std::string app) {
    if (mPowerOptClassifier == nullptr) return false;
    // The key is needed after the query only for the debug line; otherwise it is handed over.
    const int type = mPowerOptClassifier->getAppType(debugEnabled ? app : std::move(app));
    if (type != kTypeGame) return false;
    // The word isPSMType in this line is what log readers have always seen from isGame.
    if (debugEnabled) PWR_LOG(kModFeature, "isGame", 610, "%s isPSMType = %d", app.c_str(), type);
    return true;
}

bool PSMPowerOptFeature::isPSMType(std::string app) {
    if (mPowerOptClassifier == nullptr) return false;
    const int type = mPowerOptClassifier->getAppType(debugEnabled ? app : std::move(app));
    if (debugEnabled) {
        PWR_LOG(kModFeature, "isPSMType", 809, "%s isPSMType = %d", app.c_str(), type);
    }
    if (type != kTypeGame && type != kTypeBrowser && type != kTypeOtherEligible) return false;
    mPsmAppType = type;
    return true;
}

bool PSMPowerOptFeature::isBrowser(std::string app) {
    if (mPowerOptClassifier == nullptr) return false;
    const int type = mPowerOptClassifier->getAppType(debugEnabled ? app : std::move(app));
    if (debugEnabled) {
        PWR_LOG(kModFeature, "isBrowser", 823, "%s isBrowser = %d", app.c_str(), type);
    }
    return type == kTypeBrowser;
}

bool PSMPowerOptFeature::isIgnored(std::string app) {
    // The entry is the longer text: an application key matches any entry that contains it.
    for (size_t i = 0; i < mIgnoredApps.size(); ++i) {
        if (mIgnoredApps[i].find(app) != std::string::npos) {
            mIgnoredIndex = static_cast<int>(i) + 1;
            return true;
        }
    }
    return false;
}
