#include "host/tools/DeviceRootSession.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "platform/hostshim/DeviceRoot.h"

namespace pwr::tools {
namespace {

// Where temporary trees go: $TMPDIR when set, else the memory-backed /dev/shm when there is one
// (a simulation rewrites its nodes thousands of times a second; no disk needs to see that),
// else the system's temporary folder.
std::string temporaryBase(std::error_code& ec) {
    const char* tmpdir = getenv("TMPDIR");
    if (tmpdir != nullptr && tmpdir[0] != '\0') return tmpdir;
    if (access("/dev/shm", W_OK | X_OK) == 0) return "/dev/shm";
    return std::filesystem::temp_directory_path(ec).string();
}

}  // namespace

bool DeviceRootSession::open(const std::string& root, const std::string& tool, std::string* error) {
    mPrevious = host::deviceRoot();
    std::error_code ec;
    if (root.empty()) {
        std::string templ = temporaryBase(ec) + "/" + tool + ".XXXXXX";
        if (ec || mkdtemp(templ.data()) == nullptr) {
            *error = "cannot create a temporary device tree in " + templ;
            return false;
        }
        mRoot = templ;
        mTemporary = true;
    } else {
        std::filesystem::create_directories(root, ec);
        if (!std::filesystem::is_directory(root)) {
            *error = "device root " + root + " is not a directory";
            return false;
        }
        mRoot = root;
    }
    host::setDeviceRoot(mRoot);
    mActive = true;
    return true;
}

DeviceRootSession::~DeviceRootSession() {
    if (!mActive) return;
    host::setDeviceRoot(mPrevious);
    if (mTemporary) {
        std::error_code ec;
        std::filesystem::remove_all(mRoot, ec);
    }
}

}  // namespace pwr::tools
