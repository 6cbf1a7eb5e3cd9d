// The feature's yes/no questions about an application: the performance library's catalogue for
// the type, the feature's own ignore list for isIgnored.

#include "feature/PSMPowerOptFeature.h"

#include <utility>

#include "feature/FeatureCodes.h"
#include "feature/LogSites.h"
#include "platform/PowerOptClassifier.h"

using pwr::codes::kAppTypeBrowser;
using pwr::codes::kAppTypeGame;
using pwr::codes::kAppTypeVideo;

bool PSMPowerOptFeature::isGame(std::string app) {
    if (mPowerOptClassifier == nullptr) return false;
    // The key is needed after the query only for the debug line; otherwise it is handed over.
    const int type = mPowerOptClassifier->getAppType(debugEnabled ? app : std::move(app));
    if (type != kAppTypeGame) return false;
    // The word isPSMType in this line is what log readers have always seen from isGame.
    if (debugEnabled) PWR_LOG_AT(pwr::site::kIsGame, app.c_str(), type);
    return true;
}

bool PSMPowerOptFeature::isPSMType(std::string app) {
    if (mPowerOptClassifier == nullptr) return false;
    const int type = mPowerOptClassifier->getAppType(debugEnabled ? app : std::move(app));
    if (debugEnabled) PWR_LOG_AT(pwr::site::kIsPsmType, app.c_str(), type);
    if (type != kAppTypeGame && type != kAppTypeBrowser && type != kAppTypeVideo) return false;
    mPsmAppType = type;
    return true;
}

bool PSMPowerOptFeature::isBrowser(std::string app) {
    if (mPowerOptClassifier == nullptr) return false;
    const int type = mPowerOptClassifier->getAppType(debugEnabled ? app : std::move(app));
    if (debugEnabled) PWR_LOG_AT(pwr::site::kIsBrowser, app.c_str(), type);
    return type == kAppTypeBrowser;
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
