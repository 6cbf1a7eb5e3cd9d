#include "host/tools/Replay.h"

#include <android/log.h>
#include <cxxabi.h>
#include <stdlib.h>

#include <climits>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <thread>
#include <typeinfo>
#include <vector>

#include <android-base/stringprintf.h>

#include "host/PluginHost.h"
#include "host/fakeperf/FakePerf.h"
#include "host/tools/EventScript.h"
#include "host/tools/FeatureConfigXml.h"
#include "host/tools/FeatureKeys.h"
#include "platform/Mutex.h"
#include "platform/Properties.h"
#include "platform/hostshim/DeviceRoot.h"

namespace pwr::tools {
namespace {

using android::base::StringPrintf;

constexpr char kTool[] = "pwr-replay";
constexpr char kDebugProperty[] = "vendor.debug.trace.power";
constexpr char kPluginLogTag[] = "ANDR-PWR-OPT";

// "{0x40C00000: 1, 0x40804000: 1500}": opcodes in hex, values in decimal; an odd trailing
// element is shown alone.
std::string formatList(const std::vector<int>& list) {
    std::string text = "{";
    for (size_t i = 0; i < list.size(); i += 2) {
        if (i > 0) text += ", ";
        text += StringPrintf("0x%08X", static_cast<unsigned>(list[i]));
        if (i + 1 < list.size()) text += StringPrintf(": %d", list[i + 1]);
    }
    return text + "}";
}

std::string formatDuration(int duration) {
    return duration == INT_MAX ? "INT_MAX" : StringPrintf("%d ms", duration);
}

// Where every line of a replay goes, shared by the replay thread, the feature's timer threads
// (through liblog's logger hook) and the fake performance library's observer. Process-wide,
// because liblog's hook is a plain function pointer and a late timer thread may still call in
// after the replay ended; lines arriving while detached are dropped.
class Timeline {
  public:
    static Timeline& get() {
        static Timeline timeline;
        return timeline;
    }

    void attach(std::ostream* out, ReplayClock* clock, bool timestamps) {
        MutexLock lock(mMutex);
        mOut = out;
        mClock = clock;
        mTimestamps = timestamps;
        mLocks.clear();
        mWatched.clear();
        mWatchedSeen = false;
    }

    void detach() {
        MutexLock lock(mMutex);
        mOut = nullptr;
        mClock = nullptr;
    }

    void line(const char* kind, const std::string& text) {
        MutexLock lock(mMutex);
        lineLocked(kind, text);
    }

    void onLog(const __android_logger_data* data, const char* message) {
        std::string text = message != nullptr ? message : "";
        // One line each: trailing line feeds (some formats end in "\n") are dropped, inner ones
        // shown escaped.
        while (!text.empty() && text.back() == '\n') text.pop_back();
        for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 2)) {
            text.replace(at, 1, "\\n");
        }
        const char* tag = data != nullptr && data->tag != nullptr ? data->tag : "";
        if (strcmp(tag, kPluginLogTag) != 0) text = std::string("[") + tag + "] " + text;
        MutexLock lock(mMutex);
        if (!mWatched.empty() && text.size() >= mWatched.size() &&
            text.compare(text.size() - mWatched.size(), mWatched.size(), mWatched) == 0) {
            mWatchedSeen = true;
        }
        lineLocked("log", text);
    }

    void onPerfCall(const fakeperf::Call& call) {
        MutexLock lock(mMutex);
        switch (call.kind) {
            case fakeperf::CallKind::LockAcquire:
                if (call.result >= 1) {
                    mLocks[call.result] = call.list;
                    lineLocked("lock", StringPrintf("acquired #%d %s for %s", call.result,
                                                    formatList(call.list).c_str(),
                                                    formatDuration(call.duration).c_str()));
                } else {
                    lineLocked("lock", StringPrintf("refused (%d) %s", call.result,
                                                    formatList(call.list).c_str()));
                }
                break;
            case fakeperf::CallKind::LockRelease: {
                auto it = mLocks.find(call.handle);
                if (it == mLocks.end()) {
                    lineLocked("lock", StringPrintf("released #%d, which was not held (%d)",
                                                    call.handle, call.result));
                } else {
                    lineLocked("lock", StringPrintf("released #%d %s", call.handle,
                                                    formatList(it->second).c_str()));
                    mLocks.erase(it);
                }
                break;
            }
            case fakeperf::CallKind::Hint:
                lineLocked("perfhint",
                           StringPrintf("perf_hint(0x%X, \"%s\", %s, %d) -> %d",
                                        static_cast<unsigned>(call.hintId), call.app.c_str(),
                                        formatDuration(call.duration).c_str(), call.hintType,
                                        call.result));
                break;
            case fakeperf::CallKind::GetFeedback:
                lineLocked("query", StringPrintf("perf_get_feedback(0x%X, \"%s\") -> %d",
                                                 static_cast<unsigned>(call.request),
                                                 call.app.c_str(), call.result));
                break;
        }
    }

    // Watches for a log line ending with `suffix` from now on.
    void watchLog(const std::string& suffix) {
        MutexLock lock(mMutex);
        mWatched = suffix;
        mWatchedSeen = false;
    }

    // True when a line ending with the watched text was logged since watchLog().
    bool watchedLogSeen() {
        MutexLock lock(mMutex);
        return mWatchedSeen;
    }

  private:
    void lineLocked(const char* kind, const std::string& text) REQUIRES(mMutex) {
        if (mOut == nullptr) return;
        if (mTimestamps && mClock != nullptr) {
            *mOut << StringPrintf("%7lld ms  ", static_cast<long long>(mClock->nowMs()));
        }
        std::string body = StringPrintf("%-8s %s", kind, text.c_str());
        while (!body.empty() && body.back() == ' ') body.pop_back();
        *mOut << body << '\n';
        mOut->flush();
    }

    Mutex mMutex;
    std::ostream* mOut GUARDED_BY(mMutex) = nullptr;
    ReplayClock* mClock GUARDED_BY(mMutex) = nullptr;
    bool mTimestamps GUARDED_BY(mMutex) = true;
    std::map<int, std::vector<int>> mLocks GUARDED_BY(mMutex);  // granted handle -> list
    std::string mWatched GUARDED_BY(mMutex);
    bool mWatchedSeen GUARDED_BY(mMutex) = false;
};

void timelineLogger(const __android_logger_data* data, const char* message) {
    Timeline::get().onLog(data, message);
}

// Routes the fake library's calls and liblog's lines into the timeline while alive.
class TimelineSession {
  public:
    TimelineSession(std::ostream& out, ReplayClock& clock, bool timestamps) {
        Timeline::get().attach(&out, &clock, timestamps);
        fakeperf::setObserver([](const fakeperf::Call& call) { Timeline::get().onPerfCall(call); });
        __android_log_set_logger(timelineLogger);
    }
    ~TimelineSession() {
        __android_log_set_logger(__android_log_stderr_logger);
        fakeperf::setObserver(nullptr);
        Timeline::get().detach();
    }
    TimelineSession(const TimelineSession&) = delete;
    TimelineSession& operator=(const TimelineSession&) = delete;
};

// Makes `root` (or a fresh temporary directory) the fake device root while alive, and puts the
// previous root back afterwards; a temporary tree is removed.
class DeviceRootSession {
  public:
    bool open(const std::string& root, std::string* error) {
        mPrevious = host::deviceRoot();
        std::error_code ec;
        if (root.empty()) {
            std::string templ =
                    std::filesystem::temp_directory_path(ec).string() + "/pwr-replay.XXXXXX";
            if (ec || mkdtemp(templ.data()) == nullptr) {
                *error = "cannot create a temporary device tree in " + templ;
                return false;
            }
            mRoot = templ;
            mTemporary = true;
        } else {
            std::filesystem::create_directories(root, ec);
            if (!std::filesystem::is_directory(root)) {
                *error = "device root " + root + " is not a directory";
                return false;
            }
            mRoot = root;
        }
        host::setDeviceRoot(mRoot);
        mActive = true;
        return true;
    }
    ~DeviceRootSession() {
        if (!mActive) return;
        host::setDeviceRoot(mPrevious);
        if (mTemporary) {
            std::error_code ec;
            std::filesystem::remove_all(mRoot, ec);
        }
    }
    const std::string& root() const { return mRoot; }

  private:
    std::string mPrevious;
    std::string mRoot;
    bool mTemporary = false;
    bool mActive = false;
};

class Replayer {
  public:
    Replayer(const ReplayOptions& options, ReplayClock& clock, std::ostream& out, std::ostream& err)
        : mOptions(options), mClock(clock), mOut(out), mErr(err) {}

    int run() {
        std::string error;
        if (!FeatureConfigXml::parseFile(mOptions.configPath, &mConfig, &error) ||
            !EventScript::parseFile(mOptions.eventsPath, &mScript, &error)) {
            return fail(error);
        }
        DeviceRootSession deviceRoot;
        if (!deviceRoot.open(mOptions.deviceRoot, &error)) return fail(error);
        if (mOptions.debug && property_set(kDebugProperty, "true") != 0) {
            return fail(std::string("cannot set ") + kDebugProperty + " under " +
                        deviceRoot.root());
        }

        fakeperf::reset();
        for (const ScriptApp& app : mScript.apps) fakeperf::setAppType(app.package, app.type);
        TimelineSession session(mOut, mClock, mOptions.timestamps);
        Timeline& timeline = Timeline::get();

        host::PluginHost plugin;
        if (!plugin.load(mOptions.pluginPath, &error)) {
            return fail("cannot load the plug-in " + mOptions.pluginPath + ": " + error);
        }
        timeline.line("load", mOptions.pluginPath);
        const std::string& name = mConfig.info.featureName;
        if (host::PluginHost::findFactory(name) == nullptr) {
            return fail(mConfig.file + ":" + std::to_string(mConfig.featureLine) + ": " +
                        mOptions.pluginPath + " registers no feature named \"" + name + "\"" +
                        registeredNames());
        }

        // A host learns whether the feature is ready only from its log: the constructor's last
        // line, "Constructor <name>", is written just before it turns ready.
        timeline.watchLog(": Constructor " + name);
        std::unique_ptr<PowerOptFeature> feature;
        if (!build(&feature)) return 1;
        if (!timeline.watchedLogSeen()) {
            timeline.line("delete", name);
            feature.reset();
            return notReady();
        }
        // Settings the feature accepted but will not use as meant (or that a fuller build of it
        // reads and rejects).
        for (const KeyProblem& problem : FeatureKeys::check(mConfig.info)) {
            warn(where(problem) + ": " + problem.message);
        }

        for (const ScriptEvent& event : mScript.events) {
            mClock.advanceTo(event.timeMs);
            if (event.kind == ScriptEvent::Kind::End) {
                timeline.line("end", "");
                break;
            }
            timeline.line("event", event.describe());
            feature->sendEvents(event.payload);
        }
        timeline.line("delete", name);
        feature.reset();
        // The feature does not release its profile lock when it is deleted; show what stays.
        for (const auto& [handle, list] : fakeperf::heldLocks()) {
            timeline.line("held", StringPrintf("#%d %s", handle, formatList(list).c_str()));
        }
        return 0;
    }

  private:
    int fail(const std::string& message) {
        mErr << kTool << ": error: " << message << '\n';
        return 1;
    }

    void note(const std::string& message) { mErr << kTool << ": note: " << message << '\n'; }
    void warn(const std::string& message) { mErr << kTool << ": warning: " << message << '\n'; }

    static std::string registeredNames() {
        const auto* registry = PowerOptFeature::mFeatureMapInstanceList;
        if (registry == nullptr || registry->empty()) return " (it registers none)";
        std::string names;
        for (const auto& entry : *registry) names += (names.empty() ? "" : ", ") + entry.first;
        return " (registered: " + names + ")";
    }

    std::string where(const KeyProblem& problem) const {
        return problem.profile ? mConfig.whereProfile(problem.key)
                               : mConfig.whereConfig(problem.key);
    }

    // Calls the factory as the host does. A constructor that throws (an unparsable number) is
    // reported with the key it tripped over; the exception carries none, so the keys are
    // converted here in the feature's order until one throws the same way.
    bool build(std::unique_ptr<PowerOptFeature>* feature) {
        std::string error;
        const char* type = nullptr;
        std::string what;
        try {
            *feature = host::PluginHost::create(mConfig.info.featureName, mConfig.info, &error);
            if (*feature == nullptr) {
                fail(error);
                return false;
            }
            return true;
        } catch (const std::exception& e) {
            type = typeid(e).name();
            what = e.what();
        } catch (...) {
            type = "an unknown exception";
        }
        const std::vector<KeyProblem> problems = FeatureKeys::check(mConfig.info);
        const KeyProblem* culprit = FeatureKeys::first(problems, KeyProblem::Effect::Throws);
        if (culprit != nullptr) {
            fail(where(*culprit) + ": " + culprit->message +
                 "; the feature's constructor threw, no feature was built");
        } else {
            fail(mConfig.file + ": the feature's constructor threw " + demangled(type) +
                 (what.empty() ? "" : " (" + what + ")") + "; no feature was built");
        }
        return false;
    }

    static std::string demangled(const char* mangled) {
        if (mangled == nullptr) return "";
        int status = 0;
        std::unique_ptr<char, decltype(&free)> name(
                abi::__cxa_demangle(mangled, nullptr, nullptr, &status), &free);
        return status == 0 && name != nullptr ? name.get() : mangled;
    }

    int notReady() {
        fail(mConfig.file + ": the feature " + mConfig.info.featureName +
             " ended not ready and would ignore every event, so none was replayed; its log lines "
             "above say why");
        for (const KeyProblem& problem : FeatureKeys::check(mConfig.info)) {
            if (problem.effect == KeyProblem::Effect::NotReady) {
                note(where(problem) + ": " + problem.message);
            }
        }
        return 1;
    }

    const ReplayOptions& mOptions;
    ReplayClock& mClock;
    std::ostream& mOut;
    std::ostream& mErr;
    FeatureConfig mConfig;
    EventScript mScript;
};

}  // namespace

int64_t RealClock::nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 mStart)
            .count();
}

void RealClock::advanceTo(int64_t ms) {
    std::this_thread::sleep_until(mStart + std::chrono::milliseconds(ms));
}

int runReplay(const ReplayOptions& options, ReplayClock& clock, std::ostream& out,
              std::ostream& err) {
    return Replayer(options, clock, out, err).run();
}

}  // namespace pwr::tools
