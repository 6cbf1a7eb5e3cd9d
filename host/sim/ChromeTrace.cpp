#include "host/sim/ChromeTrace.h"

#include <cmath>
#include <map>

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

json threadName(int tid, const std::string& name, int sortIndex) {
    return {{"ph", "M"},
            {"pid", kPid},
            {"tid", tid},
            {"name", "thread_name"},
            {"args", {{"name", name}}},
            {"sort_index", sortIndex}};
}

}  // namespace

void writeChromeTrace(const Recording& recording, std::ostream& out) {
    json events = json::array();
    events.push_back({{"ph", "M"},
                      {"pid", kPid},
                      {"name", "process_name"},
                      {"args", {{"name", "pwr-sim: " + recording.scenarioName}}}});
    events.push_back(threadName(kEventsTid, "events", 0));
    events.push_back(threadName(kLogTid, "feature log", 1));

    for (const auto& [key, track] : recording.counters) {
        const std::string name = track.name + " (" + track.unit + ")";
        for (const auto& [t, value] : track.points) {
            // A point without a value (NaN) ends a sampled series: drawn as 0.
            events.push_back({{"ph", "C"},
                              {"pid", kPid},
                              {"name", name},
                              {"ts", micros(t)},
                              {"args", {{track.unit, std::isnan(value) ? 0.0 : value}}}});
        }
        // A last point at the end, so the track spans the whole run.
        if (!track.points.empty()) {
            events.push_back({{"ph", "C"},
                              {"pid", kPid},
                              {"name", name},
                              {"ts", micros(recording.durationMs)},
                              {"args",
                               {{track.unit, std::isnan(track.points.back().second)
                                                     ? 0.0
                                                     : track.points.back().second}}}});
        }
    }

    std::map<std::string, int> tids;
    for (const LockSlice& slice : recording.locks) {
        auto [it, added] = tids.emplace(slice.track, kFirstLockTid + static_cast<int>(tids.size()));
        if (added) events.push_back(threadName(it->second, slice.track, it->second));
        const int64_t end = slice.endMs.value_or(recording.durationMs);
        json args = {{"handle", slice.handle}, {"list", slice.list}};
        if (!slice.endMs) args["held at end"] = true;
        events.push_back({{"ph", "X"},
                          {"pid", kPid},
                          {"tid", it->second},
                          {"name", slice.name},
                          {"cat", "lock"},
                          {"ts", micros(slice.startMs)},
                          {"dur", micros(end - slice.startMs)},
                          {"args", args}});
    }

    for (const TimelineEntry& entry : recording.timeline) {
        const bool log = entry.kind == "log";
        if (!log && entry.kind != "event" && entry.kind != "note" && entry.kind != "prop" &&
            entry.kind != "mode" && entry.kind != "game" && entry.kind != "device") {
            continue;
        }
        events.push_back({{"ph", "i"},
                          {"pid", kPid},
                          {"tid", log ? kLogTid : kEventsTid},
                          {"s", "t"},
                          {"cat", entry.kind},
                          {"name", log ? entry.text : entry.kind + ": " + entry.text},
                          {"ts", micros(entry.timeMs)}});
    }

    json trace = {
            {"traceEvents", events},
            {"displayTimeUnit", "ms"},
            {"otherData",
             {{"scenario", recording.scenarioFile}, {"configuration", recording.configFile}}}};
    // Invalid UTF-8 in a log line is replaced rather than thrown on.
    out << trace.dump(1, ' ', false, json::error_handler_t::replace) << '\n';
}

}  // namespace pwr::sim
