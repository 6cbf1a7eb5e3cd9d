#pragma once

#include <android/log.h>

namespace pwr {

// Every message of the library goes to the Android log at error priority under this tag,
// informational ones included, so that one logcat filter shows all of them.
inline constexpr char kLogTag[] = "ANDR-PWR-OPT";

// Module words that open each line.
inline constexpr char kModFeature[] = "PSMPOWEROPT";
inline constexpr char kModPmdb[] = "PMDB";
inline constexpr char kModClassifier[] = "PowerAppClassifier";
inline constexpr char kModHelper[] = "PowerHelper";

}  // namespace pwr

// Writes one line "<module>: <function>() <line>: <message>". The line number is a fixed
// call-site number that log readers and tests key on, not __LINE__.
#define PWR_LOG(module, func, line, fmt, ...)                                                     \
    __android_log_print(ANDROID_LOG_ERROR, ::pwr::kLogTag, "%s: %s() %d: " fmt, (module), (func), \
                        (line), ##__VA_ARGS__)
