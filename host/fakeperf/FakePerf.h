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

// The type "perf_get_feedback" answers for the application query (0x1601) on `app`;
// applications without an entry get the default (0 unless set).
void setAppType(const std::string& app, int type);
void setDefaultAppType(int type);

// While set, "perf_lock_acq" answers `result` (a value below 1) instead of granting a lock.
void setAcquireFailure(bool fail, int result = -1);

// Stop or resume recording calls (a benchmark makes millions).
void setRecording(bool on);

// Called on the calling thread after every recorded call, for tools that print as they go.
void setObserver(std::function<void(const Call&)> observer);

// Every recorded call so far, in order.
std::vector<Call> calls();

// Locks granted and not yet released: handle to opcode/value list.
std::map<int, std::vector<int>> heldLocks();

}  // namespace fakeperf
