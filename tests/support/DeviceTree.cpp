#include "tests/support/DeviceTree.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include <android-base/file.h>

#include "platform/hostshim/DeviceRoot.h"

namespace pwr::test {

DeviceTree::DeviceTree() {
    std::string templ = std::filesystem::temp_directory_path().string() + "/pwrtree.XXXXXX";
    if (mkdtemp(templ.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    mRoot = templ;
    host::setDeviceRoot(mRoot);
}

DeviceTree::~DeviceTree() {
    host::setDeviceRoot("");
    std::error_code ec;
    std::filesystem::remove_all(mRoot, ec);
}

void DeviceTree::mkdirs(const std::string& devicePath) const {
    std::filesystem::create_directories(hostPath(devicePath));
}

void DeviceTree::write(const std::string& devicePath, const std::string& content) const {
    const std::filesystem::path path = hostPath(devicePath);
    std::filesystem::create_directories(path.parent_path());
    const std::string tmp = path.string() + ".tmp";
    if (!android::base::WriteStringToFile(content, tmp) || rename(tmp.c_str(), path.c_str()) != 0) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

void DeviceTree::set(const std::string& devicePath, const char* content) const {
    content != nullptr ? write(devicePath, content) : remove(devicePath);
}

std::string DeviceTree::read(const std::string& devicePath) const {
    std::string content;
    android::base::ReadFileToString(hostPath(devicePath), &content);
    return content;
}

void DeviceTree::remove(const std::string& devicePath) const {
    std::error_code ec;
    std::filesystem::remove_all(hostPath(devicePath), ec);
}

}  // namespace pwr::test
