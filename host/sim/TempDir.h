#pragma once

#include <string>

namespace pwr::sim {

// A fresh temporary folder ($TMPDIR, else /tmp) removed with everything in it when this goes.
class TempDir {
  public:
    TempDir() = default;
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    // Makes the folder, named after `tool`. False with `error` set when it cannot be made.
    bool create(const std::string& tool, std::string* error);
    const std::string& path() const { return mPath; }

  private:
    std::string mPath;
};

// Makes `dir` (and its parents) if missing and checks that a file can be written in it, so that
// a long run does not fail at its end. False with `error` naming the folder.
bool makeWritableFolder(const std::string& dir, std::string* error);

}  // namespace pwr::sim
