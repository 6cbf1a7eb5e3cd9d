#include "host/sim/ChromeTrace.h"

#include <cmath>

#include <nlohmann/json.hpp>

namespace pwr::sim {
namespace {

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

json counterEvent(const std::string& name, const std::string& unit, int64_t ms, double value) {
    // A point without a value (NaN) ends a sampled series: drawn as 0.
    return {{"ph", "C"},
            {"pid", kPid},
            {"name", name},
            {"ts", micros(ms)},
            {"args", {{unit, std::isnan(value) ? 0.0 : value}}}};
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
    event(dump({{"ph", "i"},
                {"pid", kPid},
                {"tid", log ? kLogTid : kEventsTid},
                {"s", "t"},
                {"cat", entry.kind},
                {"name", log ? entry.text : entry.kind + ": " + entry.text},
                {"ts", micros(entry.timeMs)}}));
}

void ChromeTraceWriter::counter(const std::string& key, const CounterTrack& track, int64_t timeMs,
                                double value) {
    const std::string name = track.name + " (" + track.unit + ")";
    mLast[key] = {name, {track.unit, value}};
    event(dump(counterEvent(name, track.unit, timeMs, value)));
}

void ChromeTraceWriter::lock(const LockSlice& slice) {
    auto [it, added] = mTids.emplace(slice.track, kFirstLockTid + static_cast<int>(mTids.size()));
    if (added) event(dump(threadName(it->second, slice.track, it->second)));
    json args = {{"handle", slice.handle}, {"list", slice.list}};
    if (!slice.endMs) args["held at end"] = true;
    json e = {{"ph", "X"},
              {"pid", kPid},
              {"tid", it->second},
              {"name", slice.name},
              {"cat", slice.kind == LockSlice::Kind::State ? "state" : "lock"},
              {"ts", micros(slice.startMs)},
              {"args", args}};
    // A slice still open at the end lasts to the end, which finish() knows; Chrome's "X" needs
    // a duration, so an open one is written as a begin event that finish() ends.
    if (slice.endMs) {
        e["dur"] = micros(*slice.endMs - slice.startMs);
    } else {
        e["ph"] = "B";
        mOpenTids.push_back(it->second);
    }
    event(dump(e));
}

void ChromeTraceWriter::finish(const Recording& recording) {
    for (int tid : mOpenTids) {
        event(dump(
                {{"ph", "E"}, {"pid", kPid}, {"tid", tid}, {"ts", micros(recording.durationMs)}}));
    }
    // A last point at the end, so each counter spans the whole run.
    for (const auto& [key, last] : mLast) {
        event(dump(counterEvent(last.first, last.second.first, recording.durationMs,
                                last.second.second)));
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
