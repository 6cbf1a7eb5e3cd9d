// readNumbersFromFile and readNumbersFromFile_Int64 on arbitrary node contents. Beyond never
// crashing: the sampling scanner agrees with the 64-bit reader (embedded NULs included);
// whatever the 32-bit reader accepts, the 64-bit reader accepts with the same values;
// and the values either reader returns come back unchanged when written out in decimal, one a
// line, and read again.

#include <cstdint>
#include <string>
#include <vector>

#include <android-base/file.h>

#include "fuzz/FuzzSupport.h"
#include "platform/NumberReader.h"

namespace {

std::string gNode;

void writeNode(const std::string& content) {
    pwr::fuzz::check(android::base::WriteStringToFile(content, gNode), "write the node");
}

template <typename T>
std::string decimalLines(const std::vector<T>& values) {
    std::string text;
    for (T value : values) text += std::to_string(value) + "\n";
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    gNode = pwr::fuzz::deviceRoot() + "/node";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    writeNode(std::string(reinterpret_cast<const char*>(data), size));
    const auto narrow = readNumbersFromFile(gNode);
    const auto wide = readNumbersFromFile_Int64(gNode);
    std::string text;
    std::vector<int64_t> scanned;
    const bool scannedOk = pwr::readNumbersInto(gNode, text, scanned);
    pwr::fuzz::check(scannedOk == wide.has_value() && (!scannedOk || scanned == *wide),
                     "the sampling scanner reads what the 64-bit reader reads");
    if (narrow) {
        pwr::fuzz::check(wide.has_value(), "the 64-bit reader accepts what the 32-bit one does");
        pwr::fuzz::check(wide->size() == narrow->size(), "both readers find as many numbers");
        for (size_t i = 0; i < narrow->size(); ++i) {
            pwr::fuzz::check((*wide)[i] == static_cast<int64_t>((*narrow)[i]),
                             "both readers read the same values");
        }
        writeNode(decimalLines(*narrow));
        const auto again = readNumbersFromFile(gNode);
        pwr::fuzz::check(again.has_value() && *again == *narrow, "32-bit values read back");
    }
    if (wide) {
        writeNode(decimalLines(*wide));
        const auto again = readNumbersFromFile_Int64(gNode);
        pwr::fuzz::check(again.has_value() && *again == *wide, "64-bit values read back");
    }
    return 0;
}
