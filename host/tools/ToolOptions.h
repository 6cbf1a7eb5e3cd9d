#pragma once

// Helpers for the host tools' getopt_long loops. The tools pass an option string that starts with
// ':' and clear opterr, so getopt_long stays quiet and tells a missing value (':') apart from an
// unknown option ('?'); the tools then word the messages themselves.

#include <getopt.h>

#include <string>

namespace pwr::tools {

// Exit statuses every host tool shares: a command line it cannot use, and a run stopped by
// Ctrl-C or SIGTERM (128 + SIGINT, as a shell reports it).
inline constexpr int kUsageError = 2;
inline constexpr int kInterrupted = 130;

// "--name" of the long option whose value is `val`; empty when there is none.
inline std::string optionName(const option* options, int val) {
    for (const option* o = options; o->name != nullptr; ++o) {
        if (o->flag == nullptr && o->val == val) return std::string("--") + o->name;
    }
    return std::string();
}

// The argument getopt_long has just refused with '?', as the user wrote it: a short option's
// letter, or the whole word of a long one (unknown, ambiguous, or given a value it takes none).
inline std::string refusedOption(const option* options, char** argv) {
    if (optopt > 0 && optopt < 256 && optionName(options, optopt).empty()) {
        return std::string("-") + static_cast<char>(optopt);
    }
    return argv[optind - 1];
}

}  // namespace pwr::tools
