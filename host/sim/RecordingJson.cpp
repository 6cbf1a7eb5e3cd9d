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
        case LockSlice::Kind::State:
            return "state";
        case LockSlice::Kind::Other:
            break;
    }
    return "other";
}

LockSlice::Kind kindOf(const std::string& name) {
    if (name == "profile") return LockSlice::Kind::Profile;
    if (name == "task_boost") return LockSlice::Kind::TaskBoost;
    if (name == "state") return LockSlice::Kind::State;
    return LockSlice::Kind::Other;
}

json slicesJson(const std::vector<LockSlice>& slices) {
    json out = json::array();
    for (const LockSlice& s : slices) {
        out.push_back({{"kind", kindName(s.kind)},
                       {"handle", s.handle},
                       {"name", s.name},
                       {"track", s.track},
                       {"start_ms", s.startMs},
                       {"end_ms", s.endMs ? json(*s.endMs) : json(nullptr)},
                       {"boost_pid", s.boostPid},
                       {"boost_value", s.boostValue},
                       {"covered_ms", s.coveredMs}});
    }
    return out;
}

std::vector<LockSlice> slicesOf(const json& list) {
    std::vector<LockSlice> out;
    for (const json& l : list) {
        LockSlice s;
        s.kind = kindOf(l.at("kind").get<std::string>());
        s.handle = l.at("handle").get<int>();
        s.name = l.at("name").get<std::string>();
        s.track = l.at("track").get<std::string>();
        s.startMs = l.at("start_ms").get<int64_t>();
        if (!l.at("end_ms").is_null()) s.endMs = l.at("end_ms").get<int64_t>();
        s.boostPid = l.at("boost_pid").get<int>();
        s.boostValue = l.at("boost_value").get<int>();
        s.coveredMs = l.at("covered_ms").get<int64_t>();
        out.push_back(std::move(s));
    }
    return out;
}

json totalsJson(const RunningTotals& t) {
    return {t.chargeMah, t.saturatedMs, t.demandMc, t.unservedMc};
}

RunningTotals totalsOf(const json& t) {
    return RunningTotals{t.at(0).get<double>(), t.at(1).get<double>(), t.at(2).get<double>(),
                         t.at(3).get<double>()};
}

}  // namespace

json RecordingJson::toJson(const Recording& r) {
    json counters = json::object();
    for (const auto& [key, track] : r.counters) {
        json points = json::array();
        for (const auto& [t, v] : track.points) {
            points.push_back({t, std::isnan(v) ? json(nullptr) : json(v)});
        }
        json byValue = json::array();
        for (const auto& [v, ms] : track.msByValue) byValue.push_back({v, ms});
        counters[key] = {{"name", track.name},
                         {"unit", track.unit},
                         {"states", track.states},
                         {"points", points},
                         {"ms_by_value", byValue}};
    }
    json totals = json::array();
    for (const LockTotal& t : r.lockTotals) {
        totals.push_back({{"kind", kindName(t.kind)},
                          {"name", t.name},
                          {"boost_pid", t.boostPid},
                          {"scaled", t.scaled},
                          {"held_ms", t.heldMs},
                          {"taken", t.taken}});
    }
    json phases = json::array();
    for (const PhaseMark& p : r.phases) {
        phases.push_back(
                {{"start_ms", p.startMs}, {"name", p.name}, {"at_start", totalsJson(p.atStart)}});
    }
    json properties = json::object();
    for (const auto& [name, h] : r.properties) {
        properties[name] = {{"before", h.before ? json(*h.before) : json(nullptr)},
                            {"first", h.first},
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
            {"locks", slicesJson(r.locks)},
            {"lanes", slicesJson(r.lanes)},
            {"lock_totals", totals},
            {"profile_switches", r.profileSwitches},
            {"held_at_end", r.heldAtEnd},
            {"properties", properties},
            {"unread_inputs", r.unreadInputs},
            {"totals_at_start", totalsJson(r.totalsAtStart)},
            {"totals_at_end", totalsJson(r.totalsAtEnd)},
            {"phases", phases}};
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
            track.states = c.at("states").get<bool>();
            for (const json& p : c.at("points")) {
                track.points.emplace_back(p.at(0).get<int64_t>(),
                                          p.at(1).is_null() ? std::nan("") : p.at(1).get<double>());
            }
            for (const json& v : c.at("ms_by_value")) {
                track.msByValue[v.at(0).get<double>()] = v.at(1).get<int64_t>();
            }
        }
        r.locks = slicesOf(root.at("locks"));
        r.lanes = slicesOf(root.at("lanes"));
        for (const json& t : root.at("lock_totals")) {
            r.lockTotals.push_back(LockTotal{
                    kindOf(t.at("kind").get<std::string>()), t.at("name").get<std::string>(),
                    t.at("boost_pid").get<int>(), t.at("scaled").get<bool>(),
                    t.at("held_ms").get<int64_t>(), t.at("taken").get<int>()});
        }
        r.profileSwitches = root.at("profile_switches").get<int>();
        r.heldAtEnd = root.at("held_at_end").get<std::vector<std::string>>();
        for (const auto& [property, p] : root.at("properties").items()) {
            PropertyHistory& h = r.properties[property];
            if (!p.at("before").is_null()) h.before = p.at("before").get<std::string>();
            h.first = p.at("first").get<std::string>();
            h.writes = p.at("writes").get<int>();
            h.last = p.at("last").get<std::string>();
        }
        r.unreadInputs = root.at("unread_inputs").get<std::vector<std::string>>();
        r.totalsAtStart = totalsOf(root.at("totals_at_start"));
        r.totalsAtEnd = totalsOf(root.at("totals_at_end"));
        for (const json& p : root.at("phases")) {
            r.phases.push_back(PhaseMark{p.at("start_ms").get<int64_t>(),
                                         p.at("name").get<std::string>(),
                                         totalsOf(p.at("at_start"))});
        }
    } catch (const json::exception& e) {
        *error = name + ": not a recording pwr-sim wrote: " + e.what();
        return false;
    }
    return true;
}

}  // namespace pwr::sim
