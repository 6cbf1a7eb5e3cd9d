#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "host/sim/Recording.h"

namespace pwr::sim {

// The figures a power engineer looks at first, computed from a recording.
struct Summary {
    struct ProfileTime {
        std::string name;  // configured profile name(s), or "(none)"
        int64_t heldMs = 0;
        int acquisitions = 0;
    };
    struct Property {
        std::string name;
        std::optional<std::string> before;  // none: unset
        std::string setTo;                  // the first value the feature wrote
        std::string after;                  // the value at the end
        int writes = 0;
        bool restored = false;  // written back to what it was (an unset one counts as "0")
    };

    // Charge and GPU performance over a span of a closed-loop run.
    struct Energy {
        std::string name;  // "whole run", or the note that starts the phase
        int64_t startMs = 0;
        int64_t endMs = 0;
        double chargeMah = 0;
        double averageMa = 0;
        int64_t saturatedMs = 0;  // GPU demand above what the allowed frequency serves
        double demandMc = 0;      // GPU work asked for, megacycles
        double unservedMc = 0;    // of which not served
    };

    int64_t durationMs = 0;
    // Closed loop only (empty otherwise): the whole run first, then each phase of the scenario,
    // from each note to the next (from the start until the first note when it comes later).
    std::vector<Energy> energy;
    double batteryMah = 0;
    std::vector<ProfileTime> profiles;  // profile locks by time held, "(none)" last
    int profileSwitches = 0;            // acquisitions of a profile other than the one held before
    int64_t boostedMs = 0;              // time with at least one foreground task scaled down
    int boostAcquisitions = 0;          // task-load boost locks carrying a scale
    std::map<int, int64_t> boostedMsByPid;
    std::map<int, int64_t> msInMode;  // PSM mode -> time
    int64_t gamingOnMs = 0;
    int64_t deepModeMs = 0;                 // with deep mode's profile and properties applied
    std::vector<std::string> unreadInputs;  // input traces the feature never read
    std::vector<Property> properties;
    std::vector<std::string> heldAtEnd;  // locks still held when the run ended

    static Summary of(const Recording& recording);
};

// The summary as text: a few aligned tables.
void writeSummary(const Summary& summary, const Recording& recording, std::ostream& out);

// "h:mm:ss.mmm".
std::string formatTime(int64_t ms);

}  // namespace pwr::sim
