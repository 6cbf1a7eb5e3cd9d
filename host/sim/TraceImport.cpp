#include "host/sim/TraceImport.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <optional>
#include <set>

#include <android-base/stringprintf.h>
#include <nlohmann/json.hpp>

namespace pwr::sim {
namespace {

using android::base::StringPrintf;
using nlohmann::json;
using Target = TrackMapping::Target;

constexpr std::pair<const char*, Target> kTargets[] = {
        {"gpu_freq_mhz", Target::GpuFreqMhz},
        {"gpu_busy", Target::GpuBusy},
        {"drain_ma", Target::DrainMa},
};
constexpr double kMaxDrainMa = 100000;  // what a scenario accepts

const char* targetName(Target target) {
    for (const auto& [name, t] : kTargets) {
        if (t == target) return name;
    }
    return "";
}

struct Invalid {
    std::string where;  // key path of the event
    std::string message;
};

// One imported counter point: where it came from, when, and its value in the trace's unit.
struct Point {
    size_t event;
    double tsUs;
    double value;
};

struct Series {
    std::string name;
    std::vector<Point> points;
};

std::string eventPath(size_t index) {
    return "traceEvents[" + std::to_string(index) + "]";
}

class Reader {
  public:
    Reader(const TraceImport::Options& options, Scenario* out, std::vector<std::string>* warnings,
           const std::string& file)
        : mOptions(options), mOut(out), mWarnings(warnings), mFile(file) {}

    void run(const json& root) {
        const json* events = &root;
        if (root.is_object()) {
            if (!root.contains("traceEvents") || !root.at("traceEvents").is_array()) {
                throw Invalid{"traceEvents", "missing: not a trace-event file"};
            }
            events = &root.at("traceEvents");
        } else if (!root.is_array()) {
            throw Invalid{"", "not a trace-event file: expected an object or a list"};
        }
        for (size_t i = 0; i < events->size(); ++i) counterEvent(events->at(i), i);
        if (!mUnmapped.empty()) {
            std::string list;
            for (const std::string& s : mUnmapped)
                list += (list.empty() ? "\"" : ", \"") + s + "\"";
            mWarnings->push_back(mFile +
                                 ": counters not imported (no mapping; see --track): " + list);
        }
        if (mSeries.empty()) {
            throw Invalid{"",
                          "no counter series this import knows (GPU frequency, GPU busy, "
                          "battery drain); map them with --track"};
        }
        double originUs = INFINITY;
        for (const auto& [target, series] : mSeries) {
            for (const Point& p : series.points) originUs = std::min(originUs, p.tsUs);
        }
        mOriginUs = originUs;
        gpu();
        battery();
        for (const auto& [target, series] : mSeries) {
            for (const Point& p : series.points)
                mOut->durationMs = std::max(mOut->durationMs, ms(p));
        }
        if (mOut->durationMs <= 0) throw Invalid{"", "the imported counters span no time"};
    }

  private:
    int64_t ms(const Point& p) const { return std::llround((p.tsUs - mOriginUs) / 1000.0); }

    void counterEvent(const json& e, size_t index) {
        const std::string path = eventPath(index);
        if (!e.is_object()) throw Invalid{path, "must be an object"};
        if (!e.contains("ph") || e.at("ph") != "C") return;
        if (!e.contains("name") || !e.at("name").is_string()) {
            throw Invalid{path + ".name", "a counter event needs a name"};
        }
        if (!e.contains("ts") || !e.at("ts").is_number()) {
            throw Invalid{path + ".ts", "must be a number (microseconds)"};
        }
        if (!e.contains("args") || !e.at("args").is_object()) {
            throw Invalid{path + ".args", "a counter event needs an object of values"};
        }
        const std::string name = e.at("name").get<std::string>();
        const json& args = e.at("args");
        for (const auto& [key, value] : args.items()) {
            const std::string series = args.size() == 1 ? name : name + "." + key;
            const TrackMapping* mapping = nullptr;
            for (const TrackMapping& m : mOptions.mappings) {
                if (m.series == series) mapping = &m;
            }
            if (mapping == nullptr) {
                mUnmapped.insert(series);
                continue;
            }
            if (!value.is_number()) throw Invalid{path + ".args." + key, "must be a number"};
            auto [it, added] = mSeries.try_emplace(mapping->target);
            if (added) it->second.name = series;
            if (it->second.name != series) {
                throw Invalid{path, "counters \"" + it->second.name + "\" and \"" + series +
                                            "\" both feed " + targetName(mapping->target) +
                                            "; drop one with --track"};
            }
            const double v = value.get<double>() * mapping->factor;
            if (!std::isfinite(v)) throw Invalid{path + ".args." + key, "is not a finite number"};
            it->second.points.push_back(Point{index, e.at("ts").get<double>(), v});
        }
    }

    // Points in time order; of several at one millisecond the last in the file holds.
    std::vector<Point> ordered(Target target) const {
        auto it = mSeries.find(target);
        if (it == mSeries.end()) return {};
        std::vector<Point> points = it->second.points;
        std::stable_sort(points.begin(), points.end(),
                         [](const Point& a, const Point& b) { return a.tsUs < b.tsUs; });
        std::vector<Point> out;
        for (const Point& p : points) {
            if (!out.empty() && ms(out.back()) == ms(p)) out.pop_back();
            out.push_back(p);
        }
        return out;
    }

    void gpu() {
        const std::vector<Point> freq = ordered(Target::GpuFreqMhz);
        const std::vector<Point> busy = ordered(Target::GpuBusy);
        if (freq.empty()) {
            if (!busy.empty()) {
                throw Invalid{eventPath(busy.front().event),
                              "GPU busy without a GPU frequency series; map one with --track"};
            }
            return;
        }
        std::vector<uint64_t> table = mOptions.gpuTableMhz;
        if (table.empty()) {
            std::set<uint64_t> seen;
            for (const Point& p : freq) seen.insert(static_cast<uint64_t>(std::llround(p.value)));
            table.assign(seen.begin(), seen.end());
            std::string list;
            for (uint64_t f : table) list += (list.empty() ? "" : ", ") + std::to_string(f);
            mWarnings->push_back(mFile + ": no --gpu-table: the GPU's table is taken as the " +
                                 std::to_string(table.size()) + " frequencies the trace shows (" +
                                 list + " MHz)");
        }
        std::sort(table.begin(), table.end());
        if (table.size() < 2 || table.front() < 1) {
            throw Invalid{"",
                          "the GPU needs a table of two frequencies at least; give it with "
                          "--gpu-table"};
        }
        mOut->gpuFrequenciesMhz = table;
        for (const Point& p : freq) {
            if (p.value < static_cast<double>(table.front()) - 0.5 ||
                p.value > static_cast<double>(table.back()) + 0.5) {
                throw Invalid{eventPath(p.event),
                              StringPrintf("GPU frequency %g MHz is outside the table (%llu to "
                                           "%llu MHz)",
                                           p.value, static_cast<unsigned long long>(table.front()),
                                           static_cast<unsigned long long>(table.back()))};
            }
        }
        for (const Point& p : busy) {
            if (p.value < 0 || p.value > 100) {
                throw Invalid{eventPath(p.event),
                              StringPrintf("GPU busy %g%% is outside 0 to 100", p.value)};
            }
        }
        // A point wherever either series steps, with the other's value in force (busy 0 before
        // its first point).
        std::set<int64_t> times;
        for (const Point& p : freq) times.insert(ms(p));
        for (const Point& p : busy) times.insert(ms(p));
        size_t f = 0;
        size_t b = 0;
        for (int64_t t : times) {
            while (f + 1 < freq.size() && ms(freq[f + 1]) <= t) ++f;
            while (b < busy.size() && ms(busy[b]) <= t) ++b;
            GpuPoint point;
            point.timeMs = t;
            point.freqMhz = std::clamp(freq[f].value, static_cast<double>(table.front()),
                                       static_cast<double>(table.back()));
            point.busy = b == 0 ? 0 : busy[b - 1].value;
            if (!mOut->gpu.empty() && mOut->gpu.back().freqMhz == point.freqMhz &&
                mOut->gpu.back().busy == point.busy) {
                continue;
            }
            mOut->gpu.push_back(point);
        }
    }

    void battery() {
        for (const Point& p : ordered(Target::DrainMa)) {
            if (std::fabs(p.value) > kMaxDrainMa) {
                throw Invalid{eventPath(p.event),
                              StringPrintf("battery drain %g mA is beyond what a phone draws "
                                           "(100 A); check the mapping's factor",
                                           p.value)};
            }
            if (!mOut->battery.empty() && mOut->battery.back().drainMa == p.value) continue;
            BatteryPoint point;
            point.timeMs = ms(p);
            point.drainMa = p.value;
            mOut->battery.push_back(point);
        }
    }

    const TraceImport::Options& mOptions;
    Scenario* mOut;
    std::vector<std::string>* mWarnings;
    const std::string& mFile;
    std::map<Target, Series> mSeries;
    std::set<std::string> mUnmapped;
    double mOriginUs = 0;
};

}  // namespace

std::vector<TrackMapping> TrackMapping::defaults() {
    return {
            // pwr-sim's own trace.json.
            {"GPU frequency (MHz)", Target::GpuFreqMhz, 1},
            {"GPU busy (%)", Target::GpuBusy, 1},
            {"Battery drain (mA)", Target::DrainMa, 1},
            // Converted system traces: the kernel's GPU frequency event (kHz) and the battery
            // current (microamperes, negative while discharging).
            {"gpufreq", Target::GpuFreqMhz, 0.001},
            {"batt.current_ua", Target::DrainMa, -0.001},
    };
}

bool TrackMapping::parse(std::string_view text, TrackMapping* out, std::string* error) {
    const size_t equals = text.rfind('=');
    if (equals == std::string_view::npos || equals == 0) {
        *error = "\"" + std::string(text) + "\": expected <series>=<target>[*<factor>]";
        return false;
    }
    TrackMapping mapping;
    mapping.series = std::string(text.substr(0, equals));
    std::string target(text.substr(equals + 1));
    const size_t star = target.find('*');
    if (star != std::string::npos) {
        const std::string factor = target.substr(star + 1);
        char* end = nullptr;
        mapping.factor = strtod(factor.c_str(), &end);
        if (factor.empty() || *end != '\0' || !std::isfinite(mapping.factor) ||
            mapping.factor == 0) {
            *error = "\"" + std::string(text) + "\": \"" + factor + "\" is not a factor";
            return false;
        }
        target.erase(star);
    }
    bool known = false;
    for (const auto& [name, t] : kTargets) {
        if (target == name) {
            mapping.target = t;
            known = true;
        }
    }
    if (!known) {
        *error = "\"" + std::string(text) + "\": \"" + target +
                 "\" is not a trace; expected gpu_freq_mhz, gpu_busy or drain_ma";
        return false;
    }
    *out = std::move(mapping);
    return true;
}

bool TraceImport::run(std::string_view text, const std::string& name, const Options& options,
                      Scenario* out, std::vector<std::string>* warnings, std::string* error) {
    *out = Scenario{};
    out->file = name;
    json root;
    try {
        root = json::parse(text.begin(), text.end());
    } catch (const json::exception& e) {
        *error = name + ": not JSON: " + e.what();
        return false;
    }
    try {
        Reader(options, out, warnings, name).run(root);
    } catch (const Invalid& invalid) {
        *error =
                name + ": " + (invalid.where.empty() ? "" : invalid.where + ": ") + invalid.message;
        return false;
    }
    out->name = "Trace " + std::filesystem::path(name).filename().string();
    out->description = "Counters imported from " + name + ".";
    return true;
}

}  // namespace pwr::sim
