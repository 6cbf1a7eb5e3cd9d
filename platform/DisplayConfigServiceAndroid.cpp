// The display-configuration service through the binder NDK. Device builds only: a host has no
// service manager, and its provider (DisplayConfigService.cpp) answers "no service".

#ifdef __ANDROID__

#include <utility>

#include <aidl/vendor/vyr/hardware/display/config/IDisplayConfig.h>
#include <android/binder_auto_utils.h>
#include <android/binder_manager.h>

#include "platform/DisplayConfigService.h"

namespace pwr {
namespace {

using aidl::vendor::vyr::hardware::display::config::Attributes;
using aidl::vendor::vyr::hardware::display::config::IDisplayConfig;

class BinderDisplayConfigService : public DisplayConfigService {
  public:
    explicit BinderDisplayConfigService(std::shared_ptr<IDisplayConfig> config)
        : mConfig(std::move(config)) {}

    void getActiveConfig(int32_t display, int32_t* config) override {
        // The status is of no use to the probe: a failed call leaves the preset index.
        (void)mConfig->getActiveConfig(display, config);
    }

    void getVsyncPeriod(int32_t display, int32_t config, int32_t* vsyncPeriodNs) override {
        Attributes attributes;  // zeroed: a failed call reads as "no period"
        (void)mConfig->getDisplayAttributes(config, display, &attributes);
        *vsyncPeriodNs = attributes.vsyncPeriod;
    }

  private:
    std::shared_ptr<IDisplayConfig> mConfig;
};

class BinderDisplayConfigProvider : public DisplayConfigProvider {
  public:
    DisplayConfigLookup connect(std::shared_ptr<DisplayConfigService>* service) override {
        // checkService does not wait for a service that is not running yet.
        ndk::SpAIBinder binder(AServiceManager_checkService(kDisplayConfigInstance));
        if (binder.get() == nullptr) return DisplayConfigLookup::kNoService;
        std::shared_ptr<IDisplayConfig> config = IDisplayConfig::fromBinder(binder);
        if (config == nullptr) return DisplayConfigLookup::kNoInterface;
        *service = std::make_shared<BinderDisplayConfigService>(std::move(config));
        return DisplayConfigLookup::kConnected;
    }
};

}  // namespace

DisplayConfigProvider& platformDisplayConfigProvider() {
    static BinderDisplayConfigProvider provider;
    return provider;
}

}  // namespace pwr

#endif  // __ANDROID__
