#include "host/fakeperf/FakePerf.h"

#include "platform/PowerOptClassifier.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <mutex>

namespace fakeperf {
namespace {

struct State {
    std::mutex mutex;
    // All fields below are guarded by mutex.
    std::map<std::string, int> appTypes;
    int defaultAppType = 0;
    bool failAcquire = false;
    int failResult = -1;
    bool recording = true;
    int nextHandle = 1;
    std::vector<Call> calls;
    std::map<int, std::vector<int>> held;  // by handle: in the order granted
    std::map<int, Resource> resources;
    std::function<void(const Call&)> observer;
};

State& state() {
    static State s;
    return s;
}

// Records `call` and hands it to the observer, outside the lock so the observer may query.
void record(State& s, std::unique_lock<std::mutex>& lock, Call&& call) {
    std::function<void(const Call&)> observer = s.observer;
    if (s.recording) s.calls.push_back(call);
    lock.unlock();
    if (observer) observer(call);
}

}  // namespace

void reset() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.appTypes.clear();
    s.defaultAppType = 0;
    s.failAcquire = false;
    s.failResult = -1;
    s.recording = true;
    s.nextHandle = 1;
    s.calls.clear();
    s.held.clear();
    s.resources.clear();
    s.observer = nullptr;
}

void setAppType(const std::string& app, int type) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.appTypes[app] = type;
}

void setDefaultAppType(int type) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.defaultAppType = type;
}

void setAcquireFailure(bool fail, int result) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.failAcquire = fail;
    s.failResult = result;
}

void setRecording(bool on) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.recording = on;
}

void setObserver(std::function<void(const Call&)> observer) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.observer = std::move(observer);
}

std::vector<Call> calls() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.calls;
}

std::map<int, std::vector<int>> heldLocks() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.held;
}

void setResources(std::map<int, Resource> resources) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.resources = std::move(resources);
}

TaskLoadBoost decodeTaskLoadBoost(int encoded) {
    const uint32_t bits = static_cast<uint32_t>(encoded);
    TaskLoadBoost boost;
    boost.pid = static_cast<int>(bits >> 8);
    boost.value = (bits & 0x80u) != 0 ? -static_cast<int>(bits & 0x7Fu) : 0;
    return boost;
}

Limits limits() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    Limits out;
    for (const auto& [handle, list] : s.held) {
        for (size_t i = 0; i + 1 < list.size(); i += 2) {
            auto it = s.resources.find(list[i]);
            if (it == s.resources.end()) continue;
            const Resource& resource = it->second;
            int value = list[i + 1];
            if (resource.kind == Resource::Kind::TaskLoadBoost) {
                const TaskLoadBoost boost = decodeTaskLoadBoost(value);
                out.boosts[boost.pid] = boost.value;
                continue;
            }
            if (!resource.levelsMhz.empty()) {
                const int top = static_cast<int>(resource.levelsMhz.size()) - 1;
                value = resource.levelsMhz[static_cast<size_t>(top - std::clamp(value, 0, top))];
            }
            if (resource.kind == Resource::Kind::MaxFreq) {
                auto [limit, added] = out.maxMhz.emplace(resource.target, value);
                if (!added) limit->second = std::min(limit->second, value);
            } else {
                auto [limit, added] = out.minMhz.emplace(resource.target, value);
                if (!added) limit->second = std::max(limit->second, value);
            }
        }
    }
    return out;
}

}  // namespace fakeperf

using fakeperf::Call;
using fakeperf::CallKind;

extern "C" int perf_lock_acq(int handle, int duration, int* list, int numArgs) {
    auto& s = fakeperf::state();
    std::unique_lock<std::mutex> lock(s.mutex);
    std::vector<int> args;
    if (list != nullptr && numArgs > 0) args.assign(list, list + numArgs);
    int result;
    if (s.failAcquire) {
        result = s.failResult;
    } else {
        result = s.nextHandle++;
        s.held[result] = args;
    }
    if (!s.recording && !s.observer) return result;
    Call call;
    call.kind = CallKind::LockAcquire;
    call.handle = handle;
    call.duration = duration;
    call.list = std::move(args);
    call.result = result;
    fakeperf::record(s, lock, std::move(call));
    return result;
}

extern "C" int perf_lock_rel(int handle) {
    auto& s = fakeperf::state();
    std::unique_lock<std::mutex> lock(s.mutex);
    int result = s.held.erase(handle) > 0 ? 0 : -1;
    if (!s.recording && !s.observer) return result;
    Call call;
    call.kind = CallKind::LockRelease;
    call.handle = handle;
    call.result = result;
    fakeperf::record(s, lock, std::move(call));
    return result;
}

#ifndef FAKEPERF_WITHOUT_HINT
extern "C" int perf_hint(int hintId, const char* pkg, int duration, int type) {
    auto& s = fakeperf::state();
    std::unique_lock<std::mutex> lock(s.mutex);
    int result = s.failAcquire ? s.failResult : s.nextHandle++;
    if (!s.recording && !s.observer) return result;
    Call call;
    call.kind = CallKind::Hint;
    call.hintId = hintId;
    call.app = pkg != nullptr ? pkg : "";
    call.duration = duration;
    call.hintType = type;
    call.result = result;
    fakeperf::record(s, lock, std::move(call));
    return result;
}
#endif

#ifndef FAKEPERF_WITHOUT_FEEDBACK
extern "C" int perf_get_feedback(int request, const char* app) {
    auto& s = fakeperf::state();
    std::unique_lock<std::mutex> lock(s.mutex);
    const std::string name = app != nullptr ? app : "";
    int result = -1;
    if (request == PowerOptClassifier::kAppTypeRequest) {
        auto it = s.appTypes.find(name);
        result = it != s.appTypes.end() ? it->second : s.defaultAppType;
    }
    if (!s.recording && !s.observer) return result;
    Call call;
    call.kind = CallKind::GetFeedback;
    call.request = request;
    call.app = name;
    call.result = result;
    fakeperf::record(s, lock, std::move(call));
    return result;
}
#endif
