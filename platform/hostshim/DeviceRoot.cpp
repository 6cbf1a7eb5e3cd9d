#include "platform/hostshim/DeviceRoot.h"

#include <cstdlib>
#include <mutex>

namespace pwr::host {
namespace {

std::mutex& rootMutex() {
    static std::mutex mutex;
    return mutex;
}

// Guarded by rootMutex(). Initialised from the environment on first use so that tools and child
// processes inherit the root without extra plumbing.
std::string& rootLocked() {
    static std::string root = [] {
        const char* env = getenv("PWR_DEVICE_ROOT");
        return std::string(env != nullptr ? env : "");
    }();
    return root;
}

}  // namespace

std::string deviceRoot() {
    std::lock_guard<std::mutex> lock(rootMutex());
    return rootLocked();
}

void setDeviceRoot(const std::string& root) {
    std::string trimmed = root;
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
    std::lock_guard<std::mutex> lock(rootMutex());
    rootLocked() = trimmed;
}

}  // namespace pwr::host
