#include "host/sim/ScenarioWriter.h"

#include <android-base/stringprintf.h>
#include <nlohmann/json.hpp>

#include "feature/FeatureCodes.h"

namespace pwr::sim {
namespace {

namespace codes = pwr::codes;

using android::base::StringPrintf;
using nlohmann::ordered_json;

double seconds(int64_t ms) {
    return static_cast<double>(ms) / 1000.0;
}

// An event in the words of an event-script line after its time.
std::string eventText(const tools::ScriptEvent& event) {
    const AsyncTriggerPayload& payload = event.payload;
    const std::string app = payload.appName.empty() ? "" : " " + payload.appName;
    switch (event.kind) {
        case tools::ScriptEvent::Kind::Start:
            return "start" + app;
        case tools::ScriptEvent::Kind::Stop:
            return "stop" + app;
        case tools::ScriptEvent::Kind::GameOff:
            return "gameoff" + app;
        case tools::ScriptEvent::Kind::Hint:
            return StringPrintf("hint %u %u", codes::hintType(payload.hintType),
                                codes::hintAction(payload.hintType)) +
                   app;
        case tools::ScriptEvent::Kind::Raw:
        case tools::ScriptEvent::Kind::End:
            break;
    }
    return StringPrintf("event 0x%X 0x%X", static_cast<unsigned>(payload.hintId),
                        static_cast<unsigned>(payload.hintType)) +
           app;
}

void addSwing(ordered_json& point, const char* key, double amplitude, int64_t periodMs) {
    if (periodMs <= 0) return;
    point[key] = amplitude;
    point["swing_period"] = seconds(periodMs);
}

// Objects spread over lines, a list of objects (a trace, the events) one element a line, so that
// a long trace reads as a table and compares line by line.
void writePretty(const ordered_json& value, int indent, std::ostream& out) {
    const std::string inner(static_cast<size_t>(indent) + 4, ' ');
    const auto compact = [](const ordered_json& v) {
        return v.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
    };
    if (value.is_object() && !value.empty()) {
        out << "{\n";
        size_t i = 0;
        for (const auto& [key, child] : value.items()) {
            out << inner << compact(ordered_json(key)) << ": ";
            writePretty(child, indent + 4, out);
            out << (++i < value.size() ? ",\n" : "\n");
        }
        out << std::string(static_cast<size_t>(indent), ' ') << '}';
    } else if (value.is_array() && !value.empty() && value.front().is_object()) {
        out << "[\n";
        for (size_t i = 0; i < value.size(); ++i) {
            out << inner << compact(value[i]) << (i + 1 < value.size() ? ",\n" : "\n");
        }
        out << std::string(static_cast<size_t>(indent), ' ') << ']';
    } else {
        out << compact(value);
    }
}

}  // namespace

void writeScenario(const Scenario& scenario, std::ostream& out) {
    ordered_json root = ordered_json::object();
    if (!scenario.name.empty()) root["name"] = scenario.name;
    if (!scenario.description.empty()) root["description"] = scenario.description;
    if (!scenario.configPath.empty()) root["config"] = scenario.configPath;
    root["duration"] = seconds(scenario.durationMs);
    if (scenario.debug) root["debug"] = true;
    if (!scenario.apps.empty()) {
        ordered_json& apps = root["apps"] = ordered_json::object();
        for (const tools::ScriptApp& app : scenario.apps) apps[app.package] = appTypeWord(app.type);
    }
    if (!scenario.properties.empty()) root["properties"] = scenario.properties;
    if (!scenario.gpuFrequenciesMhz.empty()) {
        ordered_json trace = ordered_json::array();
        for (const GpuPoint& p : scenario.gpu) {
            ordered_json point = {
                    {"t", seconds(p.timeMs)}, {"freq_mhz", p.freqMhz}, {"busy", p.busy}};
            addSwing(point, "busy_swing", p.busySwing, p.swingPeriodMs);
            if (!p.residency.empty()) {
                ordered_json& residency = point["residency"] = ordered_json::object();
                for (const auto& [mhz, share] : p.residency) residency[std::to_string(mhz)] = share;
            }
            trace.push_back(std::move(point));
        }
        root["gpu"] = {{"frequencies_mhz", scenario.gpuFrequenciesMhz}, {"trace", trace}};
    }
    if (!scenario.battery.empty()) {
        ordered_json trace = ordered_json::array();
        for (const BatteryPoint& p : scenario.battery) {
            ordered_json point = {{"t", seconds(p.timeMs)}, {"drain_ma", p.drainMa}};
            addSwing(point, "drain_swing", p.drainSwing, p.swingPeriodMs);
            trace.push_back(std::move(point));
        }
        root["battery"] = {{"trace", trace}};
    }
    if (!scenario.foreground.empty()) {
        ordered_json trace = ordered_json::array();
        for (const ForegroundPoint& p : scenario.foreground) {
            ordered_json processes = ordered_json::array();
            for (const ForegroundProcess& process : p.processes) {
                processes.push_back({{"pid", process.pid}, {"cmdline", process.cmdline}});
            }
            trace.push_back({{"t", seconds(p.timeMs)}, {"processes", processes}});
        }
        root["foreground"] = {{"trace", trace}};
    }
    if (!scenario.events.empty()) {
        ordered_json events = ordered_json::array();
        for (const ScenarioEvent& e : scenario.events) {
            ordered_json event = {{"t", seconds(e.timeMs)}};
            if (e.hasEvent) event["event"] = eventText(e.event);
            if (!e.note.empty()) event["note"] = e.note;
            events.push_back(std::move(event));
        }
        root["events"] = events;
    }
    writePretty(root, 0, out);
    out << '\n';
}

}  // namespace pwr::sim
