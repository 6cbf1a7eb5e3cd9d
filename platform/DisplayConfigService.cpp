#include "platform/DisplayConfigService.h"

#include <utility>

#include "platform/Mutex.h"

namespace pwr {
namespace {

Mutex gProviderMutex;
std::shared_ptr<DisplayConfigProvider> gInstalledProvider GUARDED_BY(gProviderMutex);

#ifndef __ANDROID__
// A host has no service manager, so there is never a display-configuration service.
class HostDisplayConfigProvider : public DisplayConfigProvider {
  public:
    DisplayConfigLookup connect(std::shared_ptr<DisplayConfigService>* /*service*/) override {
        return DisplayConfigLookup::kNoService;
    }
};
#endif

}  // namespace

#ifndef __ANDROID__
// On a device this comes from DisplayConfigServiceAndroid.cpp.
DisplayConfigProvider& platformDisplayConfigProvider() {
    static HostDisplayConfigProvider provider;
    return provider;
}
#endif

DisplayConfigLookup connectDisplayConfig(std::shared_ptr<DisplayConfigService>* service) {
    std::shared_ptr<DisplayConfigProvider> installed;
    {
        MutexLock lock(gProviderMutex);
        installed = gInstalledProvider;
    }
    // Called without the lock: a look-up may block on the service manager.
    if (installed != nullptr) return installed->connect(service);
    return platformDisplayConfigProvider().connect(service);
}

void setDisplayConfigProvider(std::shared_ptr<DisplayConfigProvider> provider) {
    MutexLock lock(gProviderMutex);
    gInstalledProvider = std::move(provider);
}

}  // namespace pwr
