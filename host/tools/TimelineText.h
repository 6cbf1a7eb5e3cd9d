#pragma once

#include <android/log.h>

#include <string>
#include <vector>

namespace pwr::tools {

// "{0x40C00000: 1, 0x40804000: 1500}": a perf-lock list with opcodes in hex and values in
// decimal; an odd trailing element is shown alone.
std::string formatPerfList(const std::vector<int>& list);

// A lock duration: "INT_MAX" for a lock held until released, else "<n> ms".
std::string formatLockDuration(int duration);

// One line of the Android log as a timeline shows it: trailing line feeds (some of the feature's
// formats end in "\n") dropped, inner ones escaped, and lines of other tags than the plug-in's
// prefixed with the tag in brackets.
std::string pluginLogText(const __android_logger_data* data, const char* message);

}  // namespace pwr::tools
