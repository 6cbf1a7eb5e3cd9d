#include "host/sim/RecordingJson.h"

#include <cmath>

#include "host/sim/JsonNode.h"

namespace pwr::sim {
namespace {

using nlohmann::json;

const char* kindName(LockSlice::Kind kind) {
    switch (kind) {
        case LockSlice::Kind::Profile:
            return "profile";
        case LockSlice::Kind::TaskBoost:
            return "task_boost";
        case LockSlice::Kind::Other:
            break;
    }
    return "other";
}

LockSlice::Kind kindOf(const std::string& name) {
    if (name == "profile") return LockSlice::Kind::Profile;
    if (name == "task_boost") return LockSlice::Kind::TaskBoost;
    return LockSlice::Kind::Other;
}

}  // namespace

json RecordingJson::toJson(const Recording& r) {
    json counters = json::object();
    for (const auto& [key, track] : r.counters) {
        json points = json::array();
        for (const auto& [t, v] : track.points) {
            points.push_back({t, std::isnan(v) ? json(nullptr) : json(v)});
        }
        counters[key] = {{"name", track.name}, {"unit", track.unit}, {"points", points}};
    }
    json locks = json::array();
    for (const LockSlice& s : r.locks) {
        locks.push_back({{"kind", kindName(s.kind)},
                         {"handle", s.handle},
                         {"name", s.name},
                         {"track", s.track},
                         {"list", s.list},
                         {"start_ms", s.startMs},
                         {"end_ms", s.endMs ? json(*s.endMs) : json(nullptr)},
                         {"boost_pid", s.boostPid},
                         {"boost_value", s.boostValue}});
    }
    json timeline = json::array();
    for (const TimelineEntry& e : r.timeline) timeline.push_back({e.timeMs, e.kind, e.text});
    json properties = json::object();
    for (const auto& [name, h] : r.properties) {
        properties[name] = {{"before", h.before ? json(*h.before) : json(nullptr)},
                            {"writes", h.writes},
                            {"last", h.last}};
    }
    return {{"scenario", r.scenarioName},
            {"scenario_file", r.scenarioFile},
            {"config_file", r.configFile},
            {"device_model", r.deviceModelFile},
            {"battery_mah", r.batteryMah},
            {"duration_ms", r.durationMs},
            {"dynamic_profiles", r.dynamicProfiles},
            {"counters", counters},
            {"locks", locks},
            {"timeline", timeline},
            {"properties", properties}};
}

bool RecordingJson::parseText(std::string_view text, const std::string& name, Recording* out,
                              std::string* error) {
    *out = Recording{};
    json root;
    if (!parseJsonText(text, name, &root, error)) return false;
    try {
        Recording& r = *out;
        r.scenarioName = root.at("scenario").get<std::string>();
        r.scenarioFile = root.at("scenario_file").get<std::string>();
        r.configFile = root.at("config_file").get<std::string>();
        r.deviceModelFile = root.at("device_model").get<std::string>();
        r.batteryMah = root.at("battery_mah").get<double>();
        r.durationMs = root.at("duration_ms").get<int64_t>();
        r.dynamicProfiles = root.at("dynamic_profiles").get<std::vector<std::string>>();
        for (const auto& [key, c] : root.at("counters").items()) {
            CounterTrack& track = r.counters[key];
            track.name = c.at("name").get<std::string>();
            track.unit = c.at("unit").get<std::string>();
            for (const json& p : c.at("points")) {
                track.points.emplace_back(p.at(0).get<int64_t>(),
                                          p.at(1).is_null() ? std::nan("") : p.at(1).get<double>());
            }
        }
        for (const json& l : root.at("locks")) {
            LockSlice s;
            s.kind = kindOf(l.at("kind").get<std::string>());
            s.handle = l.at("handle").get<int>();
            s.name = l.at("name").get<std::string>();
            s.track = l.at("track").get<std::string>();
            s.list = l.at("list").get<std::vector<int>>();
            s.startMs = l.at("start_ms").get<int64_t>();
            if (!l.at("end_ms").is_null()) s.endMs = l.at("end_ms").get<int64_t>();
            s.boostPid = l.at("boost_pid").get<int>();
            s.boostValue = l.at("boost_value").get<int>();
            r.locks.push_back(std::move(s));
        }
        for (const json& e : root.at("timeline")) {
            r.timeline.push_back(TimelineEntry{e.at(0).get<int64_t>(), e.at(1).get<std::string>(),
                                               e.at(2).get<std::string>()});
        }
        for (const auto& [property, p] : root.at("properties").items()) {
            PropertyHistory& h = r.properties[property];
            if (!p.at("before").is_null()) h.before = p.at("before").get<std::string>();
            h.writes = p.at("writes").get<std::vector<std::pair<int64_t, std::string>>>();
            h.last = p.at("last").get<std::string>();
        }
    } catch (const json::exception& e) {
        *error = name + ": not a recording pwr-sim wrote: " + e.what();
        return false;
    }
    return true;
}

}  // namespace pwr::sim
