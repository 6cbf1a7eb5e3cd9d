#include "host/sim/CaptureImport.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <set>

#include <android-base/stringprintf.h>

#include "host/tools/EventScript.h"

namespace pwr::sim {
namespace {

using android::base::StringPrintf;

constexpr uint64_t kHzPerMhz = 1000000;
constexpr double kMaxDrainMa = 100000;  // what a scenario accepts
constexpr size_t kMaxPropertyValue = 91;
// A step between samples longer than this many periods is a gap.
constexpr int64_t kGapPeriods = 2;

struct Invalid {
    int line;
    std::string message;
};

[[noreturn]] void fail(int line, const std::string& message) {
    throw Invalid{line, message};
}

std::string secondsText(int64_t ms) {
    return StringPrintf("%g s", static_cast<double>(ms) / 1000.0);
}

// `value` to `decimals` places, as the nearest double to that decimal (so it prints short).
double rounded(double value, int decimals) {
    const double scale = std::pow(10.0, decimals);
    return std::round(value * scale) / scale;
}

std::string mhzList(const std::vector<uint64_t>& mhz) {
    std::string text;
    for (uint64_t f : mhz) text += (text.empty() ? "" : ", ") + std::to_string(f);
    return text + " MHz";
}

class Importer {
  public:
    Importer(const Capture& capture, const AppCatalogue* catalogue, Scenario* out,
             std::vector<std::string>* warnings)
        : mCapture(capture),
          mSamples(capture.samples),
          mCatalogue(catalogue),
          mOut(out),
          mWarnings(warnings) {}

    void run() {
        if (mSamples.size() < 2) {
            fail(mSamples.empty() ? 0 : mSamples[0].line,
                 "a capture needs two samples at least; this one has " +
                         std::to_string(mSamples.size()));
        }
        mStartMs = mSamples.front().timeMs;
        times();
        frequencyTable();
        gpu();
        battery();
        foreground();
        activity();
        properties();
        missingNodes();
        std::stable_sort(
                mOut->events.begin(), mOut->events.end(),
                [](const ScenarioEvent& a, const ScenarioEvent& b) { return a.timeMs < b.timeMs; });
        mOut->durationMs = mSamples.back().timeMs - mStartMs;
        mOut->name = "Capture " + std::filesystem::path(mCapture.file).filename().string();
        mOut->description =
                StringPrintf("Imported from %s: %zu samples every %s", mCapture.file.c_str(),
                             mSamples.size(), secondsText(mCapture.periodMs).c_str()) +
                (mCapture.model.empty() ? "" : " on " + mCapture.model) + ".";
    }

  private:
    std::string where(int line) const {
        return mCapture.file + (line > 0 ? ":" + std::to_string(line) : "") + ": ";
    }
    void warn(int line, const std::string& message) { mWarnings->push_back(where(line) + message); }
    int64_t since(const CaptureSample& s) const { return s.timeMs - mStartMs; }

    void note(int64_t ms, const std::string& text) {
        ScenarioEvent event;
        event.timeMs = ms;
        event.note = text;
        mOut->events.push_back(std::move(event));
    }

    // Times must grow; a step much longer than the period is a gap the traces hold across.
    void times() {
        int64_t period = mCapture.periodMs;
        if (period <= 0) {
            period = mSamples[1].timeMs - mSamples[0].timeMs;
            for (size_t i = 1; i < mSamples.size(); ++i) {
                period = std::min(period, mSamples[i].timeMs - mSamples[i - 1].timeMs);
            }
        }
        for (size_t i = 1; i < mSamples.size(); ++i) {
            const CaptureSample& before = mSamples[i - 1];
            const CaptureSample& s = mSamples[i];
            const int64_t step = s.timeMs - before.timeMs;
            if (step <= 0) {
                fail(s.line, StringPrintf("sample: time %s is not after the previous sample's "
                                          "(line %d); the phone's uptime went back: a reboot, "
                                          "or captures joined",
                                          secondsText(s.timeMs).c_str(), before.line));
            }
            if (period > 0 && step > kGapPeriods * period) {
                warn(s.line,
                     "no sample for " + secondsText(step) +
                             " before this one (the previous is on "
                             "line " +
                             std::to_string(before.line) +
                             "): a gap (the phone slept, or the capture stalled); the traces "
                             "hold their values across it");
                note(since(before), "capture gap: no sample from " + secondsText(since(before)) +
                                            " to " + secondsText(since(s)));
            }
        }
    }

    void frequencyTable() {
        const int line = mCapture.frequenciesLine;
        bool offMhz = false;
        for (uint64_t hz : mCapture.frequenciesHz) {
            offMhz = offMhz || hz % kHzPerMhz != 0;
            const uint64_t mhz = (hz + kHzPerMhz / 2) / kHzPerMhz;
            if (mhz < 1 || mhz > 4294) {
                fail(line, StringPrintf("gpu_available_frequencies: %llu Hz is not a GPU "
                                        "frequency (1 to 4294 MHz)",
                                        static_cast<unsigned long long>(hz)));
            }
            if (std::find(mTable.begin(), mTable.end(), mhz) != mTable.end()) {
                fail(line,
                     "gpu_available_frequencies: " + std::to_string(mhz) + " MHz is listed twice");
            }
            mTable.push_back(mhz);
        }
        std::sort(mTable.begin(), mTable.end());
        if (offMhz) {
            warn(line,
                 "gpu_available_frequencies: frequencies that are not whole MHz are "
                 "rounded: " +
                         mhzList(mTable));
        }
        for (const CaptureSample& s : mSamples) {
            const bool gpu = s.clockStats || s.gpuclkHz;
            if (gpu && mTable.size() < 2) {
                fail(mTable.empty() ? s.lines.at(s.clockStats ? "gpu_clock_stats" : "gpuclk")
                                    : line,
                     mTable.empty() ? "GPU nodes without a frequency table "
                                      "(gpu_available_frequencies, in the header)"
                                    : "gpu_available_frequencies: the simulator needs two "
                                      "frequencies at least");
            }
        }
    }

    // The table's frequency that gpuclk read at `s`, checked against the table.
    std::optional<double> clockMhz(const CaptureSample& s) const {
        if (!s.gpuclkHz) return std::nullopt;
        const uint64_t hz = *s.gpuclkHz;
        const uint64_t mhz = (hz + kHzPerMhz / 2) / kHzPerMhz;
        if (std::find(mTable.begin(), mTable.end(), mhz) == mTable.end()) {
            fail(s.lines.at("gpuclk"),
                 StringPrintf("gpuclk: %llu Hz is not in the frequency table of line %d (",
                              static_cast<unsigned long long>(hz), mCapture.frequenciesLine) +
                         mhzList(mTable) + "): a capture from a device with another table");
        }
        return static_cast<double>(mhz);
    }

    // One point per interval between samples with clock statistics, placed at its start: the
    // time-weighted frequency and residency from the counters' deltas over the interval, and the
    // busy share read at its start, held as any reading is until the next one.
    void gpu() {
        if (mTable.empty()) return;
        mOut->gpuFrequenciesMhz = mTable;
        const CaptureSample* previous = nullptr;
        std::optional<double> busy;
        std::optional<double> clockThen;
        double busyThen = 0;
        for (const CaptureSample& s : mSamples) {
            const std::optional<double> clock = clockMhz(s);
            if (s.gpubusy) {
                const auto [busyTime, total] = *s.gpubusy;
                busy = total == 0 ? 0.0
                                  : rounded(std::min(100.0, 100.0 * static_cast<double>(busyTime) /
                                                                    static_cast<double>(total)),
                                            2);
            }
            if (!s.clockStats) continue;
            const std::vector<uint64_t>& stats = *s.clockStats;
            if (stats.size() != mTable.size()) {
                fail(s.lines.at("gpu_clock_stats"),
                     StringPrintf("gpu_clock_stats: %zu counters, but the frequency table of "
                                  "line %d has %zu frequencies (",
                                  stats.size(), mCapture.frequenciesLine, mTable.size()) +
                             mhzList(mTable) + "): a capture from a device with another table");
            }
            if (previous != nullptr) point(*previous, s, clockThen, busyThen);
            previous = &s;
            clockThen = clock;
            busyThen = busy.value_or(0);
        }
    }

    void point(const CaptureSample& from, const CaptureSample& to, std::optional<double> clock,
               double busy) {
        const std::vector<uint64_t>& before = *from.clockStats;
        const std::vector<uint64_t>& after = *to.clockStats;
        GpuPoint p;
        p.timeMs = since(from);
        p.busy = busy;
        const double fallback =
                mOut->gpu.empty() ? static_cast<double>(mTable.front()) : mOut->gpu.back().freqMhz;
        p.freqMhz = clock.value_or(fallback);
        uint64_t total = 0;
        for (size_t i = 0; i < after.size(); ++i) {
            const uint64_t mhz = mTable[mTable.size() - 1 - i];  // highest first
            if (after[i] < before[i]) {
                warn(to.lines.at("gpu_clock_stats"),
                     StringPrintf("gpu_clock_stats: the counter of %llu MHz went back from %llu "
                                  "to %llu (a driver reset): the interval from %s to %s takes "
                                  "the frequency gpuclk read at its start, without residency",
                                  static_cast<unsigned long long>(mhz),
                                  static_cast<unsigned long long>(before[i]),
                                  static_cast<unsigned long long>(after[i]),
                                  secondsText(since(from)).c_str(),
                                  secondsText(since(to)).c_str()));
                note(p.timeMs, StringPrintf("capture: the GPU time counters went back (line %d)",
                                            to.lines.at("gpu_clock_stats")));
                total = 0;
                p.residency.clear();
                break;
            }
            const uint64_t delta = after[i] - before[i];
            if (delta > 0) p.residency[mhz] = static_cast<double>(delta);
            total += delta;
        }
        // No time counted (the GPU was off): the frequency gpuclk read stands.
        if (total > 0) {
            double mean = 0;
            for (auto& [mhz, share] : p.residency) {
                share /= static_cast<double>(total);
                mean += static_cast<double>(mhz) * share;
                share = rounded(share, 4);
            }
            p.freqMhz = std::clamp(rounded(mean, 3), static_cast<double>(mTable.front()),
                                   static_cast<double>(mTable.back()));
        }
        if (!mOut->gpu.empty()) {
            const GpuPoint& last = mOut->gpu.back();
            if (last.freqMhz == p.freqMhz && last.busy == p.busy && last.residency == p.residency)
                return;
        }
        mOut->gpu.push_back(std::move(p));
    }

    void battery() {
        for (const CaptureSample& s : mSamples) {
            if (!s.currentUa) continue;
            const double drain = -static_cast<double>(*s.currentUa) / 1000.0;
            if (std::fabs(drain) > kMaxDrainMa) {
                fail(s.lines.at("current_now"),
                     StringPrintf("current_now: %lld uA is beyond what a phone draws (100 A); "
                                  "the node may count in another unit",
                                  static_cast<long long>(*s.currentUa)));
            }
            if (!mOut->battery.empty() && mOut->battery.back().drainMa == drain) continue;
            BatteryPoint p;
            p.timeMs = since(s);
            p.drainMa = drain;
            mOut->battery.push_back(p);
        }
    }

    void foreground() {
        std::map<int, std::string> names;
        for (const CaptureSample& s : mSamples) {
            for (const auto& [pid, name] : s.cmdlines) names[pid] = name.value_or("");
            if (!s.top) continue;
            ForegroundPoint p;
            p.timeMs = since(s);
            std::set<int> seen;
            for (int pid : *s.top) {
                if (!seen.insert(pid).second) {
                    fail(s.lines.at("top"), "top: pid " + std::to_string(pid) + " is listed twice");
                }
                auto name = names.find(pid);
                if (name == names.end()) {
                    warn(s.lines.at("top"),
                         "top: pid " + std::to_string(pid) +
                                 " has no cmdline line before it: taken as a kernel thread (an "
                                 "empty command line)");
                    name = names.emplace(pid, "").first;
                }
                p.processes.push_back(ForegroundProcess{pid, name->second});
            }
            if (!mOut->foreground.empty()) {
                const auto& last = mOut->foreground.back().processes;
                const bool same =
                        std::equal(last.begin(), last.end(), p.processes.begin(), p.processes.end(),
                                   [](const ForegroundProcess& a, const ForegroundProcess& b) {
                                       return a.pid == b.pid && a.cmdline == b.cmdline;
                                   });
                if (same) continue;
            }
            mOut->foreground.push_back(std::move(p));
        }
    }

    void appEvent(int64_t ms, const std::string& verb, const std::string& component, int line) {
        ScenarioEvent event;
        event.timeMs = ms;
        std::string message;
        if (!tools::EventScript::parseEvent(verb + " " + component, &event.event, &message)) {
            fail(line, "activity: \"" + component + "\": " + message);
        }
        event.event.timeMs = ms;
        event.hasEvent = true;
        mOut->events.push_back(std::move(event));
    }

    // A change of the resumed activity's package is an app change: the host reports the stop of
    // the one before and the start of the new one.
    void activity() {
        std::string component;
        std::string package;
        std::vector<std::string> uncovered;
        for (const CaptureSample& s : mSamples) {
            if (!s.activity) continue;
            const std::string& now = *s.activity;
            const std::string nowPackage = now.substr(0, now.find('/'));
            if (nowPackage == package) continue;
            const int line = s.lines.at("activity");
            if (!component.empty()) appEvent(since(s), "stop", component, line);
            if (!now.empty()) {
                appEvent(since(s), "start", now, line);
                const bool listed = std::any_of(
                        mOut->apps.begin(), mOut->apps.end(),
                        [&](const tools::ScriptApp& app) { return app.package == nowPackage; });
                auto type = mCatalogue ? mCatalogue->types.find(nowPackage)
                                       : std::map<std::string, int>::const_iterator{};
                if (mCatalogue != nullptr && type != mCatalogue->types.end()) {
                    if (!listed)
                        mOut->apps.push_back(tools::ScriptApp{nowPackage, type->second, 0});
                } else if (std::find(uncovered.begin(), uncovered.end(), nowPackage) ==
                           uncovered.end()) {
                    uncovered.push_back(nowPackage);
                }
            }
            component = now;
            package = nowPackage;
        }
        if (!uncovered.empty()) {
            std::string list;
            for (const std::string& p : uncovered) list += (list.empty() ? "" : ", ") + p;
            mWarnings->push_back((mCatalogue != nullptr ? mCatalogue->file + ": does not cover "
                                                        : std::string("no catalogue given: ")) +
                                 list + " (the classifier answers type 0, other, for " +
                                 (uncovered.size() == 1 ? "it" : "them") + ")");
        }
    }

    void properties() {
        for (const Capture::Property& p : mCapture.properties) {
            if (p.name.find('/') != std::string::npos) {
                fail(p.line, "prop: \"" + p.name + "\" is not a property name");
            }
            if (p.value.size() > kMaxPropertyValue) {
                fail(p.line, "prop: the value of " + p.name +
                                     " is longer than a property value may be (91)");
            }
            if (!p.value.empty()) mOut->properties[p.name] = p.value;
        }
    }

    // One warning per node and kind: unreadable on the phone, or no line in the capture.
    void missingNodes() {
        for (const char* key : kCaptureNodeKeys) {
            std::vector<int> unreadable;
            std::vector<int> noLine;
            for (const CaptureSample& s : mSamples) {
                if (s.missing.count(key) != 0) {
                    unreadable.push_back(s.lines.at(key));
                } else if (s.lines.count(key) == 0) {
                    noLine.push_back(s.line);
                }
            }
            const size_t absent = unreadable.size() + noLine.size();
            if (absent == mSamples.size()) {
                warn(0, std::string(key) + " was read in no sample: the scenario has no " +
                                trace(key) + " trace");
                continue;
            }
            report(key, unreadable, "could not be read on the phone");
            report(key, noLine, "has no line in the sample");
        }
    }

    static std::string trace(const std::string& key) {
        if (key == "current_now") return "battery";
        if (key == "top") return "foreground";
        return "GPU";
    }

    void report(const std::string& key, const std::vector<int>& lines, const char* what) {
        if (lines.empty()) return;
        std::string text = key + " " + what;
        if (lines.size() > 1) {
            text += StringPrintf(" in %zu samples, the first here, the last on line %d",
                                 lines.size(), lines.back());
        }
        warn(lines.front(), text + ": the " + trace(key) + " trace holds its previous value there");
    }

    const Capture& mCapture;
    const std::vector<CaptureSample>& mSamples;
    const AppCatalogue* mCatalogue;
    Scenario* mOut;
    std::vector<std::string>* mWarnings;
    int64_t mStartMs = 0;
    std::vector<uint64_t> mTable;  // MHz, ascending
};

}  // namespace

bool CaptureImport::run(const Capture& capture, const AppCatalogue* catalogue, Scenario* out,
                        std::vector<std::string>* warnings, std::string* error) {
    *out = Scenario{};
    out->file = capture.file;
    try {
        Importer(capture, catalogue, out, warnings).run();
    } catch (const Invalid& invalid) {
        *error = capture.file + (invalid.line > 0 ? ":" + std::to_string(invalid.line) : "") +
                 ": " + invalid.message;
        return false;
    }
    return true;
}

}  // namespace pwr::sim
