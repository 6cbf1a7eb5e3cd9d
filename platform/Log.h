#pragma once

#include <android/log.h>
#include <errno.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

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
inline bool isSimpleFormat(const char* format) {
    for (const char* p = strchr(format, '%'); p != nullptr; p = strchr(p + 2, '%')) {
        if (strchr("dxs%", p[1]) == nullptr || p[1] == '\0') return false;
    }
    return true;
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

// Writes "<module>: <function>() <line>: " followed by the printf-formatted message at error
// priority under kLogTag, exactly as __android_log_print would with the prefix in its format.
// Lines are written on the event path, so the common cases skip printf: the prefix is copied,
// and bare %d, %x and %s conversions are formatted here; vsnprintf handles everything else.
__attribute__((format(printf, 4, 5))) inline int logLine(const char* module, const char* function,
                                                         int line, const char* format, ...) {
    if (!__android_log_is_loggable(ANDROID_LOG_ERROR, kLogTag, ANDROID_LOG_VERBOSE)) {
        return -EPERM;
    }
    char buffer[logdetail::kLineMax];
    size_t used = 0;
    logdetail::append(buffer, &used, module, strlen(module));
    logdetail::append(buffer, &used, ": ", 2);
    logdetail::append(buffer, &used, function, strlen(function));
    logdetail::append(buffer, &used, "() ", 3);
    logdetail::appendInt(buffer, &used, line);
    logdetail::append(buffer, &used, ": ", 2);
    va_list args;
    va_start(args, format);
    if (logdetail::isSimpleFormat(format)) {
        logdetail::appendSimple(buffer, &used, format, args);
    } else {
        const int length = vsnprintf(buffer + used, logdetail::kLineMax - used, format, args);
        if (length > 0) {
            used += std::min(static_cast<size_t>(length), logdetail::kLineMax - 1 - used);
        }
    }
    va_end(args);
    buffer[used] = '\0';
    return __android_log_write(ANDROID_LOG_ERROR, kLogTag, buffer);
}

}  // namespace pwr

// Writes one line "<module>: <function>() <line>: <message>". The line number is a fixed
// call-site number that log readers and tests key on, not __LINE__.
#define PWR_LOG(module, func, line, fmt, ...) \
    ::pwr::logLine((module), (func), (line), fmt, ##__VA_ARGS__)
