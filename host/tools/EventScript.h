#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "feature/PowerOptFeature.h"

namespace pwr::tools {

// One timed line of an event script.
struct ScriptEvent {
    enum class Kind { Start, Stop, GameOff, Hint, Raw, End };
    int64_t timeMs = 0;
    int line = 0;
    Kind kind = Kind::Raw;
    AsyncTriggerPayload payload;  // unused for End

    // How the event reads in a timeline, e.g. "start com.example.game/.Main (0x1001)".
    std::string describe() const;
};

// An application the fake performance library classifies, from an "app" line.
struct ScriptApp {
    std::string package;
    int type = 0;
    int line = 0;
};

// A replay script: the application catalogue of the fake classifier and the events to deliver,
// in time order (docs/pwr-replay.md). Lines:
//   app <package> <type>                    catalogue entry, not timed
//   <ms> start <app>                        0x1001
//   <ms> stop <app>                         0x1002
//   <ms> gameoff [<app>]                    0x1040
//   <ms> hint <type> <action> [<app>]       0x15E0 with hintType = action << 7 | type
//   <ms> event <hintId> <hintType> [<app>]  any event, numbers decimal or 0x hex
//   <ms> end                                keep the feature until then, then delete it
// '#' starts a comment; blank lines are skipped.
struct EventScript {
    std::string file;
    std::vector<ScriptApp> apps;
    std::vector<ScriptEvent> events;  // non-decreasing times; an End, if any, is last

    // False, with `error` set to "<file>:<line>: <what is wrong>", when the text is not a valid
    // script; nothing throws.
    static bool parseText(std::string_view text, const std::string& name, EventScript* out,
                          std::string* error);
    static bool parseFile(const std::string& path, EventScript* out, std::string* error);

    // One event in the words of a script line after its time ("start com.example.game/.Main",
    // "hint 3 1"), for other formats that embed events. Its time and line are left at 0. False
    // with `error` set to what is wrong (without file or line).
    static bool parseEvent(std::string_view text, ScriptEvent* out, std::string* error);
};

}  // namespace pwr::tools
