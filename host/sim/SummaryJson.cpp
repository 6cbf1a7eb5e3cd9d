#include "host/sim/SummaryJson.h"

namespace pwr::sim {
namespace {

using nlohmann::json;

double seconds(int64_t ms) {
    return static_cast<double>(ms) / 1000.0;
}

json energyJson(const Summary::Energy& e) {
    return {{"name", e.name},
            {"start_s", seconds(e.startMs)},
            {"end_s", seconds(e.endMs)},
            {"charge_mah", e.chargeMah},
            {"average_ma", e.averageMa},
            {"gpu_saturated_s", seconds(e.saturatedMs)},
            {"gpu_demand_mcycles", e.demandMc},
            {"gpu_unserved_mcycles", e.unservedMc},
            {"gpu_unserved_pct", e.demandMc > 0 ? 100.0 * e.unservedMc / e.demandMc : 0.0}};
}

}  // namespace

json summaryJson(const Summary& summary, const Recording& recording) {
    json profiles = json::array();
    for (const Summary::ProfileTime& p : summary.profiles) {
        profiles.push_back(
                {{"name", p.name}, {"held_s", seconds(p.heldMs)}, {"taken", p.acquisitions}});
    }
    json modes = json::object();
    for (const auto& [mode, ms] : summary.msInMode) modes[std::to_string(mode)] = seconds(ms);
    json properties = json::array();
    for (const Summary::Property& p : summary.properties) {
        properties.push_back({{"name", p.name},
                              {"before", p.before ? json(*p.before) : json(nullptr)},
                              {"set", p.setTo},
                              {"after", p.after},
                              {"writes", p.writes},
                              {"restored", p.restored}});
    }
    json energy = nullptr;
    if (!summary.energy.empty()) {
        energy = energyJson(summary.energy.front());
        energy.erase("name");
        energy["battery_mah"] = summary.batteryMah;
        json phases = json::array();
        for (size_t i = 1; i < summary.energy.size(); ++i) {
            phases.push_back(energyJson(summary.energy[i]));
        }
        energy["phases"] = phases;
    }
    return {{"scenario", recording.scenarioName},
            {"scenario_file", recording.scenarioFile},
            {"config_file", recording.configFile},
            {"device_model",
             recording.deviceModelFile.empty() ? json(nullptr) : json(recording.deviceModelFile)},
            {"duration_s", seconds(summary.durationMs)},
            {"profiles", profiles},
            {"profile_switches", summary.profileSwitches},
            {"psm_mode_s", modes},
            {"gaming_on_s", seconds(summary.gamingOnMs)},
            {"deep_mode_s", seconds(summary.deepModeMs)},
            {"boost",
             {{"scaled_down_s", seconds(summary.boostedMs)}, {"locks", summary.boostAcquisitions}}},
            {"properties", properties},
            {"held_at_end", summary.heldAtEnd},
            {"unread_inputs", summary.unreadInputs},
            {"energy", energy}};
}

}  // namespace pwr::sim
