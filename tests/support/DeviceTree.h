#pragma once

#include <string>

namespace pwr::test {

// A fake device tree in a fresh temporary directory, made the device root of this process for
// the object's lifetime (and removed afterwards). Paths given to its methods are device paths,
// such as "/sys/class/grax/grax-3d0/gpuclk".
class DeviceTree {
  public:
    DeviceTree();
    ~DeviceTree();
    DeviceTree(const DeviceTree&) = delete;
    DeviceTree& operator=(const DeviceTree&) = delete;

    const std::string& root() const { return mRoot; }
    // The host path behind a device path.
    std::string hostPath(const std::string& devicePath) const { return mRoot + devicePath; }
    // Writes `content` to the node, creating its directories; replaces it atomically.
    void write(const std::string& devicePath, const std::string& content) const;
    // Writes `content`, or removes the node for nullptr.
    void set(const std::string& devicePath, const char* content) const;
    std::string read(const std::string& devicePath) const;
    void mkdirs(const std::string& devicePath) const;
    void remove(const std::string& devicePath) const;

  private:
    std::string mRoot;
};

}  // namespace pwr::test
