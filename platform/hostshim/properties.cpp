// Host stand-in for the platform's property service.
//
// Without a fake device root the properties live in this process's memory. With one, each
// property is a file under <root>/data/property/, replaced atomically on every set, because on
// a device the property service outlives the power service: a restarted or killed process must
// find the values that were set before.

#include "platform/hostshim/cutils/properties.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include <android-base/file.h>

#include "platform/hostshim/DeviceRoot.h"
#include "platform/hostshim/PropertyObserver.h"

namespace {

std::mutex gPropMutex;
std::map<std::string, std::string> gMemoryProps;  // guarded by gPropMutex
pwr::host::PropertyObserver gObserver;            // guarded by gPropMutex

bool validKey(const char* key) {
    return key != nullptr && key[0] != '\0' && strchr(key, '/') == nullptr;
}

std::string propertyDir(const std::string& root) {
    return root + "/data/property";
}

bool readStored(const char* key, std::string* out) {
    const std::string root = pwr::host::deviceRoot();
    if (root.empty()) {
        std::lock_guard<std::mutex> lock(gPropMutex);
        auto it = gMemoryProps.find(key);
        if (it == gMemoryProps.end()) return false;
        *out = it->second;
        return true;
    }
    return android::base::ReadFileToString(propertyDir(root) + "/" + key, out);
}

int writeStored(const char* key, const char* value) {
    const std::string root = pwr::host::deviceRoot();
    if (root.empty()) {
        std::lock_guard<std::mutex> lock(gPropMutex);
        gMemoryProps[key] = value;
        return 0;
    }
    const std::string dir = propertyDir(root);
    if (mkdir((root + "/data").c_str(), 0755) != 0 && errno != EEXIST) return -errno;
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return -errno;
    const std::string path = dir + "/" + key;
    const std::string tmp = path + ".tmp." + std::to_string(getpid());
    if (!android::base::WriteStringToFile(value, tmp)) return -EIO;
    if (rename(tmp.c_str(), path.c_str()) != 0) {
        int err = errno;
        unlink(tmp.c_str());
        return -err;
    }
    return 0;
}

}  // namespace

namespace pwr::host {

void setPropertyObserver(PropertyObserver observer) {
    std::lock_guard<std::mutex> lock(gPropMutex);
    gObserver = std::move(observer);
}

}  // namespace pwr::host

extern "C" int property_get(const char* key, char* value, const char* default_value) {
    std::string stored;
    const char* src = nullptr;
    // An empty value answers with the default, as the platform's property_get does: a property
    // set to "" reads as unset.
    if (validKey(key) && readStored(key, &stored) && !stored.empty()) {
        src = stored.c_str();
    } else if (default_value != nullptr) {
        src = default_value;
    }
    if (src == nullptr) {
        value[0] = '\0';
        return 0;
    }
    size_t len = strnlen(src, PROPERTY_VALUE_MAX - 1);
    memcpy(value, src, len);
    value[len] = '\0';
    return static_cast<int>(len);
}

namespace {

int setStored(const char* key, const char* value) {
    if (!validKey(key)) return -EINVAL;
    if (strlen(value) >= PROPERTY_VALUE_MAX) return -EINVAL;
    return writeStored(key, value);
}

}  // namespace

extern "C" int property_set(const char* key, const char* value) {
    if (value == nullptr) value = "";
    const int result = setStored(key, value);
    pwr::host::PropertyObserver observer;
    {
        std::lock_guard<std::mutex> lock(gPropMutex);
        observer = gObserver;
    }
    // Outside the lock, so that the observer may read properties.
    if (observer) observer(key != nullptr ? key : "", value, result);
    return result;
}

extern "C" int8_t property_get_bool(const char* key, int8_t default_value) {
    char buf[PROPERTY_VALUE_MAX] = {};
    int len = property_get(key, buf, "");
    if (len == 1) {
        if (buf[0] == '0' || buf[0] == 'n') return 0;
        if (buf[0] == '1' || buf[0] == 'y') return 1;
    } else if (len > 1) {
        if (!strcmp(buf, "no") || !strcmp(buf, "false") || !strcmp(buf, "off")) return 0;
        if (!strcmp(buf, "yes") || !strcmp(buf, "true") || !strcmp(buf, "on")) return 1;
    }
    return default_value;
}
