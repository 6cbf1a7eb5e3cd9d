#include "platform/NumberReader.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include <android-base/macros.h>
#include <android-base/unique_fd.h>

namespace pwr {
namespace {

// Sysfs nodes never hold more than one page; anything larger moves to the heap.
constexpr size_t kStackBytes = 4096;

bool isSeparator(char c) {
    return c == ' ' || c == '\n' || c == '\t';
}

// White space that strtoull would also skip: space and the characters 9 to 13.
bool isBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Reads everything from `fd` into `buffer` (grown as needed, one spare byte kept after the text
// for the parser's terminator). `length` receives the text's length.
bool readRest(int fd, std::string& buffer, size_t& length) {
    while (true) {
        if (buffer.size() - length < 2) buffer.resize(buffer.size() * 2);
        const ssize_t n = TEMP_FAILURE_RETRY(read(fd, &buffer[length], buffer.size() - length - 1));
        if (n < 0) return false;
        if (n == 0) return true;
        length += static_cast<size_t>(n);
    }
}

// Parses one piece [begin, end) in place; *end is a separator or the spare byte and is
// overwritten with the terminator strtoull/strtoll need.
bool parsePiece(char* begin, char* end, NumberWidth width, int64_t& value) {
    *end = '\0';
    char* p = begin;
    while (p < end && isBlank(*p)) ++p;
    if (width == NumberWidth::kUint32 && p < end && *p == '-') return false;
    const int base = (end - p >= 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) ? 16 : 10;
    char* parsedEnd = nullptr;
    errno = 0;
    if (width == NumberWidth::kUint32) {
        const unsigned long long v = strtoull(p, &parsedEnd, base);
        if (errno != 0 || parsedEnd == p || parsedEnd != end || v > UINT32_MAX) return false;
        value = static_cast<int64_t>(v);
    } else {
        const long long v = strtoll(p, &parsedEnd, base);
        if (errno != 0 || parsedEnd == p || parsedEnd != end) return false;
        value = v;
    }
    return true;
}

bool scanText(char* text, size_t length, NumberWidth width, void (*sink)(void*, int64_t),
              void* context) {
    char* const end = text + length;
    char* p = text;
    while (p < end) {
        if (isSeparator(*p)) {
            ++p;
            continue;
        }
        char* pieceEnd = p;
        while (pieceEnd < end && !isSeparator(*pieceEnd)) ++pieceEnd;
        int64_t value = 0;
        if (!parsePiece(p, pieceEnd, width, value)) return false;
        sink(context, value);
        p = pieceEnd + 1;
    }
    return true;
}

}  // namespace

bool scanNumbersInFile(const std::string& path, NumberWidth width,
                       void (*sink)(void* context, int64_t value), void* context) {
    android::base::unique_fd fd(
            TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW)));
    if (fd < 0) return false;

    char stackBuffer[kStackBytes + 1];
    size_t length = 0;
    while (length < kStackBytes) {
        const ssize_t n = TEMP_FAILURE_RETRY(read(fd, stackBuffer + length, kStackBytes - length));
        if (n < 0) return false;
        if (n == 0) return scanText(stackBuffer, length, width, sink, context);
        length += static_cast<size_t>(n);
    }
    std::string heapBuffer(stackBuffer, length);
    heapBuffer.resize(2 * kStackBytes);
    if (!readRest(fd, heapBuffer, length)) return false;
    return scanText(heapBuffer.data(), length, width, sink, context);
}

bool readNumbersInto(const std::string& path, std::vector<int64_t>& out) {
    out.clear();
    return forEachNumberInFile(path, NumberWidth::kInt64,
                               [&out](int64_t value) { out.push_back(value); });
}

}  // namespace pwr

std::optional<std::vector<uint32_t>> readNumbersFromFile(const std::string& path) {
    std::vector<uint32_t> values;
    const bool ok = pwr::forEachNumberInFile(path, pwr::NumberWidth::kUint32, [&values](int64_t v) {
        values.push_back(static_cast<uint32_t>(v));
    });
    if (!ok) return std::nullopt;
    return values;
}

std::optional<std::vector<int64_t>> readNumbersFromFile_Int64(const std::string& path) {
    std::vector<int64_t> values;
    if (!pwr::readNumbersInto(path, values)) return std::nullopt;
    return values;
}
