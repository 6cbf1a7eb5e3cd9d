// pwr-sim's scenario reader, on arbitrary text. Reading must never crash and never throw; a
// refused scenario gets one line naming the file. A scenario read with its events kept and read
// again with them streamed must hand over the same events, in time order, within the duration:
// the simulator streams them, the importers and tests keep them.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "host/sim/Scenario.h"

using pwr::sim::Scenario;
using pwr::sim::ScenarioEvent;

namespace {

std::string describe(const ScenarioEvent& e) {
    return std::to_string(e.timeMs) + (e.hasEvent ? " " + e.event.describe() : "") + " " + e.note;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    pwr::fuzz::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    Scenario kept;
    std::string error;
    if (!Scenario::parseText(text, "fuzz.json", &kept, &error)) {
        pwr::fuzz::check(error.rfind("fuzz.json", 0) == 0, "a refusal names the file");
        pwr::fuzz::check(
                error.find('\n') == std::string::npos && error.find('\0') == std::string::npos,
                "a refusal is one printable line");
        return 0;
    }
    pwr::fuzz::check(kept.durationMs > 0, "a scenario has a duration");
    pwr::fuzz::check(kept.eventCount == kept.events.size(), "every event is kept when asked");

    Scenario streamed;
    pwr::fuzz::check(Scenario::parseText(text, "fuzz.json", &streamed, &error, false),
                     "a scenario read once reads again with its events streamed");
    pwr::fuzz::check(streamed.events.empty() && streamed.eventCount == kept.eventCount,
                     "streamed events are counted, not kept");
    size_t index = 0;
    int64_t last = 0;
    const bool all = streamed.forEachEvent(
            [&](const ScenarioEvent& e) {
                pwr::fuzz::check(index < kept.events.size(), "no event more than kept");
                pwr::fuzz::check(describe(e) == describe(kept.events[index]),
                                 "the streamed event is the kept one");
                pwr::fuzz::check(e.timeMs >= last && e.timeMs <= kept.durationMs,
                                 "events come in time order within the duration");
                last = e.timeMs;
                ++index;
                return true;
            },
            &error);
    pwr::fuzz::check(all && index == kept.events.size(), "every event is handed over");
    return 0;
}
