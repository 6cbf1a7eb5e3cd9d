#pragma once

// Readers for kernel nodes that hold a list of numbers separated by blanks, tabs and newlines
// ("300000000 200000000\n"). Paths are opened as given: callers pass device paths built with
// pwr::devicePath. Symbolic links are not followed.
//
// A piece may start with white space (the characters 9 to 13 that are not separators), is read
// in base 16 when it starts with "0x" or "0X" and in base 10 otherwise, and must be a number and
// nothing else: one bad piece fails the whole read.

#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

// The unsigned 32-bit numbers of the node in file order; no value when the node cannot be read
// or any piece is not a number, is negative or is above UINT32_MAX. A node without numbers
// gives an empty list.
std::optional<std::vector<uint32_t>> readNumbersFromFile(const std::string& path);

// The signed 64-bit numbers of the node in file order; a leading sign is accepted. No value when
// the node cannot be read or any piece is not a number or out of range.
std::optional<std::vector<int64_t>> readNumbersFromFile_Int64(const std::string& path);

namespace pwr {

enum class NumberWidth { kUint32, kInt64 };

// The characters that separate the pieces of a node.
inline constexpr char kNumberSeparators[] = " \n\t";

// Reads one piece (up to its NUL) as a number of `width` by the rules above. False when it is
// not one; `value` is then untouched.
bool parseNumber(const char* piece, NumberWidth width, int64_t* value);

// The readers' rules for callers that sample a node periodically and must not allocate: reads
// the node into `text`, whose storage is reused (nothing is allocated once it has held the
// node), and hands each number, in file order, to sink(context, value). Returns false on the
// readers' failures; the sink may then have seen some values already, which the caller discards.
bool scanNumbersInFile(const std::string& path, NumberWidth width, std::string& text,
                       void (*sink)(void* context, int64_t value), void* context);

// scanNumbersInFile with any callable `visit(int64_t)` as the sink.
template <typename Visit>
bool forEachNumberInFile(const std::string& path, NumberWidth width, std::string& text,
                         Visit&& visit) {
    using V = std::remove_reference_t<Visit>;
    return scanNumbersInFile(
            path, width, text,
            [](void* context, int64_t value) { (*static_cast<V*>(context))(value); }, &visit);
}

// Reads the signed 64-bit numbers of a node into `out`, which is cleared first and keeps its
// capacity, through `text` as scanNumbersInFile does: a caller that keeps both between reads
// allocates only while they grow. False on the failures of readNumbersFromFile_Int64; `out`
// then holds no meaningful values.
bool readNumbersInto(const std::string& path, std::string& text, std::vector<int64_t>& out);

}  // namespace pwr
