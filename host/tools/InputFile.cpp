#include "host/tools/InputFile.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
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

bool checkNoNul(std::string_view text, const std::string& name, std::string* error) {
    const size_t at = text.find('\0');
    if (at == std::string_view::npos) return true;
    const auto line = 1 + std::count(text.begin(), text.begin() + at, '\n');
    *error = name + ":" + std::to_string(line) +
             ": holds a NUL character, which would cut the text short there";
    return false;
}

}  // namespace pwr::tools
