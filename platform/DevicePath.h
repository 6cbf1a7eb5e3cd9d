#pragma once

#include <string>

#ifndef __ANDROID__
#include "platform/hostshim/DeviceRoot.h"
#endif

namespace pwr {

// The one place where an absolute device path (sysfs, /proc, /dev, /data/vendor/pwr) becomes
// the path that is opened. On a device it is the path itself; on a host build it is placed under
// the fake device root, if one is set, so tests and tools run against trees they build.
#ifdef __ANDROID__
inline std::string devicePath(const std::string& path) {
    return path;
}
#else
inline std::string devicePath(const std::string& path) {
    return host::deviceRoot() + path;
}
#endif

}  // namespace pwr
