#pragma once

// Control interface of the host's fake performance client library, built under the device
// library's own name ("libvyr-perfd-client.so"). The plug-in reaches it only through dlopen and
// its four C entry points; tests and tools link it to script answers and read back every call.

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace fakeperf {

enum class CallKind { LockAcquire, LockRelease, Hint, GetFeedback };

// One call into the library, in the order the calls were made.
struct Call {
    CallKind kind = CallKind::LockAcquire;
    int handle = 0;         // LockAcquire: the handle argument; LockRelease: the handle released
    int duration = 0;       // LockAcquire, Hint
    std::vector<int> list;  // LockAcquire: the opcode/value list as passed
    int hintId = 0;         // Hint
    int hintType = 0;       // Hint
    int request = 0;        // GetFeedback: the request code
    std::string app;        // GetFeedback, Hint: the application text
    int result = 0;         // what the library answered
};

// Forgets every call, answer and held lock; handles start again at 1.
void reset();

// The type "perf_get_feedback" answers for the application-type query on `app`;
// applications without an entry get the default (0 unless set).
void setAppType(const std::string& app, int type);
void setDefaultAppType(int type);

// While set, "perf_lock_acq" answers `result` (a value below 1) instead of granting a lock.
void setAcquireFailure(bool fail, int result = -1);

// Stop or resume keeping calls for calls() (a benchmark or a long simulation makes millions);
// the observer sees them either way.
void setRecording(bool on);

// Called on the calling thread after every recorded call, for tools that print as they go.
void setObserver(std::function<void(const Call&)> observer);

// Every recorded call so far, in order.
std::vector<Call> calls();

// Locks granted and not yet released: handle to opcode/value list.
std::map<int, std::vector<int>> heldLocks();

// What a resource opcode does on the simulated device, so that held locks become its limits.
struct Resource {
    enum class Kind { MaxFreq, MinFreq, TaskLoadBoost };
    Kind kind = Kind::MaxFreq;
    std::string target;  // the clock limited: "gpu", "cpu0", "cpu1", ...
    // Ascending MHz. Empty: the value is a frequency in MHz. Otherwise the value is a level
    // counted down from the highest of these (0 the highest; past the lowest, the lowest).
    std::vector<int> levelsMhz;
};

// Sets the device's resource table; reset() empties it. Opcodes not in it limit nothing.
void setResources(std::map<int, Resource> resources);

// A task-load boost value as the library reads it: the process id in bits 31..8; bit 7 marks a
// scale-down whose magnitude fills bits 6..0, so any other value carries no scale (0).
struct TaskLoadBoost {
    int pid = 0;
    int value = 0;  // 0 or negative
};
TaskLoadBoost decodeTaskLoadBoost(int encoded);

// What the held locks impose on the device under the resource table: for each clock the lowest
// maximum and the highest minimum requested, and each process's boost from its latest lock.
struct Limits {
    std::map<std::string, int> maxMhz;
    std::map<std::string, int> minMhz;
    std::map<int, int> boosts;  // pid -> value of its most recently granted held boost
};
Limits limits();

}  // namespace fakeperf
