#include "host/sim/Scenario.h"

#include <errno.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <set>

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <nlohmann/json.hpp>

#include "host/sim/JsonNode.h"
#include "host/tools/InputFile.h"

namespace pwr::sim {
namespace {

using nlohmann::json;

constexpr int kMaxPid = (1 << 22);  // pid_max on 64-bit kernels
constexpr double kPi = 3.14159265358979323846;

// A sine of `amplitude` and period `periodMs`, `sinceMs` after it started rising from 0.
double swing(double amplitude, int64_t periodMs, int64_t sinceMs) {
    if (amplitude == 0 || periodMs <= 0) return 0;
    return amplitude * std::sin(2 * kPi * static_cast<double>(sinceMs % periodMs) /
                                static_cast<double>(periodMs));
}

using Node = JsonNode;

// A period in seconds, as milliseconds; at least 1 ms.
int64_t period(const Node& node) {
    const int64_t ms = node.seconds();
    if (ms < 1) node.fail("must be at least 0.001 s");
    return ms;
}

constexpr std::pair<const char*, int> kAppTypes[] = {
        {"game", 2}, {"browser", 3}, {"video", 5}, {"other", 0}};

int appType(const Node& node) {
    if (node.value().is_string()) {
        const std::string name = node.text();
        for (const auto& [word, type] : kAppTypes) {
            if (name == word) return type;
        }
        node.fail("\"" + name +
                  "\" is not an application type; expected game, browser, video, "
                  "other or a number");
    }
    return static_cast<int>(
            node.integer(std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
}

// Times of a trace's points must not decrease.
template <typename Point>
void checkOrder(const Node& list, const std::vector<Point>& points) {
    if (points.size() >= 2 && points.back().timeMs < points[points.size() - 2].timeMs) {
        list.element(points.size() - 1)
                .child("t")
                .fail("is before the previous point's time; times must not decrease");
    }
}

class Reader {
  public:
    Reader(Scenario* out) : mOut(out) {}

    // Everything but the events, which event() took as the parser read them.
    void read(const json& root) {
        const Node top = Node(root, "").object("an object with the scenario");
        top.onlyKeys({"name", "description", "config", "duration", "debug", "apps", "properties",
                      "gpu", "battery", "foreground", "events"});
        if (top.has("name")) mOut->name = top.child("name").text();
        if (top.has("description")) mOut->description = top.child("description").text();
        if (top.has("config")) {
            const Node config = top.child("config");
            mOut->configPath = config.text();
            if (mOut->configPath.empty()) config.fail("must name the XML configuration");
        }
        mOut->durationMs = top.child("duration").seconds();
        if (mOut->durationMs <= 0) top.child("duration").fail("must be more than 0 s");
        if (top.has("debug")) mOut->debug = top.child("debug").boolean();
        if (top.has("apps")) readApps(top.child("apps").object("an object of package: type"));
        if (top.has("properties")) {
            const Node props = top.child("properties").object("an object of name: value");
            for (const auto& [key, value] : props.value().items()) {
                const Node prop(value, props.join(key));
                if (key.empty() || key.find('/') != std::string::npos) {
                    prop.fail("is not a property name");
                }
                const std::string text = prop.text();
                if (text.size() >= 92) prop.fail("is longer than a property value may be (91)");
                mOut->properties[key] = text;
            }
        }
        if (top.has("gpu")) readGpu(top.child("gpu").object("an object"));
        if (top.has("battery")) readBattery(top.child("battery").object("an object"));
        if (top.has("foreground")) readForeground(top.child("foreground").object("an object"));
        if (top.has("events")) top.child("events").array();
        if (mOut->eventCount > 0 && mLastEventMs > mOut->durationMs) {
            Node(json(), mLastEventPath + ".t").fail("is after the scenario's duration");
        }
    }

  private:
    void readApps(const Node& apps) {
        for (const auto& [package, type] : apps.value().items()) {
            const Node app(type, apps.join(package));
            if (package.empty()) app.fail("is not a package name");
            mOut->apps.push_back(tools::ScriptApp{package, appType(app), 0});
        }
    }

    void readGpu(const Node& gpu) {
        gpu.onlyKeys({"frequencies_mhz", "trace"});
        const Node table = gpu.child("frequencies_mhz");
        const json& freqs = table.array();
        if (freqs.size() < 2) table.fail("must list at least two frequencies");
        std::set<uint64_t> seen;
        for (size_t i = 0; i < freqs.size(); ++i) {
            const Node f = table.element(i);
            const uint64_t mhz = static_cast<uint64_t>(f.integer(1, 4294));  // Hz fits 32 bits
            if (!seen.insert(mhz).second) f.fail("is listed twice");
        }
        mOut->gpuFrequenciesMhz.assign(seen.begin(), seen.end());
        const double lowest = static_cast<double>(mOut->gpuFrequenciesMhz.front());
        const double highest = static_cast<double>(mOut->gpuFrequenciesMhz.back());

        const Node trace = gpu.child("trace");
        const json& points = trace.array();
        if (points.empty()) trace.fail("must hold at least one point");
        for (size_t i = 0; i < points.size(); ++i) {
            const Node p = trace.element(i).object("an object");
            p.onlyKeys({"t", "freq_mhz", "busy", "busy_swing", "swing_period", "residency"});
            GpuPoint point;
            point.timeMs = p.child("t").seconds();
            point.freqMhz = p.child("freq_mhz").number(lowest, highest);
            point.busy = p.child("busy").number(0, 100);
            readSwing(p, "busy_swing", 100, &point.busySwing, &point.swingPeriodMs);
            if (p.has("residency")) {
                const Node res = p.child("residency").object("an object of MHz: share");
                double total = 0;
                for (const auto& [key, share] : res.value().items()) {
                    const Node entry(share, res.join(key));
                    uint64_t mhz = 0;
                    if (!android::base::ParseUint(key, &mhz) || seen.count(mhz) == 0) {
                        entry.fail("is not a frequency of frequencies_mhz");
                    }
                    const double s = entry.number(0, 1e9);
                    point.residency[mhz] = s;
                    total += s;
                }
                if (total <= 0) res.fail("must give some time to a frequency");
                for (auto& [mhz, s] : point.residency) s /= total;
            }
            mOut->gpu.push_back(point);
            checkOrder(trace, mOut->gpu);
        }
    }

    void readSwing(const Node& p, const char* key, double max, double* amplitude,
                   int64_t* periodMs) {
        if (p.has(key) != p.has("swing_period")) {
            p.fail(std::string("\"") + key + "\" and \"swing_period\" go together");
        }
        if (!p.has(key)) return;
        *amplitude = p.child(key).number(0, max);
        *periodMs = period(p.child("swing_period"));
    }

    void readBattery(const Node& battery) {
        battery.onlyKeys({"trace"});
        const Node trace = battery.child("trace");
        const json& points = trace.array();
        if (points.empty()) trace.fail("must hold at least one point");
        for (size_t i = 0; i < points.size(); ++i) {
            const Node p = trace.element(i).object("an object");
            p.onlyKeys({"t", "drain_ma", "drain_swing", "swing_period"});
            BatteryPoint point;
            point.timeMs = p.child("t").seconds();
            point.drainMa = p.child("drain_ma").number(-100000, 100000);
            readSwing(p, "drain_swing", 100000, &point.drainSwing, &point.swingPeriodMs);
            mOut->battery.push_back(point);
            checkOrder(trace, mOut->battery);
        }
    }

    void readForeground(const Node& foreground) {
        foreground.onlyKeys({"trace"});
        const Node trace = foreground.child("trace");
        const json& points = trace.array();
        if (points.empty()) trace.fail("must hold at least one point");
        for (size_t i = 0; i < points.size(); ++i) {
            const Node p = trace.element(i).object("an object");
            p.onlyKeys({"t", "processes"});
            ForegroundPoint point;
            point.timeMs = p.child("t").seconds();
            const Node procs = p.child("processes");
            const json& list = procs.array();
            std::set<int> pids;
            for (size_t j = 0; j < list.size(); ++j) {
                const Node proc = procs.element(j).object("an object with pid and cmdline");
                proc.onlyKeys({"pid", "cmdline"});
                ForegroundProcess process;
                process.pid = static_cast<int>(proc.child("pid").integer(1, kMaxPid));
                if (!pids.insert(process.pid).second) proc.child("pid").fail("is listed twice");
                process.cmdline = proc.child("cmdline").text();
                if (process.cmdline.find('\0') != std::string::npos) {
                    proc.child("cmdline").fail("must not hold a NUL character");
                }
                point.processes.push_back(process);
            }
            mOut->foreground.push_back(point);
            checkOrder(trace, mOut->foreground);
        }
    }

  public:
    // One element of "events", as the parser hands it over.
    void event(const Node& e) {
        e.object("an object with t and event or note");
        e.onlyKeys({"t", "event", "note"});
        ScenarioEvent event;
        event.timeMs = e.child("t").seconds();
        if (e.has("note")) event.note = e.child("note").text();
        if (e.has("event")) {
            const Node what = e.child("event");
            std::string message;
            if (!tools::EventScript::parseEvent(what.text(), &event.event, &message)) {
                what.fail(message);
            }
            if (event.event.kind == tools::ScriptEvent::Kind::End) {
                what.fail("\"end\" is not an event here; the scenario's duration ends it");
            }
            event.event.timeMs = event.timeMs;
            event.hasEvent = true;
        } else if (!e.has("note")) {
            e.fail("needs \"event\", \"note\" or both");
        }
        if (mOut->eventCount > 0 && event.timeMs < mLastEventMs) {
            e.child("t").fail("is before the previous point's time; times must not decrease");
        }
        // The duration may come after the events; the last event, the latest, is checked then.
        if (mOut->durationMs > 0 && event.timeMs > mOut->durationMs) {
            e.child("t").fail("is after the scenario's duration");
        }
        mLastEventMs = event.timeMs;
        mLastEventPath = e.path();
        ++mOut->eventCount;
        if (mDeliver) {
            mDeliver(event);
        } else if (mKeepEvents) {
            mOut->events.push_back(std::move(event));
        }
    }

    // Reads the duration as soon as the parse has it, so that events after it are checked at
    // once.
    void peekDuration(const json& partial) {
        if (mOut->durationMs > 0 || !partial.is_object() || !partial.contains("duration")) return;
        const json& duration = partial.at("duration");
        if (duration.is_number() && duration.get<double>() > 0 &&
            duration.get<double>() <= 30.0 * 24 * 3600) {
            mOut->durationMs = Node(duration, "duration").seconds();
        }
    }

    bool mKeepEvents = true;
    std::function<void(const ScenarioEvent&)> mDeliver;
    int64_t mLastEventMs = 0;
    std::string mLastEventPath;

  private:
    Scenario* mOut;
};

}  // namespace

double GpuPoint::busyAt(int64_t ms) const {
    return std::clamp(busy + swing(busySwing, swingPeriodMs, ms - timeMs), 0.0, 100.0);
}

double BatteryPoint::drainAt(int64_t ms) const {
    return drainMa + swing(drainSwing, swingPeriodMs, ms - timeMs);
}

bool appTypeFromWord(std::string_view word, int* type) {
    for (const auto& [name, value] : kAppTypes) {
        if (word == name) {
            *type = value;
            return true;
        }
    }
    const std::string text(word);
    char* end = nullptr;
    errno = 0;
    const long value = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || value < std::numeric_limits<int32_t>::min() ||
        value > std::numeric_limits<int32_t>::max()) {
        return false;
    }
    *type = static_cast<int>(value);
    return true;
}

std::string appTypeWord(int type) {
    for (const auto& [name, value] : kAppTypes) {
        if (type == value) return name;
    }
    return std::to_string(type);
}

namespace {

// Parses a scenario from `text` (or, when null, the file `path`), handing each event to `reader`
// as it is read.
bool parseScenario(const std::string* text, const std::string& path, Reader& reader, json* root,
                   std::string* error) {
    JsonStream stream{"events", [&](const json& element, size_t index) {
                          reader.peekDuration(*root);
                          reader.event(Node(element, "events[" + std::to_string(index) + "]"));
                      }};
    return text != nullptr ? parseJsonText(*text, path, root, error, &stream)
                           : parseJsonFile(path, root, error, &stream);
}

bool finish(const std::string& name, Scenario* out, Reader& reader, const json& root,
            std::string* error) {
    try {
        reader.read(root);
    } catch (const JsonNode::Invalid& invalid) {
        *error = name + ": " + (invalid.path.empty() ? "" : invalid.path + ": ") + invalid.message;
        return false;
    } catch (const json::exception& e) {
        // Not expected: every access is checked first. Reported rather than thrown.
        *error = name + ": " + e.what();
        return false;
    }
    if (!out->configPath.empty() && out->configPath[0] != '/') {
        const std::filesystem::path dir = std::filesystem::path(name).parent_path();
        out->configPath = (dir / out->configPath).lexically_normal().string();
    }
    return true;
}

}  // namespace

bool Scenario::parseText(std::string_view text, const std::string& name, Scenario* out,
                         std::string* error, bool keepEvents) {
    *out = Scenario{};
    out->file = name;
    auto kept = std::make_shared<const std::string>(text);
    Reader reader(out);
    reader.mKeepEvents = keepEvents;
    json root;
    if (!parseScenario(kept.get(), name, reader, &root, error) ||
        !finish(name, out, reader, root, error)) {
        return false;
    }
    if (!keepEvents) out->mSourceText = std::move(kept);
    return true;
}

bool Scenario::parseFile(const std::string& path, Scenario* out, std::string* error,
                         bool keepEvents) {
    if (path == tools::kStandardInput) {
        // Standard input reads once: its text is kept for a second reading of the events.
        std::string text;
        if (!tools::readInputFile(path, &text, error)) return false;
        return parseText(text, path, out, error, keepEvents);
    }
    *out = Scenario{};
    out->file = path;
    Reader reader(out);
    reader.mKeepEvents = keepEvents;
    json root;
    if (!parseScenario(nullptr, path, reader, &root, error) ||
        !finish(path, out, reader, root, error)) {
        return false;
    }
    if (!keepEvents) out->mSourcePath = path;
    return true;
}

bool Scenario::forEachEvent(const std::function<bool(const ScenarioEvent&)>& deliver,
                            std::string* error) const {
    if (!mSourceText && mSourcePath.empty()) {
        for (const ScenarioEvent& event : events) {
            if (!deliver(event)) return false;
        }
        return true;
    }
    // Read again as the first reading did; `stopped` tells the caller's stop from a failure.
    Scenario again;
    again.file = file;
    Reader reader(&again);
    bool stopped = false;
    reader.mDeliver = [&](const ScenarioEvent& event) {
        if (!deliver(event)) {
            stopped = true;
            throw JsonNode::Invalid{"", "stopped"};
        }
    };
    json root;
    if (parseScenario(mSourceText.get(), mSourcePath.empty() ? file : mSourcePath, reader, &root,
                      error)) {
        if (again.eventCount == eventCount) return true;
        *error = file + ": changed while it was simulated";
        return false;
    }
    if (stopped) error->clear();
    return false;
}

}  // namespace pwr::sim
