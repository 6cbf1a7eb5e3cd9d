#pragma once

#include <string>
#include <vector>

namespace pwr::test {

struct ToolRun {
    int status = -1;  // exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;
};

// Runs a tool built by this project as an engineer does: `argv[0]` is its path, run under
// $PWR_TEST_EMULATOR when the tests run under an emulator (cross builds). `pathFirst`, when not
// empty, is put first on its PATH. Standard output and error are kept in files under `dir`.
ToolRun runTool(const std::vector<std::string>& argv, const std::string& dir,
                const std::string& pathFirst = "");

}  // namespace pwr::test
