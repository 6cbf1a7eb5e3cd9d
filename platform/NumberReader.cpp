#include "platform/NumberReader.h"

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>

namespace pwr {

bool parseNumber(const char* piece, NumberWidth width, int64_t* value) {
    // ParseUint and ParseInt skip leading white space, take "0x"/"0X" as base 16 and anything
    // else as base 10, and refuse trailing characters, as the readers must; ParseUint also
    // refuses a leading '-'.
    if (width == NumberWidth::kUint32) {
        uint32_t v = 0;
        if (!android::base::ParseUint(piece, &v)) return false;
        *value = v;
        return true;
    }
    return android::base::ParseInt(piece, value);
}

bool scanNumbersInFile(const std::string& path, NumberWidth width, std::string& text,
                       void (*sink)(void* context, int64_t value), void* context) {
    if (!android::base::ReadFileToString(path, &text, /*follow_symlinks=*/false)) return false;
    // The pieces Split would give, walked in place instead: Split's vector of strings would cost
    // allocations on every sample. Each piece ends where its separator stood, overwritten with
    // the NUL the parser stops at, or at the text's own terminator.
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find_first_of(kNumberSeparators, begin), text.size());
        if (end > begin) {
            if (end < text.size()) text[end] = '\0';
            int64_t value = 0;
            if (!parseNumber(text.c_str() + begin, width, &value)) return false;
            sink(context, value);
        }
        begin = end + 1;
    }
    return true;
}

bool readNumbersInto(const std::string& path, std::string& text, std::vector<int64_t>& out) {
    out.clear();
    return forEachNumberInFile(path, NumberWidth::kInt64, text,
                               [&out](int64_t value) { out.push_back(value); });
}

}  // namespace pwr

namespace {

// The two readers: the whole node, split at the separators, every non-empty piece a number.
template <typename T>
std::optional<std::vector<T>> readNumbers(const std::string& path, pwr::NumberWidth width) {
    std::string text;
    if (!android::base::ReadFileToString(path, &text, /*follow_symlinks=*/false)) {
        return std::nullopt;
    }
    std::vector<T> values;
    for (const std::string& piece : android::base::Split(text, pwr::kNumberSeparators)) {
        if (piece.empty()) continue;
        int64_t value = 0;
        if (!pwr::parseNumber(piece.c_str(), width, &value)) return std::nullopt;
        values.push_back(static_cast<T>(value));
    }
    return values;
}

}  // namespace

std::optional<std::vector<uint32_t>> readNumbersFromFile(const std::string& path) {
    return readNumbers<uint32_t>(path, pwr::NumberWidth::kUint32);
}

std::optional<std::vector<int64_t>> readNumbersFromFile_Int64(const std::string& path) {
    return readNumbers<int64_t>(path, pwr::NumberWidth::kInt64);
}
