#include "host/tools/DeviceRootSession.h"

#include <stdlib.h>

#include <filesystem>
#include <system_error>

#include "platform/hostshim/DeviceRoot.h"

namespace pwr::tools {

bool DeviceRootSession::open(const std::string& root, const std::string& tool, std::string* error) {
    mPrevious = host::deviceRoot();
    std::error_code ec;
    if (root.empty()) {
        std::string templ =
                std::filesystem::temp_directory_path(ec).string() + "/" + tool + ".XXXXXX";
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
