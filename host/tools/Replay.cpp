#include "host/tools/Replay.h"

#include <android/log.h>

#include <map>
#include <memory>
#include <thread>
#include <vector>

#include <android-base/stringprintf.h>

#include "host/PluginHost.h"
#include "host/fakeperf/FakePerf.h"
#include "host/tools/DeviceRootSession.h"
#include "host/tools/EventScript.h"
#include "host/tools/FeatureConfigXml.h"
#include "host/tools/FeatureLauncher.h"
#include "host/tools/TimelineText.h"
#include "platform/Mutex.h"
#include "platform/Properties.h"

namespace pwr::tools {
namespace {

using android::base::StringPrintf;

constexpr char kTool[] = "pwr-replay";
constexpr char kDebugProperty[] = "vendor.debug.trace.power";
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
        const std::string text = pluginLogText(data, message);
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
                                                    formatPerfList(call.list).c_str(),
                                                    formatLockDuration(call.duration).c_str()));
                } else {
                    lineLocked("lock", StringPrintf("refused (%d) %s", call.result,
                                                    formatPerfList(call.list).c_str()));
                }
                break;
            case fakeperf::CallKind::LockRelease: {
                auto it = mLocks.find(call.handle);
                if (it == mLocks.end()) {
                    lineLocked("lock", StringPrintf("released #%d, which was not held (%d)",
                                                    call.handle, call.result));
                } else {
                    lineLocked("lock", StringPrintf("released #%d %s", call.handle,
                                                    formatPerfList(it->second).c_str()));
                    mLocks.erase(it);
                }
                break;
            }
            case fakeperf::CallKind::Hint:
                lineLocked("perfhint",
                           StringPrintf("perf_hint(0x%X, \"%s\", %s, %d) -> %d",
                                        static_cast<unsigned>(call.hintId), call.app.c_str(),
                                        formatLockDuration(call.duration).c_str(), call.hintType,
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

class Replayer {
  public:
    Replayer(const ReplayOptions& options, ReplayClock& clock, std::ostream& out, std::ostream& err)
        : mOptions(options), mClock(clock), mOut(out), mLauncher(kTool, mConfig, err) {}

    int run() {
        std::string error;
        if (!FeatureConfigXml::parseFile(mOptions.configPath, &mConfig, &error) ||
            !EventScript::parseFile(mOptions.eventsPath, &mScript, &error)) {
            return mLauncher.fail(error);
        }
        DeviceRootSession deviceRoot;
        if (!deviceRoot.open(mOptions.deviceRoot, kTool, &error)) return mLauncher.fail(error);
        if (mOptions.debug && property_set(kDebugProperty, "true") != 0) {
            return mLauncher.fail(std::string("cannot set ") + kDebugProperty + " under " +
                                  deviceRoot.root());
        }

        fakeperf::reset();
        for (const ScriptApp& app : mScript.apps) fakeperf::setAppType(app.package, app.type);
        TimelineSession session(mOut, mClock, mOptions.timestamps);
        Timeline& timeline = Timeline::get();

        host::PluginHost plugin;
        if (!mLauncher.load(plugin, mOptions.pluginPath)) return 1;
        timeline.line("load", mOptions.pluginPath);
        const std::string& name = mConfig.info.featureName;

        timeline.watchLog(mLauncher.readyLogSuffix());
        std::unique_ptr<PowerOptFeature> feature = mLauncher.build();
        if (feature == nullptr) return 1;
        if (!timeline.watchedLogSeen()) {
            timeline.line("delete", name);
            feature.reset();
            return mLauncher.reportNotReady();
        }
        // Settings the feature accepted but will not use as meant (or that a fuller build of it
        // reads and rejects).
        mLauncher.warnAboutKeys();

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
            timeline.line("held", StringPrintf("#%d %s", handle, formatPerfList(list).c_str()));
        }
        return 0;
    }

  private:
    const ReplayOptions& mOptions;
    ReplayClock& mClock;
    std::ostream& mOut;
    FeatureConfig mConfig;
    EventScript mScript;
    FeatureLauncher mLauncher;
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
