#include "host/tools/InputFile.h"

#include <errno.h>
#include <unistd.h>

#include <cstring>

#include <android-base/file.h>

namespace pwr::tools {

bool readInputFile(const std::string& path, std::string* content, std::string* error) {
    const bool ok = path == kStandardInput
                            ? android::base::ReadFdToString(STDIN_FILENO, content)
                            : android::base::ReadFileToString(path, content,
                                                              /*follow_symlinks=*/true);
    if (!ok) {
        *error = (path == kStandardInput ? "standard input" : path) +
                 ": cannot read: " + strerror(errno);
    }
    return ok;
}

}  // namespace pwr::tools
