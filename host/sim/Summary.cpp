#include "host/sim/Summary.h"

#include <algorithm>
#include <cmath>

#include "feature/FeatureCodes.h"

#include <android-base/stringprintf.h>

namespace pwr::sim {
namespace {

using android::base::StringPrintf;
using pwr::codes::kGameStateOn;

std::string percent(int64_t part, int64_t whole) {
    return whole > 0 ? StringPrintf("%5.1f%%",
                                    100.0 * static_cast<double>(part) / static_cast<double>(whole))
                     : "   - ";
}

std::string quotedOrUnset(const std::optional<std::string>& value) {
    return value ? "\"" + *value + "\"" : "unset";
}

// The figures between two times, from the running totals at each.
Summary::Energy energyBetween(std::string name, int64_t from, int64_t to,
                              const RunningTotals& start, const RunningTotals& end) {
    Summary::Energy e;
    e.name = std::move(name);
    e.startMs = from;
    e.endMs = to;
    e.chargeMah = end.chargeMah - start.chargeMah;
    e.averageMa = to > from ? e.chargeMah * 3600000.0 / static_cast<double>(to - from) : 0;
    e.saturatedMs = std::llround(end.saturatedMs - start.saturatedMs);
    e.demandMc = end.demandMc - start.demandMc;
    e.unservedMc = end.unservedMc - start.unservedMc;
    return e;
}

std::vector<Summary::Energy> energyOf(const Recording& recording) {
    std::vector<Summary::Energy> out;
    if (recording.deviceModelFile.empty()) return out;
    const int64_t end = recording.durationMs;
    out.push_back(
            energyBetween("whole run", 0, end, recording.totalsAtStart, recording.totalsAtEnd));
    const std::vector<PhaseMark>& phases = recording.phases;
    for (size_t i = 0; i < phases.size(); ++i) {
        const bool last = i + 1 == phases.size();
        out.push_back(energyBetween(phases[i].name, phases[i].startMs,
                                    last ? end : phases[i + 1].startMs, phases[i].atStart,
                                    last ? recording.totalsAtEnd : phases[i + 1].atStart));
    }
    return out;
}

// The exact time a state counter held values that `keep` accepts.
template <typename Keep>
int64_t timeWhere(const Recording& recording, const char* key, Keep keep) {
    auto it = recording.counters.find(key);
    if (it == recording.counters.end()) return 0;
    int64_t total = 0;
    for (const auto& [value, ms] : it->second.msByValue) total += keep(value) ? ms : 0;
    return total;
}

}  // namespace

std::string formatTime(int64_t ms) {
    // Written out by hand: a long run's timeline formats millions of these.
    std::string out;
    if (ms < 0) {
        out.push_back('-');
        ms = -ms;
    }
    out += std::to_string(ms / 3600000);
    const auto two = [&out](int64_t v) {
        out.push_back(static_cast<char>('0' + v / 10));
        out.push_back(static_cast<char>('0' + v % 10));
    };
    out.push_back(':');
    two(ms / 60000 % 60);
    out.push_back(':');
    two(ms / 1000 % 60);
    out.push_back('.');
    out.push_back(static_cast<char>('0' + ms % 1000 / 100));
    two(ms % 100);
    return out;
}

Summary Summary::of(const Recording& recording) {
    Summary summary;
    const int64_t end = recording.durationMs;
    summary.durationMs = end;
    summary.energy = energyOf(recording);
    summary.batteryMah = recording.batteryMah;

    std::map<std::string, ProfileTime> profiles;
    int64_t profileMs = 0;
    for (const LockTotal& total : recording.lockTotals) {
        if (total.kind == LockSlice::Kind::Profile) {
            ProfileTime& time = profiles[total.name];
            time.name = total.name;
            time.heldMs += total.heldMs;
            time.acquisitions += total.taken;
            profileMs += total.heldMs;
        } else if (total.kind == LockSlice::Kind::TaskBoost && total.scaled) {
            summary.boostAcquisitions += total.taken;
            summary.boostedMsByPid[total.boostPid] += total.heldMs;
        }
    }
    summary.profileSwitches = recording.profileSwitches;
    summary.heldAtEnd = recording.heldAtEnd;
    for (auto& [name, time] : profiles) summary.profiles.push_back(time);
    std::stable_sort(
            summary.profiles.begin(), summary.profiles.end(),
            [](const ProfileTime& a, const ProfileTime& b) { return a.heldMs > b.heldMs; });
    summary.profiles.push_back(ProfileTime{"(none)", end - profileMs, 0});

    summary.boostedMs = timeWhere(recording, kCounterBoostedTasks, [](double v) { return v > 0; });
    auto mode = recording.counters.find(kCounterPsmMode);
    if (mode != recording.counters.end()) {
        for (const auto& [value, ms] : mode->second.msByValue) {
            summary.msInMode[static_cast<int>(value)] += ms;
        }
    }
    summary.gamingOnMs = timeWhere(recording, kCounterGameState,
                                   [](double v) { return static_cast<int>(v) == kGameStateOn; });
    summary.deepModeMs = timeWhere(recording, kCounterDeepState, [](double v) { return v != 0; });
    summary.unreadInputs = recording.unreadInputs;
    for (const auto& [name, history] : recording.properties) {
        Property property;
        property.name = name;
        property.before = history.before;
        property.setTo = history.first;
        property.after = history.last;
        property.writes = history.writes;
        property.restored = property.writes > 1 && property.after == history.before.value_or("0");
        summary.properties.push_back(property);
    }
    return summary;
}

void writeEnergy(const Summary& summary, const Recording& recording, std::ostream& out) {
    const Summary::Energy& run = summary.energy.front();
    out << "\nCharge and GPU performance (closed loop, device " << recording.deviceModelFile
        << ")\n";
    out << StringPrintf("  charge %.1f mAh, average %.0f mA", run.chargeMah, run.averageMa);
    if (summary.batteryMah > 0 && run.averageMa > 0) {
        out << StringPrintf(" (%.1f%% of %.0f mAh; %.1f h to empty at this rate)",
                            100.0 * run.chargeMah / summary.batteryMah, summary.batteryMah,
                            summary.batteryMah / run.averageMa);
    }
    out << StringPrintf("\n  GPU saturated %s %s, unserved work %.0f of %.0f Mcycles (%.1f%%)\n",
                        formatTime(run.saturatedMs).c_str(),
                        percent(run.saturatedMs, run.endMs - run.startMs).c_str(), run.unservedMc,
                        run.demandMc, run.demandMc > 0 ? 100.0 * run.unservedMc / run.demandMc : 0);
    if (summary.energy.size() < 2) return;
    const char* const row = "  %-9s %-11s %8s %7s  %9s %12s  %s\n";
    out << StringPrintf(row, "by phase", "from", "mAh", "avg mA", "saturated", "unserved Mc",
                        "phase");
    for (size_t i = 1; i < summary.energy.size(); ++i) {
        const Summary::Energy& e = summary.energy[i];
        out << StringPrintf(row, "", formatTime(e.startMs).c_str(),
                            StringPrintf("%.1f", e.chargeMah).c_str(),
                            StringPrintf("%.0f", e.averageMa).c_str(),
                            percent(e.saturatedMs, e.endMs - e.startMs).c_str(),
                            StringPrintf("%.0f", e.unservedMc).c_str(), e.name.c_str());
    }
}

void writeSummary(const Summary& summary, const Recording& recording, std::ostream& out) {
    const int64_t end = summary.durationMs;
    out << "Summary: " << recording.scenarioName << ", " << formatTime(end) << " simulated with "
        << recording.configFile << "\n\n";

    out << "Profile locks (time held)\n";
    size_t width = 6;
    for (const auto& p : summary.profiles) width = std::max(width, p.name.size());
    for (const auto& p : summary.profiles) {
        out << StringPrintf("  %-*s  %s  %s", static_cast<int>(width), p.name.c_str(),
                            formatTime(p.heldMs).c_str(), percent(p.heldMs, end).c_str());
        if (p.acquisitions > 0) out << StringPrintf("  taken %d time(s)", p.acquisitions);
        out << "\n";
    }
    out << "  profile switches: " << summary.profileSwitches << "\n";
    if (!recording.dynamicProfiles.empty()) {
        out << "  dynamic GPU profiles by level:";
        for (size_t i = 0; i < recording.dynamicProfiles.size(); ++i) {
            out << " " << i << " " << recording.dynamicProfiles[i];
        }
        out << "\n";
    }

    if (!summary.energy.empty()) writeEnergy(summary, recording, out);

    out << "\nPSM mode (time)\n";
    static const char* const kModes[] = {"off", "light", "gaming", "battery watch"};
    for (const auto& [mode, ms] : summary.msInMode) {
        out << StringPrintf("  %d %-14s %s  %s\n", mode,
                            mode >= 0 && mode <= 3 ? kModes[mode] : "?", formatTime(ms).c_str(),
                            percent(ms, end).c_str());
    }
    out << "  gaming usable mode on: " << formatTime(summary.gamingOnMs) << "  "
        << percent(summary.gamingOnMs, end) << "\n";
    // Deep mode is no PSM mode of its own: its time lies within the modes above.
    if (summary.deepModeMs > 0) {
        out << "  deep mode applied:     " << formatTime(summary.deepModeMs) << "  "
            << percent(summary.deepModeMs, end) << "\n";
    }

    out << "\nTask-load boost\n";
    out << "  time with a foreground task scaled down: " << formatTime(summary.boostedMs) << "  "
        << percent(summary.boostedMs, end) << "\n";
    out << "  boost locks with a scale: " << summary.boostAcquisitions << "\n";
    for (const auto& [pid, ms] : summary.boostedMsByPid) {
        out << StringPrintf("  pid %-7d %s\n", pid, formatTime(ms).c_str());
    }

    out << "\nProperties written by the feature\n";
    if (summary.properties.empty()) out << "  none\n";
    for (const auto& p : summary.properties) {
        out << "  " << p.name << ": " << quotedOrUnset(p.before) << " -> \"" << p.setTo << "\"";
        if (p.writes > 1) out << " -> ... -> \"" << p.after << "\"";
        out << StringPrintf(" (%d write%s): ", p.writes, p.writes == 1 ? "" : "s");
        if (p.restored) {
            out << (p.before ? "restored" : "restored as \"0\" (it was unset)");
        } else {
            out << (p.writes > 1 ? "NOT restored" : "left changed");
        }
        out << "\n";
    }

    out << "\nLocks held when the run ended\n";
    if (summary.heldAtEnd.empty()) out << "  none\n";
    for (const std::string& held : summary.heldAtEnd) out << "  " << held << "\n";
    for (const std::string& unread : summary.unreadInputs) out << "\nwarning: " << unread << "\n";
}

}  // namespace pwr::sim
