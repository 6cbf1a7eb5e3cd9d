#include "platform/NumberReader.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/DevicePath.h"
#include "tests/support/DeviceTree.h"

namespace {

using U32 = std::vector<uint32_t>;
using I64 = std::vector<int64_t>;

constexpr char kNode[] = "/sys/class/grax/grax-3d0/gpu_available_frequencies";

// Every row is read by the reader and by the sampling scanner, which walks the same pieces in
// place; the two must agree.
class NumberReader : public ::testing::Test {
  protected:
    std::optional<U32> read32(const std::string& content) {
        tree.write(kNode, content);
        const auto values = readNumbersFromFile(node);
        I64 scanned;
        const bool ok = pwr::forEachNumberInFile(node, pwr::NumberWidth::kUint32, text,
                                                 [&](int64_t v) { scanned.push_back(v); });
        EXPECT_EQ(ok, values.has_value()) << ::testing::PrintToString(content);
        if (ok && values) {
            EXPECT_EQ(scanned, I64(values->begin(), values->end()));
        }
        return values;
    }
    std::optional<I64> read64(const std::string& content) {
        tree.write(kNode, content);
        const auto values = readNumbersFromFile_Int64(node);
        I64 scanned;
        const bool ok = pwr::readNumbersInto(node, text, scanned);
        EXPECT_EQ(ok, values.has_value()) << ::testing::PrintToString(content);
        if (ok && values) {
            EXPECT_EQ(scanned, *values);
        }
        return values;
    }

    pwr::test::DeviceTree tree;
    const std::string node = pwr::devicePath(kNode);  // under the tree's root
    std::string text;  // reused between rows, as a sampling caller does
};

// A node's content and what each reader makes of it: the numbers in file order, or nothing when
// one piece is not a number of the reader's width. Pieces are split at blanks and line feeds; other
// blank characters may open a piece but not end one; hex takes either prefix case, and there is
// no octal.
TEST_F(NumberReader, ReadsEveryPieceOrNothing) {
    using O32 = std::optional<U32>;
    using O64 = std::optional<I64>;
    const struct {
        const char* content;
        O32 u32;
        O64 i64;
    } cases[] = {
            {"300000000 200000000\n100000000\n", U32{300000000, 200000000, 100000000},
             I64{300000000, 200000000, 100000000}},
            {"1\t2  3\n\n4", U32{1, 2, 3, 4}, I64{1, 2, 3, 4}},
            {"0x10 0XfF 010", U32{16, 255, 10}, I64{16, 255, 10}},
            {"0x7fffffffffffffff", std::nullopt, I64{INT64_MAX}},
            {"\r7 \v\f8", U32{7, 8}, I64{7, 8}},
            {"", U32{}, I64{}},
            {" \n\t\n", U32{}, I64{}},
            {"1 2 7abc", std::nullopt, std::nullopt},
            {"1,2", std::nullopt, std::nullopt},
            {"0x", std::nullopt, std::nullopt},
            {"7\r", std::nullopt, std::nullopt},  // a blank after the number is trailing garbage
            {"\r", std::nullopt, std::nullopt},   // a piece of blanks holds no number
            {"-1 +2", std::nullopt, I64{-1, 2}},
            {"\r-0", std::nullopt, I64{0}},
            {"+5", U32{5}, I64{5}},
            {"4294967295", U32{UINT32_MAX}, I64{4294967295LL}},
            {"4294967296", std::nullopt, I64{4294967296LL}},
            {"18446744073709551616", std::nullopt, std::nullopt},
            {"9223372036854775807 -9223372036854775808", std::nullopt, I64{INT64_MAX, INT64_MIN}},
            {"-9223372036854775809", std::nullopt, std::nullopt},
            {"-0x10", std::nullopt, std::nullopt},  // a signed hex piece is read in base 10
    };
    for (const auto& c : cases) {
        EXPECT_EQ(read32(c.content), c.u32) << ::testing::PrintToString(c.content);
        EXPECT_EQ(read64(c.content), c.i64) << ::testing::PrintToString(c.content);
    }
}

TEST_F(NumberReader, UnreadableNodesGiveNoValue) {
    const std::string absent = pwr::devicePath("/sys/class/grax/grax-3d0/absent");
    EXPECT_EQ(readNumbersFromFile(absent), std::nullopt);
    EXPECT_EQ(readNumbersFromFile_Int64(absent), std::nullopt);
    tree.mkdirs("/sys/class/grax/grax-3d0/directory");
    EXPECT_EQ(readNumbersFromFile(pwr::devicePath("/sys/class/grax/grax-3d0/directory")),
              std::nullopt);
}

TEST_F(NumberReader, DoesNotFollowSymbolicLinks) {
    tree.write(kNode, "5\n");
    const std::string link = tree.hostPath("/sys/class/grax/grax-3d0/link");
    ASSERT_EQ(symlink(tree.hostPath(kNode).c_str(), link.c_str()), 0) << strerror(errno);
    EXPECT_EQ(readNumbersFromFile(link), std::nullopt);
    EXPECT_EQ(readNumbersFromFile_Int64(link), std::nullopt);
    EXPECT_EQ(readNumbersFromFile(tree.hostPath(kNode)), (U32{5}));
}

TEST_F(NumberReader, ReadsNodesLargerThanOnePage) {
    // Pieces straddle the page boundary; the last one has no final separator.
    std::string content;
    U32 expected;
    for (uint32_t i = 0; content.size() < 3 * 4096; ++i) {
        content += std::to_string(1000000 + i) + (i % 7 == 0 ? "\n" : " ");
        expected.push_back(1000000 + i);
    }
    content += "42";
    expected.push_back(42);
    EXPECT_EQ(read32(content), expected);

    content += " bad";
    EXPECT_EQ(read32(content), std::nullopt);
}

TEST_F(NumberReader, SampledReadsReuseTheirStorage) {
    tree.write(kNode, "1 2 3 4 5 6 7 8");
    std::vector<int64_t> out;
    ASSERT_TRUE(pwr::readNumbersInto(node, text, out));
    EXPECT_EQ(out, (I64{1, 2, 3, 4, 5, 6, 7, 8}));
    const int64_t* storage = out.data();
    const char* textStorage = text.data();

    tree.write(kNode, "-9 10");
    ASSERT_TRUE(pwr::readNumbersInto(node, text, out));
    EXPECT_EQ(out, (I64{-9, 10}));
    EXPECT_EQ(out.data(), storage);
    EXPECT_EQ(text.data(), textStorage);

    // The scan stops at the first bad piece.
    tree.write(kNode, "1 2 bad 4");
    std::vector<int64_t> seen;
    EXPECT_FALSE(pwr::forEachNumberInFile(node, pwr::NumberWidth::kUint32, text,
                                          [&](int64_t v) { seen.push_back(v); }));
    EXPECT_EQ(seen, (I64{1, 2}));
}

}  // namespace
