#include "host/tools/EventScript.h"

#include <errno.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "feature/FeatureCodes.h"
#include "host/tools/InputFile.h"

namespace pwr::tools {
namespace {

using android::base::StringPrintf;
namespace codes = pwr::codes;

// The words of a line, between blanks and tabs.
std::vector<std::string> splitWords(std::string_view line) {
    std::vector<std::string> words = android::base::Split(std::string(line), " \t");
    words.erase(std::remove(words.begin(), words.end(), std::string()), words.end());
    return words;
}

// A '#' at the start of a line or after a blank starts a comment.
std::string_view stripComment(std::string_view line) {
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '#' && (i == 0 || line[i - 1] == ' ' || line[i - 1] == '\t')) {
            return line.substr(0, i);
        }
    }
    return line;
}

// Decimal (optionally signed) or 0x hex; true when the whole word is a number in [min, max].
bool parseInteger(const std::string& word, int64_t min, int64_t max, int64_t* out) {
    return android::base::ParseInt(word, out, min, max);
}

// The event of words[first] onwards: a verb and its arguments, as in a script line after its
// time. False with `message` set (no file or line) when they do not make an event.
bool parseEventWords(const std::vector<std::string>& words, size_t first, ScriptEvent* out,
                     std::string* message) {
    ScriptEvent event;
    const std::string& verb = words[first];
    const size_t args = words.size() - first - 1;
    auto word = [&](size_t i) -> const std::string& { return words[first + 1 + i]; };
    auto fail = [message](const std::string& text) {
        *message = text;
        return false;
    };
    if (verb == "start" || verb == "stop") {
        if (args != 1) return fail(verb + " takes one application name");
        event.kind = verb == "start" ? ScriptEvent::Kind::Start : ScriptEvent::Kind::Stop;
        event.payload.hintId = verb == "start" ? codes::kAppStart : codes::kAppStop;
        event.payload.appName = word(0);
    } else if (verb == "gameoff") {
        if (args > 1) return fail("gameoff takes at most an application name");
        event.kind = ScriptEvent::Kind::GameOff;
        event.payload.hintId = codes::kGameOff;
        if (args == 1) event.payload.appName = word(0);
    } else if (verb == "hint") {
        if (args < 2 || args > 3) {
            return fail("hint takes <type> <action> and optionally an application");
        }
        int64_t type = 0;
        int64_t action = 0;
        if (!parseInteger(word(0), 0, codes::kHintTypeMask, &type)) {
            return fail("hint type \"" + word(0) + "\" is not a number from 0 to 127");
        }
        if (!parseInteger(word(1), 0, codes::kHintActionMask, &action)) {
            return fail("hint action \"" + word(1) + "\" is not a number from 0 to 255");
        }
        event.kind = ScriptEvent::Kind::Hint;
        event.payload.hintId = codes::kUsablePowerModeHint;
        event.payload.hintType =
                codes::hintWord(static_cast<unsigned>(action), static_cast<unsigned>(type));
        if (args == 3) event.payload.appName = word(2);
    } else if (verb == "event") {
        if (args < 2 || args > 3) {
            return fail("event takes <hintId> <hintType> and optionally an application");
        }
        int64_t id = 0;
        int64_t type = 0;
        if (!parseInteger(word(0), std::numeric_limits<int32_t>::min(),
                          std::numeric_limits<int32_t>::max(), &id)) {
            return fail("hintId \"" + word(0) + "\" is not a 32-bit number");
        }
        if (!parseInteger(word(1), 0, std::numeric_limits<uint32_t>::max(), &type)) {
            return fail("hintType \"" + word(1) + "\" is not an unsigned 32-bit number");
        }
        event.kind = ScriptEvent::Kind::Raw;
        event.payload.hintId = static_cast<int32_t>(id);
        event.payload.hintType = static_cast<uint32_t>(type);
        if (args == 3) event.payload.appName = word(2);
    } else if (verb == "end") {
        if (args != 0) return fail("end takes nothing after it");
        event.kind = ScriptEvent::Kind::End;
    } else {
        return fail("unknown event \"" + verb +
                    "\"; expected start, stop, gameoff, hint, event or end");
    }
    *out = std::move(event);
    return true;
}

class Parser {
  public:
    Parser(const std::string& file, EventScript* out, std::string* error)
        : mFile(file), mOut(out), mError(error) {}

    bool parse(std::string_view text) {
        int line = 0;
        size_t start = 0;
        while (start <= text.size()) {
            size_t end = text.find('\n', start);
            if (end == std::string_view::npos) end = text.size();
            std::string_view content = text.substr(start, end - start);
            if (!content.empty() && content.back() == '\r') content.remove_suffix(1);
            ++line;
            if (!parseLine(line, splitWords(stripComment(content)))) return false;
            start = end + 1;
        }
        return true;
    }

  private:
    bool fail(int line, const std::string& message) {
        *mError = mFile + ":" + std::to_string(line) + ": " + message;
        return false;
    }

    bool parseLine(int line, const std::vector<std::string>& words) {
        if (words.empty()) return true;
        if (words[0] == "app") return parseApp(line, words);
        int64_t time = 0;
        if (!parseInteger(words[0], 0, std::numeric_limits<int32_t>::max(), &time)) {
            return fail(line, "\"" + words[0] + "\" is neither \"app\" nor a time in milliseconds");
        }
        if (words.size() < 2) return fail(line, "a time with no event after it");
        if (!mOut->events.empty()) {
            const ScriptEvent& last = mOut->events.back();
            if (last.kind == ScriptEvent::Kind::End) {
                return fail(line,
                            "an event after \"end\" (line " + std::to_string(last.line) + ")");
            }
            if (time < last.timeMs) {
                return fail(line, StringPrintf("time %lld ms is before the previous event's "
                                               "%lld ms (line %d); times must not decrease",
                                               static_cast<long long>(time),
                                               static_cast<long long>(last.timeMs), last.line));
            }
        }
        ScriptEvent event;
        std::string message;
        if (!parseEventWords(words, 1, &event, &message)) return fail(line, message);
        event.timeMs = time;
        event.line = line;
        mOut->events.push_back(std::move(event));
        return true;
    }

    bool parseApp(int line, const std::vector<std::string>& words) {
        if (words.size() != 3) return fail(line, "app takes <package> <type>");
        int64_t type = 0;
        if (!parseInteger(words[2], std::numeric_limits<int32_t>::min(),
                          std::numeric_limits<int32_t>::max(), &type)) {
            return fail(line, "app type \"" + words[2] + "\" is not a number");
        }
        const std::string package(words[1]);
        for (const ScriptApp& app : mOut->apps) {
            if (app.package == package) {
                return fail(line, "app " + package + " is listed twice; the first is on line " +
                                          std::to_string(app.line));
            }
        }
        mOut->apps.push_back(ScriptApp{package, static_cast<int>(type), line});
        return true;
    }

    const std::string& mFile;
    EventScript* mOut;
    std::string* mError;
};

}  // namespace

std::string ScriptEvent::describe() const {
    const std::string app = payload.appName.empty() ? "" : " " + payload.appName;
    const unsigned code = static_cast<uint32_t>(payload.hintId);
    switch (kind) {
        case Kind::Start:
            return StringPrintf("start%s (0x%X)", app.c_str(), code);
        case Kind::Stop:
            return StringPrintf("stop%s (0x%X)", app.c_str(), code);
        case Kind::GameOff:
            return StringPrintf("gameoff%s (0x%X)", app.c_str(), code);
        case Kind::Hint:
            return StringPrintf("hint type %u action %u%s (0x%X, hintType 0x%X)",
                                codes::hintType(payload.hintType),
                                codes::hintAction(payload.hintType), app.c_str(), code,
                                payload.hintType);
        case Kind::Raw:
            return StringPrintf("event 0x%X hintType 0x%X%s", code, payload.hintType, app.c_str());
        case Kind::End:
            return "end";
    }
    return "";
}

bool EventScript::parseText(std::string_view text, const std::string& name, EventScript* out,
                            std::string* error) {
    *out = EventScript{};
    out->file = name;
    return checkNoNul(text, name, error) && Parser(name, out, error).parse(text);
}

bool EventScript::parseEvent(std::string_view text, ScriptEvent* out, std::string* error) {
    const std::vector<std::string> words = splitWords(text);
    if (words.empty()) {
        *error = "no event";
        return false;
    }
    return parseEventWords(words, 0, out, error);
}

bool EventScript::parseFile(const std::string& path, EventScript* out, std::string* error) {
    std::string content;
    if (!readInputFile(path, &content, error)) return false;
    return parseText(content, path, out, error);
}

}  // namespace pwr::tools
