#pragma once

#include <string>

namespace pwr::tools {

// Makes a directory the fake device root of the process while alive (host builds open every
// device path under it), and puts the previous root back afterwards.
class DeviceRootSession {
  public:
    DeviceRootSession() = default;
    ~DeviceRootSession();
    DeviceRootSession(const DeviceRootSession&) = delete;
    DeviceRootSession& operator=(const DeviceRootSession&) = delete;

    // Uses `root` (created if missing, kept afterwards), or with an empty `root` a fresh
    // temporary directory named after `tool` ($TMPDIR, else /dev/shm, else the system's
    // temporary folder), removed afterwards. False with `error` set when
    // the directory cannot be made.
    bool open(const std::string& root, const std::string& tool, std::string* error);

    const std::string& root() const { return mRoot; }

  private:
    std::string mPrevious;
    std::string mRoot;
    bool mTemporary = false;
    bool mActive = false;
};

}  // namespace pwr::tools
