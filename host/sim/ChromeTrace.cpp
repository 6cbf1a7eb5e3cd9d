#include "host/sim/ChromeTrace.h"

#include <charconv>
#include <cmath>

#include <android-base/stringprintf.h>
#include <nlohmann/json.hpp>

namespace pwr::sim {
namespace {

using android::base::StringPrintf;
using nlohmann::json;

constexpr int kPid = 1;
constexpr int kEventsTid = 1;
constexpr int kLogTid = 2;
constexpr int kFirstLockTid = 10;

int64_t micros(int64_t ms) {
    return ms * 1000;
}

// Invalid UTF-8 in a log line is replaced rather than thrown on.
std::string dump(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

json threadName(int tid, const std::string& name, int sortIndex) {
    return {{"ph", "M"},
            {"pid", kPid},
            {"tid", tid},
            {"name", "thread_name"},
            {"args", {{"name", name}}},
            {"sort_index", sortIndex}};
}

// `text` as a JSON string. Written by hand, as the trace of a long run holds millions of them;
// bytes that are not UTF-8 become U+FFFD, as the JSON library's replace handler does.
void appendQuoted(std::string* out, const std::string& text) {
    out->push_back('"');
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* end = p + text.size();
    while (p < end) {
        const unsigned char c = *p;
        if (c == '"' || c == '\\') {
            out->push_back('\\');
            out->push_back(static_cast<char>(c));
            ++p;
        } else if (c < 0x20) {
            out->append(StringPrintf("\\u%04x", c));
            ++p;
        } else if (c < 0x80) {
            out->push_back(static_cast<char>(c));
            ++p;
        } else {
            const int length = c >= 0xF0 && c < 0xF5 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 0;
            bool valid = length > 0 && end - p >= length;
            for (int i = 1; valid && i < length; ++i) valid = (p[i] & 0xC0) == 0x80;
            if (valid) {
                out->append(reinterpret_cast<const char*>(p), length);
                p += length;
            } else {
                out->append("\xEF\xBF\xBD");
                ++p;
            }
        }
    }
    out->push_back('"');
}

std::string quoted(const std::string& text) {
    std::string out;
    appendQuoted(&out, text);
    return out;
}

// A point without a value (NaN) ends a sampled series: drawn as 0. Numbers in their shortest
// exact form.
std::string counterEvent(const std::string& quotedName, const std::string& quotedUnit, int64_t ms,
                         double value) {
    char number[64];
    std::string text = "{\"ph\":\"C\",\"pid\":1,\"name\":";
    text += quotedName;
    text += ",\"ts\":";
    text.append(number, std::to_chars(number, number + sizeof(number), micros(ms)).ptr);
    text += ",\"args\":{";
    text += quotedUnit;
    text += ':';
    text.append(
            number,
            std::to_chars(number, number + sizeof(number), std::isnan(value) ? 0.0 : value).ptr);
    text += "}}";
    return text;
}

}  // namespace

ChromeTraceWriter::ChromeTraceWriter(std::ostream& out) : mOut(out) {
    mOut << "{\"traceEvents\":[\n";
    event(dump(threadName(kEventsTid, "events", 0)));
    event(dump(threadName(kLogTid, "feature log", 1)));
}

void ChromeTraceWriter::event(const std::string& text) {
    if (!mFirst) mOut << ",\n";
    mFirst = false;
    mOut << text;
}

void ChromeTraceWriter::timeline(const TimelineEntry& entry) {
    const bool log = entry.kind == "log";
    if (!log && entry.kind != "event" && entry.kind != "note" && entry.kind != "prop" &&
        entry.kind != "mode" && entry.kind != "game" && entry.kind != "device" &&
        entry.kind != "deep" && entry.kind != "why") {
        return;
    }
    std::string text =
            StringPrintf("{\"ph\":\"i\",\"pid\":%d,\"tid\":%d,\"s\":\"t\",\"cat\":", kPid,
                         log ? kLogTid : kEventsTid);
    appendQuoted(&text, entry.kind);
    text += ",\"name\":";
    appendQuoted(&text, log ? entry.text : entry.kind + ": " + entry.text);
    text += StringPrintf(",\"ts\":%lld}", static_cast<long long>(micros(entry.timeMs)));
    event(text);
}

void ChromeTraceWriter::counter(const std::string& key, const CounterTrack& track, int64_t timeMs,
                                double value) {
    auto last = mLast.find(key);
    if (last == mLast.end()) {
        last = mLast.emplace(key, Last{quoted(track.name + " (" + track.unit + ")"),
                                       quoted(track.unit), 0})
                       .first;
    }
    last->second.value = value;
    event(counterEvent(last->second.name, last->second.unit, timeMs, value));
}

void ChromeTraceWriter::lock(const LockSlice& slice) {
    auto [it, added] = mTids.emplace(slice.track, kFirstLockTid + static_cast<int>(mTids.size()));
    if (added) event(dump(threadName(it->second, slice.track, it->second)));
    // Chrome's complete event ("X") needs a duration; a slice still open at the end is written
    // as a begin event that finish() ends.
    std::string text =
            StringPrintf("{\"ph\":\"%s\",\"pid\":%d,\"tid\":%d,\"name\":", slice.endMs ? "X" : "B",
                         kPid, it->second);
    appendQuoted(&text, slice.name);
    text += StringPrintf(",\"cat\":\"%s\",\"ts\":%lld",
                         slice.kind == LockSlice::Kind::State ? "state" : "lock",
                         static_cast<long long>(micros(slice.startMs)));
    if (slice.endMs) {
        text += StringPrintf(",\"dur\":%lld",
                             static_cast<long long>(micros(*slice.endMs - slice.startMs)));
    } else {
        mOpenTids.push_back(it->second);
    }
    text += StringPrintf(",\"args\":{\"handle\":%d,\"list\":[", slice.handle);
    for (size_t i = 0; i < slice.list.size(); ++i) {
        text += StringPrintf("%s%d", i == 0 ? "" : ",", slice.list[i]);
    }
    text += slice.endMs ? "]}}" : "],\"held at end\":true}}";
    event(text);
}

void ChromeTraceWriter::finish(const Recording& recording) {
    for (int tid : mOpenTids) {
        event(dump(
                {{"ph", "E"}, {"pid", kPid}, {"tid", tid}, {"ts", micros(recording.durationMs)}}));
    }
    // A last point at the end, so each counter spans the whole run.
    for (const auto& [key, last] : mLast) {
        event(counterEvent(last.name, last.unit, recording.durationMs, last.value));
    }
    event(dump({{"ph", "M"},
                {"pid", kPid},
                {"name", "process_name"},
                {"args", {{"name", "pwr-sim: " + recording.scenarioName}}}}));
    mOut << "\n],\"displayTimeUnit\":\"ms\",\"otherData\":"
         << dump({{"scenario", recording.scenarioFile}, {"configuration", recording.configFile}})
         << "}\n";
}

}  // namespace pwr::sim
