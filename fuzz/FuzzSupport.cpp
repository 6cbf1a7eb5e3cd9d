#include "fuzz/FuzzSupport.h"

#include <android/log.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "host/PluginHost.h"
#include "platform/hostshim/DeviceRoot.h"

namespace pwr::fuzz {

void check(bool ok, const char* what) {
    if (ok) return;
    fprintf(stderr, "invariant failed: %s\n", what);
    abort();
}

const std::string& deviceRoot() {
    static const std::string root = [] {
        std::string dir =
                (access("/dev/shm", W_OK) == 0 ? std::string("/dev/shm")
                                               : std::filesystem::temp_directory_path().string()) +
                "/pwrfuzz.XXXXXX";
        check(mkdtemp(dir.data()) != nullptr, "mkdtemp for the fake device root");
        std::filesystem::create_directories(dir + "/data/vendor/pwr");
        host::setDeviceRoot(dir);
        return dir;
    }();
    return root;
}

void clearStore() {
    const std::string dir = deviceRoot() + "/data/vendor/pwr/";
    for (const char* name : {"InputPMDB.db", "InputPMDB.db-wal", "InputPMDB.db-shm"}) {
        unlink((dir + name).c_str());
    }
}

namespace {
void dropLine(const __android_logger_data*, const char*) {}
}  // namespace

void quietLogs() {
    __android_log_set_logger(dropLine);
}

Built buildFeature(const PowerOptFeatureInfo& info) {
    Built built;
    std::string error;
    try {
        built.feature = host::PluginHost::create("PSMPowerOptFeature", info, &error);
        check(built.feature != nullptr, "the feature is registered and built");
    } catch (const std::invalid_argument&) {
        built.threw = true;
    } catch (const std::out_of_range&) {
        built.threw = true;
    }
    return built;
}

}  // namespace pwr::fuzz
