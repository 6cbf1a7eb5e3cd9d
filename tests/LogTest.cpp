// PWR_LOG writes exactly what __android_log_print would with the prefix in its format.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <iterator>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "feature/LogSites.h"
#include "platform/Log.h"
#include "platform/PlatformLogSites.h"
#include "tests/support/LogCapture.h"

namespace {

using pwr::test::LogCapture;

// The line printf makes of the same call, cut at liblog's limit for one message.
template <typename... Args>
std::string printfLine(const char* module, const char* function, int line, const char* format,
                       Args... args) {
    const std::string full = "%s: %s() %d: " + std::string(format);
    return android::base::StringPrintf(full.c_str(), module, function, line, args...)
            .substr(0, 1023);
}

// A null text the compiler cannot see through.
const char* volatile gNullText = nullptr;

TEST(Log, Line_PrefixTagAndPriority) {
    LogCapture log;
    PWR_LOG("MOD", "fn", 7, "text");
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(lines[0].tag, "ANDR-PWR-OPT");
    EXPECT_EQ(lines[0].message, "MOD: fn() 7: text");
}

// Each message compared with printf's rendering, the fast conversions and the fallback alike.
#define EXPECT_LOGGED_AS_PRINTF(format, ...)                                               \
    do {                                                                                   \
        LogCapture log;                                                                    \
        PWR_LOG("MOD", "fn", -12, format, ##__VA_ARGS__);                                  \
        ASSERT_EQ(log.messages().size(), 1u);                                              \
        EXPECT_EQ(log.messages()[0], printfLine("MOD", "fn", -12, format, ##__VA_ARGS__)); \
    } while (0)

TEST(Log, Message_FormattedLikePrintf) {
    EXPECT_LOGGED_AS_PRINTF("plain text, no conversion\n");
    EXPECT_LOGGED_AS_PRINTF("100%% sure");
    EXPECT_LOGGED_AS_PRINTF("Stop hint %d for: %s", 4098, "com.example.game/.Main");
    EXPECT_LOGGED_AS_PRINTF("%d %d %d %d", 0, -1, INT_MAX, INT_MIN);
    EXPECT_LOGGED_AS_PRINTF("hex %x %x %x", 0x81u, 0u, 0xFFFFFFFFu);
    EXPECT_LOGGED_AS_PRINTF("%s|%s|", "", gNullText);
    EXPECT_LOGGED_AS_PRINTF("Avg Current: %.2f", 12.345);
    EXPECT_LOGGED_AS_PRINTF("Prop size %lu, %5d, %-3s|", 7ul, 42, "a");
}

TEST(Log, LongMessage_CutLikeLiblog) {
    const std::string longText(3000, 'x');
    EXPECT_LOGGED_AS_PRINTF("%s", longText.c_str());
    EXPECT_LOGGED_AS_PRINTF("%s %.1f", longText.c_str(), 1.5);
}

}  // namespace

// Every log site of the feature and of the platform modules, written out, against its golden
// list: a site whose words, number or format changed shows up as a diff there. Sites name
// distinct lines.
TEST(LogSites, MatchTheGoldenLists) {
    const struct {
        const char* golden;
        std::vector<const pwr::LogSite*> sites;
    } lists[] = {
            {"feature-log-sites.txt", {std::begin(pwr::site::kAll), std::end(pwr::site::kAll)}},
            {"platform-log-sites.txt",
             {std::begin(pwr::site::kPlatformAll), std::end(pwr::site::kPlatformAll)}},
    };
    std::set<std::tuple<std::string, std::string, int>> places;
    for (const auto& list : lists) {
        std::string golden;
        ASSERT_TRUE(android::base::ReadFileToString(
                std::string(PWR_SOURCE_DIR) + "/tests/golden/" + list.golden, &golden));
        std::string written;
        for (const pwr::LogSite* site : list.sites) {
            written += pwr::linePrefix(*site) +
                       android::base::StringReplace(site->format, "\n", "\\n", true) + "\n";
            EXPECT_TRUE(places.emplace(site->module, site->function, site->line).second)
                    << site->function << " " << site->line;
        }
        EXPECT_EQ(written, golden) << list.golden;
    }
}
