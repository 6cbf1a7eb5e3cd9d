#pragma once

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

namespace pwr::tools {

// The time base of a replay, in milliseconds since the replay started.
class ReplayClock {
  public:
    virtual ~ReplayClock() = default;
    // Current time; called from any thread (timer threads print too).
    virtual int64_t nowMs() = 0;
    // Returns once the time has reached `ms`; the feature's timers fire meanwhile.
    virtual void advanceTo(int64_t ms) = 0;
};

// Wall-clock time: the plug-in's POSIX timers fire on their own threads while the replay sleeps.
class RealClock : public ReplayClock {
  public:
    RealClock() : mStart(std::chrono::steady_clock::now()) {}
    int64_t nowMs() override;
    void advanceTo(int64_t ms) override;

  private:
    const std::chrono::steady_clock::time_point mStart;
};

struct ReplayOptions {
    std::string pluginPath;  // the plug-in library to dlopen
    std::string configPath;  // XML feature configuration
    std::string eventsPath;  // event script
    std::string deviceRoot;  // fake device tree; empty: a fresh temporary one, removed after
    bool debug = false;      // set "vendor.debug.trace.power" before the feature is built
    bool timestamps = true;  // prefix each timeline line with its time
};

// Replays an event script against a plug-in exactly as the power service drives it: loads the
// library, finds the factory of the configuration's feature in the registry, builds the feature
// from the XML configuration, delivers each event at its time and deletes the feature. Writes the
// timeline (events, classifier queries, locks, the feature's log lines; one per line, in order)
// to `out` and errors to `err`. Returns the exit status: 0, or 1 when the configuration or script
// is invalid, the plug-in cannot be loaded, the feature's constructor threw, or the feature ended
// not ready.
int runReplay(const ReplayOptions& options, ReplayClock& clock, std::ostream& out,
              std::ostream& err);

}  // namespace pwr::tools
