#include "host/tools/TimelineText.h"

#include <climits>
#include <cstring>

#include <android-base/stringprintf.h>

namespace pwr::tools {
namespace {

using android::base::StringPrintf;

constexpr char kPluginLogTag[] = "ANDR-PWR-OPT";

}  // namespace

std::string formatPerfList(const std::vector<int>& list) {
    std::string text = "{";
    for (size_t i = 0; i < list.size(); i += 2) {
        if (i > 0) text += ", ";
        text += StringPrintf("0x%08X", static_cast<unsigned>(list[i]));
        if (i + 1 < list.size()) text += StringPrintf(": %d", list[i + 1]);
    }
    return text + "}";
}

std::string formatLockDuration(int duration) {
    return duration == INT_MAX ? "INT_MAX" : StringPrintf("%d ms", duration);
}

std::string pluginLogText(const __android_logger_data* data, const char* message) {
    std::string text = message != nullptr ? message : "";
    while (!text.empty() && text.back() == '\n') text.pop_back();
    for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 2)) {
        text.replace(at, 1, "\\n");
    }
    const char* tag = data != nullptr && data->tag != nullptr ? data->tag : "";
    if (strcmp(tag, kPluginLogTag) != 0) text = std::string("[") + tag + "] " + text;
    return text;
}

}  // namespace pwr::tools
