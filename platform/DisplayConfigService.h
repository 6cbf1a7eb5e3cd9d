#pragma once

#include <stdint.h>

#include <memory>

namespace pwr {

// Instance of the platform's display-configuration service in the service manager.
inline constexpr char kDisplayConfigInstance[] =
        "vendor.vyr.hardware.display.config.IDisplayConfig/default";

// The two queries of the display-configuration service that the probes make. Display numbers
// are the service's own. Neither reports the call's status.
class DisplayConfigService {
  public:
    virtual ~DisplayConfigService() = default;

    // Writes the index of the active configuration of `display` into *config; a failed call
    // leaves *config as the caller preset it.
    virtual void getActiveConfig(int32_t display, int32_t* config) = 0;
    // Writes the vsync period, in nanoseconds, from the attributes of configuration `config` of
    // `display` into *vsyncPeriodNs; 0 when the attributes could not be had.
    virtual void getVsyncPeriod(int32_t display, int32_t config, int32_t* vsyncPeriodNs) = 0;
};

// How a look-up of the service ended.
enum class DisplayConfigLookup {
    kConnected,    // the service answered with the interface
    kNoService,    // the service manager has no such service (always so on a host)
    kNoInterface,  // a binder was found but does not carry the interface
};

// Looks the service up. Implemented with the binder NDK on a device; a host has no service.
class DisplayConfigProvider {
  public:
    virtual ~DisplayConfigProvider() = default;

    // Sets *service when, and only when, the result is kConnected.
    virtual DisplayConfigLookup connect(std::shared_ptr<DisplayConfigService>* service) = 0;
};

// The platform's own provider: the service manager on a device, "no service" on a host.
DisplayConfigProvider& platformDisplayConfigProvider();

// Looks the service up through the installed provider, else the platform's. Thread-safe.
DisplayConfigLookup connectDisplayConfig(std::shared_ptr<DisplayConfigService>* service);

// Installs `provider` for the whole process in place of the platform's; null restores the
// platform's. For tests and host tools that stand in a service.
void setDisplayConfigProvider(std::shared_ptr<DisplayConfigProvider> provider);

}  // namespace pwr
