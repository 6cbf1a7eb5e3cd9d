#include "host/sim/TempDir.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include <android-base/unique_fd.h>

namespace pwr::sim {

TempDir::~TempDir() {
    if (mPath.empty()) return;
    std::error_code ec;
    std::filesystem::remove_all(mPath, ec);
}

bool TempDir::create(const std::string& tool, std::string* error) {
    const char* tmp = getenv("TMPDIR");
    std::string templ =
            std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/" + tool + ".XXXXXX";
    if (mkdtemp(templ.data()) == nullptr) {
        *error = "cannot make a temporary folder " + templ + ": " + strerror(errno);
        return false;
    }
    mPath = templ;
    return true;
}

bool makeWritableFolder(const std::string& dir, std::string* error) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (!std::filesystem::is_directory(dir)) {
        *error = "cannot make the output folder " + dir + (ec ? ": " + ec.message() : "");
        return false;
    }
    const std::string probe = dir + "/.pwr-sim-write-check";
    android::base::unique_fd fd(TEMP_FAILURE_RETRY(
            open(probe.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)));
    if (fd == -1) {
        *error = "cannot write in the output folder " + dir + ": " + strerror(errno);
        return false;
    }
    unlink(probe.c_str());
    return true;
}

}  // namespace pwr::sim
