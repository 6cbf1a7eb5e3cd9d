#pragma once

#include <android/log.h>
#include <errno.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <type_traits>

namespace pwr {

// Every message of the library goes to the Android log at error priority under this tag,
// informational ones included, so that one logcat filter shows all of them.
inline constexpr char kLogTag[] = "ANDR-PWR-OPT";

// Module words that open each line.
inline constexpr char kModFeature[] = "PSMPOWEROPT";
inline constexpr char kModPmdb[] = "PMDB";
inline constexpr char kModClassifier[] = "PowerAppClassifier";
inline constexpr char kModHelper[] = "PowerHelper";

namespace logdetail {

// liblog's own limit for one formatted message (LOG_BUF_SIZE); longer lines are cut alike.
inline constexpr size_t kLineMax = 1024;

// Appends `text` to the line at `*used`, cutting it at the end of the buffer.
inline void append(char* buffer, size_t* used, const char* text, size_t length) {
    const size_t room = kLineMax - 1 - *used;
    if (length > room) length = room;
    memcpy(buffer + *used, text, length);
    *used += length;
}

inline void appendUnsigned(char* buffer, size_t* used, unsigned value, unsigned base,
                           bool negative) {
    char digits[12];
    char* end = digits + sizeof(digits);
    char* first = end;
    do {
        *--first = "0123456789abcdef"[value % base];
        value /= base;
    } while (value != 0);
    if (negative) *--first = '-';
    append(buffer, used, first, static_cast<size_t>(end - first));
}

inline void appendInt(char* buffer, size_t* used, int value) {
    // Unsigned arithmetic so that INT_MIN negates cleanly.
    const unsigned magnitude =
            value < 0 ? 0u - static_cast<unsigned>(value) : static_cast<unsigned>(value);
    appendUnsigned(buffer, used, magnitude, 10, value < 0);
}

// True when every conversion of `format` is a bare %d, %x, %s or %%, which appendSimple formats
// exactly as printf does; anything else (flags, width, precision, length, other conversions)
// goes to vsnprintf.
constexpr bool isSimpleFormat(const char* format) {
    for (const char* p = format; *p != '\0'; ++p) {
        if (*p != '%') continue;
        const char c = p[1];
        if (c != 'd' && c != 'x' && c != 's' && c != '%') return false;
        ++p;
    }
    return true;
}

// What a printf conversion reads, and what an argument passes.
enum class ArgKind { Int, Long, Double, Text, Other };

template <typename T>
constexpr ArgKind argKind() {
    using U = std::decay_t<T>;
    if constexpr (std::is_same_v<U, bool> || std::is_same_v<U, char> ||
                  std::is_same_v<U, signed char> || std::is_same_v<U, unsigned char> ||
                  std::is_same_v<U, short> || std::is_same_v<U, unsigned short> ||
                  std::is_same_v<U, int> || std::is_same_v<U, unsigned>) {
        return ArgKind::Int;
    } else if constexpr (std::is_same_v<U, long> || std::is_same_v<U, unsigned long>) {
        return ArgKind::Long;
    } else if constexpr (std::is_same_v<U, double> || std::is_same_v<U, float>) {
        return ArgKind::Double;
    } else if constexpr (std::is_same_v<U, const char*> || std::is_same_v<U, char*>) {
        return ArgKind::Text;
    } else {
        return ArgKind::Other;
    }
}

// True when the arguments fit the conversions of `format` one to one, as -Wformat would check
// for a literal format (flags, width and precision digits are skipped).
template <typename... Args>
constexpr bool formatAccepts(const char* format) {
    constexpr ArgKind kinds[] = {argKind<Args>()..., ArgKind::Other};
    size_t used = 0;
    for (const char* p = format; *p != '\0'; ++p) {
        if (*p != '%') continue;
        ++p;
        if (*p == '%') continue;
        while (*p == '-' || *p == '+' || *p == ' ' || *p == '#' || *p == '.' ||
               (*p >= '0' && *p <= '9')) {
            ++p;
        }
        bool isLong = false;
        if (*p == 'l') {
            isLong = true;
            ++p;
        }
        ArgKind wanted = ArgKind::Other;
        if (*p == 'd' || *p == 'i' || *p == 'u' || *p == 'x' || *p == 'X' || *p == 'c') {
            wanted = isLong ? ArgKind::Long : ArgKind::Int;
        } else if (*p == 'f' || *p == 'g' || *p == 'e') {
            wanted = ArgKind::Double;
        } else if (*p == 's') {
            wanted = ArgKind::Text;
        }
        if (wanted == ArgKind::Other || used >= sizeof...(Args) || kinds[used] != wanted) {
            return false;
        }
        ++used;
    }
    return used == sizeof...(Args);
}

inline void appendSimple(char* buffer, size_t* used, const char* format, va_list args) {
    for (const char* p = format;;) {
        const char* percent = strchr(p, '%');
        if (percent == nullptr) {
            append(buffer, used, p, strlen(p));
            return;
        }
        append(buffer, used, p, static_cast<size_t>(percent - p));
        switch (percent[1]) {
            case 'd':
                appendInt(buffer, used, va_arg(args, int));
                break;
            case 'x':
                appendUnsigned(buffer, used, va_arg(args, unsigned), 16, false);
                break;
            case 's': {
                const char* text = va_arg(args, const char*);
                if (text == nullptr) text = "(null)";
                append(buffer, used, text, strlen(text));
                break;
            }
            default:
                append(buffer, used, "%", 1);
                break;
        }
        p = percent + 2;
    }
}

}  // namespace logdetail

// One place in the code that writes a log line: the module word, the function word and the fixed
// line number of its prefix, and the printf format of the message. Log readers and tests key on
// these, so each lives in one named constant that the code, the tests and the tools share.
struct LogSite {
    const char* module;
    const char* function;
    int line;
    const char* format;
    bool simple;  // the format takes the fast path (see logdetail::isSimpleFormat)

    constexpr LogSite(const char* moduleWord, const char* functionWord, int lineNumber,
                      const char* messageFormat)
        : module(moduleWord),
          function(functionWord),
          line(lineNumber),
          format(messageFormat),
          simple(logdetail::isSimpleFormat(messageFormat)) {}
};

// Writes "<module>: <function>() <line>: " followed by the printf-formatted message at error
// priority under kLogTag, exactly as __android_log_print would with the prefix in its format.
// Lines are written on the event path, so the common cases skip printf: the prefix is copied,
// and bare %d, %x and %s conversions are formatted here; vsnprintf handles everything else.
// "<module>: <function>() <line>: ", the text every line of `site` starts with.
inline std::string linePrefix(const LogSite& site) {
    return std::string(site.module) + ": " + site.function + "() " + std::to_string(site.line) +
           ": ";
}

inline int vlogLine(const LogSite& site, va_list args) {
    if (!__android_log_is_loggable(ANDROID_LOG_ERROR, kLogTag, ANDROID_LOG_VERBOSE)) {
        return -EPERM;
    }
    char buffer[logdetail::kLineMax];
    size_t used = 0;
    logdetail::append(buffer, &used, site.module, strlen(site.module));
    logdetail::append(buffer, &used, ": ", 2);
    logdetail::append(buffer, &used, site.function, strlen(site.function));
    logdetail::append(buffer, &used, "() ", 3);
    logdetail::appendInt(buffer, &used, site.line);
    logdetail::append(buffer, &used, ": ", 2);
    if (site.simple) {
        logdetail::appendSimple(buffer, &used, site.format, args);
    } else {
        const int length = vsnprintf(buffer + used, logdetail::kLineMax - used, site.format, args);
        if (length > 0) {
            used += std::min(static_cast<size_t>(length), logdetail::kLineMax - 1 - used);
        }
    }
    buffer[used] = '\0';
    return __android_log_write(ANDROID_LOG_ERROR, kLogTag, buffer);
}

__attribute__((format(printf, 4, 5))) inline int logLine(const char* module, const char* function,
                                                         int line, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = vlogLine(LogSite(module, function, line, format), args);
    va_end(args);
    return result;
}

inline int logSiteLine(const LogSite* site, ...) {
    va_list args;
    va_start(args, site);
    const int result = vlogLine(*site, args);
    va_end(args);
    return result;
}

// Writes the line of a named site; the arguments are checked against the site's format at
// compile time.
template <const LogSite& Site, typename... Args>
inline int logAt(Args... args) {
    static_assert(logdetail::formatAccepts<Args...>(Site.format),
                  "the arguments do not match the log site's format");
    return logSiteLine(&Site, args...);
}

}  // namespace pwr

// Writes one line "<module>: <function>() <line>: <message>". The line number is a fixed
// call-site number that log readers and tests key on, not __LINE__.
#define PWR_LOG(module, func, line, fmt, ...) \
    ::pwr::logLine((module), (func), (line), fmt, ##__VA_ARGS__)

// Writes the line of a named LogSite constant.
#define PWR_LOG_AT(site, ...) ::pwr::logAt<site>(__VA_ARGS__)
