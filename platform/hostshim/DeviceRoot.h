#pragma once

#include <string>

namespace pwr::host {

// The fake device root of a host build: a directory that stands for "/" of the device. Empty
// means the host's own file system. Starts from the environment variable PWR_DEVICE_ROOT.
std::string deviceRoot();
void setDeviceRoot(const std::string& root);

}  // namespace pwr::host
