#include "host/sim/Simulator.h"

#include <android/log.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include <android-base/stringprintf.h>

#include "feature/FeatureCodes.h"
#include "feature/FeatureSettings.h"
#include "feature/FeatureSnapshot.h"
#include "feature/LogSites.h"
#include "host/PluginHost.h"
#include "host/fakeperf/FakePerf.h"
#include "host/sim/DeviceModel.h"
#include "host/sim/FakeDevice.h"
#include "host/sim/Scenario.h"
#include "host/tools/DeviceRootSession.h"
#include "host/tools/FeatureConfigXml.h"
#include "host/tools/FeatureLauncher.h"
#include "host/tools/TimelineText.h"
#include "host/tools/VirtualClock.h"
#include "platform/Mutex.h"
#include "platform/Properties.h"
#include "platform/hostshim/PropertyObserver.h"

namespace pwr::sim {
namespace {

namespace codes = pwr::codes;
namespace settings = pwr::settings;
namespace site = pwr::site;

using android::base::StringPrintf;
using tools::FeatureConfig;
using tools::ScriptEvent;
using tools::VirtualClock;

constexpr char kTool[] = "pwr-sim";
constexpr char kDebugProperty[] = "vendor.debug.trace.power";
constexpr int64_t kNsPerMs = 1000000;
constexpr char kSnapshotRefused[] =
        "the plug-in's pwr_psm_snapshot refused the feature or answered another version";
using codes::kGameStateOff;
using codes::kGameStateOn;

const char* modeName(int mode) {
    switch (mode) {
        case 0:
            return "off";
        case 1:
            return "light";
        case 2:
            return "gaming";
        case 3:
            return "battery watch";
        default:
            return "unknown";
    }
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

// Receives what the plug-in does (perf calls, log lines, property writes) and what the
// simulator does (events, device changes), and keeps it all in a Recording. Everything arrives
// on the thread that advances the virtual clock; the mutex keeps that true for any other
// thread a plug-in might start.
class Recorder {
  public:
    Recorder(Recording* out, const FeatureConfig& config, const Scenario& scenario) : mOut(out) {
        // Profiles by their first lock list, as the feature applies them.
        for (const auto& [name, lists] : config.info.profiles) {
            if (!lists.empty() && !lists[0].empty()) mProfilesByList[lists[0]].insert(name);
            if (name.find(settings::kDynamicProfileMark) != std::string::npos) {
                mDynamic.insert(name);
            }
        }
        out->dynamicProfiles.assign(mDynamic.begin(), mDynamic.end());
        auto boost =
                config.info.profiles.find(settings::keyOf(&FeatureSettings::taskBoostOpcodes).name);
        if (boost != config.info.profiles.end() && !boost->second.empty() &&
            !boost->second[0].empty()) {
            mBoostOpcode = boost->second[0][0];
        }
        for (const auto& [name, value] : scenario.properties) mPropertyValues[name] = value;
        for (const ForegroundPoint& point : scenario.foreground) {
            for (const ForegroundProcess& process : point.processes) {
                mProgramNames[process.pid] = process.cmdline;
            }
        }
    }

    void start(int64_t baseNs) {
        MutexLock lock(mMutex);
        mBaseNs = baseNs;
        setCounterLocked(0, kCounterProfileLevel, "GPU profile level", "level", -1);
        setCounterLocked(0, kCounterBoostedTasks, "Boosted tasks", "tasks", 0);
    }

    void line(const char* kind, const std::string& text) {
        MutexLock lock(mMutex);
        lineLocked(nowMsLocked(), kind, text);
    }

    void lineAt(int64_t ms, const char* kind, const std::string& text) {
        MutexLock lock(mMutex);
        lineLocked(ms, kind, text);
    }

    void property(const std::string& name, const std::string& value) {
        MutexLock lock(mMutex);
        mPropertyValues[name] = value;
    }

    // What the feature's own state says after an event or a tick: its PSM mode and gaming
    // state. The first look sets the tracks' starting values.
    void observe(const PSMFeatureSnapshot& state) {
        MutexLock lock(mMutex);
        const int64_t now = nowMsLocked();
        if (!mObserved) {
            mObserved = true;
            mPsmMode = state.psmMode;
            mGameState = state.gameState;
            setCounterLocked(now, kCounterPsmMode, "PSM mode", "mode", mPsmMode);
            setCounterLocked(now, kCounterGameState, "Gaming state", "state", mGameState);
            return;
        }
        setModeLocked(now, state.psmMode);
        setGameStateLocked(now, state.gameState);
    }

    void device(int64_t ms, const FakeDevice& device, bool gpu, bool battery) {
        MutexLock lock(mMutex);
        const FakeDevice::State& state = device.state();
        if (gpu) {
            setCounterLocked(ms, kCounterGpuFreq, "GPU frequency", "MHz", state.freqMhz);
            setCounterLocked(ms, kCounterGpuBusy, "GPU busy", "%", state.busy);
        }
        if (battery) {
            setCounterLocked(ms, kCounterBatteryDrain, "Battery drain", "mA", state.drainMa);
        }
        if (const ClosedLoop* loop = device.closedLoop()) {
            const ClosedLoop::Totals& totals = loop->totals();
            setCounterLocked(ms, kCounterGpuDemand, "GPU demand", "MHz", state.demandMhz);
            setCounterLocked(ms, kCounterChargeMah, "Charge used", "mAh", totals.chargeMah);
            // The share of the window since the previous update that was saturated, from the
            // window's start.
            const double window = static_cast<double>(ms - mLastDeviceMs);
            const double saturated = static_cast<double>(totals.saturatedMs - mLastSaturatedMs);
            if (window > 0) {
                setCounterLocked(mLastDeviceMs, kCounterGpuSaturated, "GPU saturated", "share",
                                 saturated / window);
            }
            mLastDeviceMs = ms;
            mLastSaturatedMs = totals.saturatedMs;
            setCounterLocked(ms, kCounterSaturatedMs, "GPU saturated", "ms",
                             static_cast<double>(totals.saturatedMs));
            setCounterLocked(ms, kCounterDemandMc, "GPU work asked", "Mcycles", totals.demandMc);
            setCounterLocked(ms, kCounterUnservedMc, "GPU work unserved", "Mcycles",
                             totals.unservedMc);
        }
    }

    void event(const ScriptEvent& event) {
        MutexLock lock(mMutex);
        const int64_t now = nowMsLocked();
        lineLocked(now, "event", event.describe());
    }

    void onLog(const __android_logger_data* data, const char* message) {
        const std::string text = tools::pluginLogText(data, message);
        MutexLock lock(mMutex);
        const int64_t now = nowMsLocked();
        lineLocked(now, "log", text);
        // The GPU monitor's own measurement, as its line reports it.
        if (text.compare(0, mMeasuredPrefix.size(), mMeasuredPrefix) == 0) {
            int freq = 0;
            int busy = 0;
            if (sscanf(text.c_str() + mMeasuredPrefix.size(), site::kMeasured.format, &freq,
                       &busy) == 2) {
                setCounterLocked(now, kCounterGpuFreqMeasured, "GPU frequency the feature sampled",
                                 "MHz", freq);
            }
        }
    }

    void onPerfCall(const fakeperf::Call& call) {
        MutexLock lock(mMutex);
        const int64_t now = nowMsLocked();
        switch (call.kind) {
            case fakeperf::CallKind::LockAcquire:
                acquiredLocked(now, call);
                break;
            case fakeperf::CallKind::LockRelease:
                releasedLocked(now, call);
                break;
            case fakeperf::CallKind::Hint:
                lineLocked(now, "perfhint",
                           StringPrintf("perf_hint(0x%X, \"%s\", %s, %d) -> %d",
                                        static_cast<unsigned>(call.hintId), call.app.c_str(),
                                        tools::formatLockDuration(call.duration).c_str(),
                                        call.hintType, call.result));
                break;
            case fakeperf::CallKind::GetFeedback:
                lineLocked(now, "query",
                           StringPrintf("perf_get_feedback(0x%X, \"%s\") -> %d",
                                        static_cast<unsigned>(call.request), call.app.c_str(),
                                        call.result));
                break;
        }
    }

    void onProperty(const std::string& key, const std::string& value, int result) {
        MutexLock lock(mMutex);
        const int64_t now = nowMsLocked();
        if (result != 0) {
            lineLocked(now, "prop",
                       StringPrintf("refused %s = %s (%d): not a property the store accepts",
                                    quoted(key).c_str(), quoted(value).c_str(), result));
            return;
        }
        auto known = mPropertyValues.find(key);
        std::optional<std::string> current;
        if (known != mPropertyValues.end()) current = known->second;
        PropertyHistory& history = mOut->properties[key];
        if (history.writes.empty()) history.before = current;
        history.writes.emplace_back(now, value);
        history.last = value;
        mPropertyValues[key] = value;

        const std::optional<std::string>& before = history.before;
        std::string text;
        if (history.writes.size() > 1 && before && value == *before) {
            text = "restored " + key + " = " + quoted(value);
        } else if (history.writes.size() > 1 && before && before->size() > 1 &&
                   value == before->substr(0, 1)) {
            text = "restored " + key + " = " + quoted(value) + ", the first character of " +
                   quoted(*before) + " it had before";
        } else if (history.writes.size() > 1 && !before && value == "0") {
            text = "restored " + key + " = " + quoted(value) + " (it was unset before)";
        } else {
            text = "set " + key + " = " + quoted(value) + " (was " +
                   (current ? quoted(*current) : std::string("unset")) + ")";
        }
        lineLocked(now, "prop", text);
    }

    // Closes the run: locks still held stay open; counters get a last point at the end.
    void finish(int64_t endMs) {
        MutexLock lock(mMutex);
        mOut->durationMs = endMs;
        mBaseNs = 0;
    }

  private:
    int64_t nowMsLocked() REQUIRES(mMutex) {
        return (VirtualClock::instance().nowNs() - mBaseNs) / kNsPerMs;
    }

    void lineLocked(int64_t ms, const char* kind, const std::string& text) REQUIRES(mMutex) {
        mOut->timeline.push_back(TimelineEntry{ms, kind, text});
    }

    void setCounterLocked(int64_t ms, const char* key, const char* name, const char* unit,
                          double value) REQUIRES(mMutex) {
        CounterTrack& track = mOut->counters[key];
        if (track.name.empty()) {
            track.name = name;
            track.unit = unit;
        }
        track.set(ms, value);
    }

    void setModeLocked(int64_t ms, int mode) REQUIRES(mMutex) {
        if (mode == mPsmMode) return;
        mPsmMode = mode;
        lineLocked(ms, "mode", StringPrintf("PSM mode %d (%s)", mode, modeName(mode)));
        setCounterLocked(ms, kCounterPsmMode, "PSM mode", "mode", mode);
    }

    void setGameStateLocked(int64_t ms, int state) REQUIRES(mMutex) {
        if (state == mGameState) return;
        mGameState = state;
        // The game timer stops with the gaming state: no sample until it is on again.
        auto measured = mOut->counters.find(kCounterGpuFreqMeasured);
        if (state == kGameStateOff && measured != mOut->counters.end()) {
            measured->second.set(ms, std::nan(""));
        }
        lineLocked(
                ms, "game",
                StringPrintf("gaming state %d (%s)", state, state == kGameStateOn ? "on" : "off"));
        setCounterLocked(ms, kCounterGameState, "Gaming state", "state", state);
    }

    std::string programOf(int pid) REQUIRES(mMutex) {
        auto it = mProgramNames.find(pid);
        return it == mProgramNames.end() || it->second.empty() ? "" : " (" + it->second + ")";
    }

    int boostedCountLocked() REQUIRES(mMutex) {
        int count = 0;
        for (const auto& [handle, index] : mOpen) {
            const LockSlice& slice = mOut->locks[index];
            count += slice.kind == LockSlice::Kind::TaskBoost && slice.boostValue < 0 ? 1 : 0;
        }
        return count;
    }

    void acquiredLocked(int64_t now, const fakeperf::Call& call) REQUIRES(mMutex) {
        const std::string list = tools::formatPerfList(call.list);
        if (call.result < 1) {
            lineLocked(now, "lock", StringPrintf("refused (%d) %s", call.result, list.c_str()));
            return;
        }
        LockSlice slice;
        slice.handle = call.result;
        slice.list = call.list;
        slice.startMs = now;
        auto profile = mProfilesByList.find(call.list);
        if (profile != mProfilesByList.end()) {
            slice.kind = LockSlice::Kind::Profile;
            for (const std::string& name : profile->second) {
                slice.name += (slice.name.empty() ? "" : "|") + name;
            }
            slice.track = "profile lock";
            lineLocked(
                    now, "lock",
                    StringPrintf("acquired #%d %s %s for %s", call.result, slice.name.c_str(),
                                 list.c_str(), tools::formatLockDuration(call.duration).c_str()));
            int level = -1;
            for (size_t i = 0; i < mOut->dynamicProfiles.size(); ++i) {
                if (profile->second.count(mOut->dynamicProfiles[i]) != 0) {
                    level = static_cast<int>(i);
                    break;
                }
            }
            setCounterLocked(now, kCounterProfileLevel, "GPU profile level", "level", level);
        } else if (mBoostOpcode && call.list.size() == 2 && call.list[0] == *mBoostOpcode) {
            const uint32_t encoded = static_cast<uint32_t>(call.list[1]);
            const fakeperf::TaskLoadBoost boost = fakeperf::decodeTaskLoadBoost(call.list[1]);
            slice.kind = LockSlice::Kind::TaskBoost;
            slice.boostPid = boost.pid;
            slice.boostValue = boost.value;
            slice.name = StringPrintf("pid %d value %d", slice.boostPid, slice.boostValue);
            slice.track = StringPrintf("task boost %d", slice.boostPid);
            lineLocked(now, "boost",
                       StringPrintf("acquired #%d task-load boost for pid %d%s: value %d%s, "
                                    "encoded 0x%X %s",
                                    call.result, slice.boostPid, programOf(slice.boostPid).c_str(),
                                    slice.boostValue, slice.boostValue == 0 ? " (unboosted)" : "",
                                    encoded, list.c_str()));
        } else {
            slice.kind = LockSlice::Kind::Other;
            slice.name = list;
            slice.track = "other locks";
            lineLocked(now, "lock",
                       StringPrintf("acquired #%d %s for %s", call.result, list.c_str(),
                                    tools::formatLockDuration(call.duration).c_str()));
        }
        mOpen[call.result] = mOut->locks.size();
        mOut->locks.push_back(std::move(slice));
        setCounterLocked(now, kCounterBoostedTasks, "Boosted tasks", "tasks", boostedCountLocked());
    }

    void releasedLocked(int64_t now, const fakeperf::Call& call) REQUIRES(mMutex) {
        auto open = mOpen.find(call.handle);
        if (open == mOpen.end()) {
            lineLocked(now, "lock",
                       StringPrintf("released #%d, which was not held (%d)", call.handle,
                                    call.result));
            return;
        }
        LockSlice& slice = mOut->locks[open->second];
        slice.endMs = now;
        mOpen.erase(open);
        if (slice.kind == LockSlice::Kind::TaskBoost) {
            lineLocked(now, "boost",
                       StringPrintf("released #%d task-load boost for pid %d (value %d)",
                                    call.handle, slice.boostPid, slice.boostValue));
            setCounterLocked(now, kCounterBoostedTasks, "Boosted tasks", "tasks",
                             boostedCountLocked());
        } else {
            lineLocked(now, "lock",
                       StringPrintf("released #%d %s", call.handle, slice.name.c_str()));
            if (slice.kind == LockSlice::Kind::Profile) {
                setCounterLocked(now, kCounterProfileLevel, "GPU profile level", "level", -1);
            }
        }
    }

    Mutex mMutex;
    Recording* const mOut;  // written under mMutex
    int64_t mBaseNs GUARDED_BY(mMutex) = 0;
    std::map<std::vector<int>, std::set<std::string>> mProfilesByList;
    std::set<std::string> mDynamic;  // ascending, as the feature indexes them
    std::optional<int> mBoostOpcode;
    const std::string mMeasuredPrefix = linePrefix(site::kMeasured);
    std::map<int, std::string> mProgramNames;
    std::map<int, size_t> mOpen GUARDED_BY(mMutex);  // held handle -> index in mOut->locks
    std::map<std::string, std::string> mPropertyValues GUARDED_BY(mMutex);
    bool mObserved GUARDED_BY(mMutex) = false;
    int mPsmMode GUARDED_BY(mMutex) = 0;
    int mGameState GUARDED_BY(mMutex) = 0;
    int64_t mLastDeviceMs GUARDED_BY(mMutex) = 0;
    int64_t mLastSaturatedMs GUARDED_BY(mMutex) = 0;
};

// The recorder that liblog's hook (a plain function pointer) reaches.
Recorder* gRecorder = nullptr;

void recorderLogger(const __android_logger_data* data, const char* message) {
    if (gRecorder != nullptr) gRecorder->onLog(data, message);
}

// Routes the fake library's calls, liblog's lines and property writes into a recorder while
// alive.
class RecorderSession {
  public:
    explicit RecorderSession(Recorder* recorder) {
        gRecorder = recorder;
        fakeperf::setObserver(
                [recorder](const fakeperf::Call& call) { recorder->onPerfCall(call); });
        __android_log_set_logger(recorderLogger);
        host::setPropertyObserver(
                [recorder](const std::string& key, const std::string& value, int result) {
                    recorder->onProperty(key, value, result);
                });
    }
    ~RecorderSession() {
        host::setPropertyObserver(nullptr);
        __android_log_set_logger(__android_log_stderr_logger);
        fakeperf::setObserver(nullptr);
        gRecorder = nullptr;
    }
    RecorderSession(const RecorderSession&) = delete;
    RecorderSession& operator=(const RecorderSession&) = delete;
};

std::string describeForeground(const std::vector<ForegroundProcess>& processes) {
    if (processes.empty()) return "foreground: none";
    std::string text = "foreground:";
    for (const ForegroundProcess& p : processes) {
        text += StringPrintf(" %d %s", p.pid,
                             p.cmdline.empty() ? "(kernel thread)" : p.cmdline.c_str());
        if (&p != &processes.back()) text += ",";
    }
    return text;
}

class Simulation {
  public:
    Simulation(const SimOptions& options, Recording* out, std::ostream& err)
        : mOptions(options), mOut(out), mLauncher(kTool, mConfig, err) {}

    int run() {
        std::string error;
        if (!Scenario::parseFile(mOptions.scenarioPath, &mScenario, &error)) {
            return mLauncher.fail(error);
        }
        const std::string configPath =
                mOptions.configPath.empty() ? mScenario.configPath : mOptions.configPath;
        if (configPath.empty()) {
            return mLauncher.fail(mScenario.file +
                                  ": no configuration: the scenario names none in \"config\" "
                                  "and none was given with --config");
        }
        if (!tools::FeatureConfigXml::parseFile(configPath, &mConfig, &error)) {
            return mLauncher.fail(error);
        }
        const bool closedLoop = !mOptions.deviceModelPath.empty();
        if (closedLoop && !DeviceModel::parseFile(mOptions.deviceModelPath, &mModel, &error)) {
            return mLauncher.fail(error);
        }
        *mOut = Recording{};
        if (closedLoop) {
            mOut->deviceModelFile = mModel.file;
            mOut->batteryMah = mModel.batteryMah;
        }
        mOut->scenarioName = mScenario.name.empty() ? mScenario.file : mScenario.name;
        mOut->scenarioFile = mScenario.file;
        mOut->configFile = mConfig.file;

        tools::DeviceRootSession deviceRoot;
        if (!deviceRoot.open(mOptions.deviceRoot, kTool, &error)) return mLauncher.fail(error);
        for (const auto& [name, value] : mScenario.properties) {
            if (property_set(name.c_str(), value.c_str()) != 0) {
                return mLauncher.fail(mScenario.file + ": properties." + name +
                                      ": cannot be set in " + deviceRoot.root());
            }
        }
        Recorder recorder(mOut, mConfig, mScenario);
        if (mOptions.debug || mScenario.debug) {
            if (property_set(kDebugProperty, "true") != 0) {
                return mLauncher.fail(std::string("cannot set ") + kDebugProperty + " under " +
                                      deviceRoot.root());
            }
            recorder.property(kDebugProperty, "true");
        }
        fakeperf::reset();
        if (closedLoop) fakeperf::setResources(mModel.resources);
        FakeDevice device(mScenario, closedLoop ? &mModel : nullptr);
        if (!device.create(&error)) return mLauncher.fail(error);

        for (const tools::ScriptApp& app : mScenario.apps) {
            fakeperf::setAppType(app.package, app.type);
        }
        VirtualClock& clock = VirtualClock::instance();
        const int64_t baseNs = clock.nowNs();
        recorder.start(baseNs);
        RecorderSession session(&recorder);

        host::PluginHost plugin;
        if (!mLauncher.load(plugin, mOptions.pluginPath)) return 1;
        recorder.line("load", mOptions.pluginPath);
        mSnapshot = reinterpret_cast<PwrPsmSnapshotFn>(plugin.symbol("pwr_psm_snapshot"));
        if (mSnapshot == nullptr) {
            return mLauncher.fail(mOptions.pluginPath +
                                  " exports no pwr_psm_snapshot: the simulator reads the "
                                  "feature's state through it");
        }
        std::unique_ptr<PowerOptFeature> feature = mLauncher.build();
        if (feature == nullptr) return 1;
        const std::string& name = mConfig.info.featureName;
        if (!observe(feature.get(), recorder)) return mLauncher.fail(kSnapshotRefused);
        if (!mReady) {
            recorder.line("delete", name);
            feature.reset();
            return mLauncher.reportNotReady();
        }
        mLauncher.warnAboutKeys();

        if (!replay(feature.get(), device, recorder, clock, baseNs, &error)) {
            feature.reset();
            return mLauncher.fail(error);
        }
        recorder.line("end", "");
        recorder.line("delete", name);
        feature.reset();
        // The feature does not release its profile lock when it is deleted; show what stays.
        for (const auto& [handle, list] : fakeperf::heldLocks()) {
            recorder.line("held",
                          StringPrintf("#%d %s", handle, tools::formatPerfList(list).c_str()));
        }
        recorder.finish(mScenario.durationMs);
        return 0;
    }

  private:
    // Times at which a trace point takes effect, ascending and unique.
    std::vector<int64_t> traceTimes() const {
        std::set<int64_t> times;
        for (const GpuPoint& p : mScenario.gpu) times.insert(p.timeMs);
        for (const BatteryPoint& p : mScenario.battery) times.insert(p.timeMs);
        for (const ForegroundPoint& p : mScenario.foreground) times.insert(p.timeMs);
        return std::vector<int64_t>(times.begin(), times.end());
    }

    void describeTrace(int64_t ms, Recorder& recorder, const FakeDevice& device) {
        for (; mGpuLine < mScenario.gpu.size() && mScenario.gpu[mGpuLine].timeMs <= ms;
             ++mGpuLine) {
            const GpuPoint& p = mScenario.gpu[mGpuLine];
            std::string text = device.closedLoop() != nullptr
                                       ? StringPrintf(
                                                 "GPU demand %g MHz of work (busy %g%% at %g MHz), "
                                                 "clock %g MHz",
                                                 p.freqMhz * p.busy / 100.0, p.busy, p.freqMhz,
                                                 device.state().freqMhz)
                                       : StringPrintf("GPU %g MHz (clock %g MHz), busy %g%%",
                                                      p.freqMhz, device.state().freqMhz, p.busy);
            if (p.busySwing > 0) {
                text += StringPrintf(" +/- %g every %g s", p.busySwing, p.swingPeriodMs / 1000.0);
            }
            recorder.lineAt(ms, "device", text);
        }
        // A closed-loop battery follows the power model, not the trace.
        if (device.closedLoop() != nullptr) mBatteryLine = mScenario.battery.size();
        for (; mBatteryLine < mScenario.battery.size() &&
               mScenario.battery[mBatteryLine].timeMs <= ms;
             ++mBatteryLine) {
            const BatteryPoint& p = mScenario.battery[mBatteryLine];
            std::string text = StringPrintf("battery drain %g mA", p.drainMa);
            if (p.drainSwing > 0) {
                text += StringPrintf(" +/- %g every %g s", p.drainSwing, p.swingPeriodMs / 1000.0);
            }
            recorder.lineAt(ms, "device", text);
        }
        for (; mForegroundLine < mScenario.foreground.size() &&
               mScenario.foreground[mForegroundLine].timeMs <= ms;
             ++mForegroundLine) {
            recorder.lineAt(ms, "device",
                            describeForeground(mScenario.foreground[mForegroundLine].processes));
        }
    }

    bool replay(PowerOptFeature* feature, FakeDevice& device, Recorder& recorder,
                VirtualClock& clock, int64_t baseNs, std::string* error) {
        const std::vector<int64_t> traces = traceTimes();
        const int64_t endNs = baseNs + mScenario.durationMs * kNsPerMs;
        size_t nextTrace = 0;
        size_t nextEvent = 0;
        const bool closedLoop = device.closedLoop() != nullptr;
        const bool gpu = !mScenario.gpu.empty() || closedLoop;
        const bool battery = !mScenario.battery.empty() || closedLoop;
        for (;;) {
            int64_t nowNs = endNs;
            if (nextEvent < mScenario.events.size()) {
                nowNs = std::min(nowNs, baseNs + mScenario.events[nextEvent].timeMs * kNsPerMs);
            }
            if (nextTrace < traces.size()) {
                nowNs = std::min(nowNs, baseNs + traces[nextTrace] * kNsPerMs);
            }
            int64_t expiry = 0;
            if (clock.nextExpiryNs(&expiry)) nowNs = std::min(nowNs, std::max(expiry, baseNs));
            const int64_t nowMs = (nowNs - baseNs) / kNsPerMs;

            // The nodes first, so that the ticks and events of this time read them.
            if (!device.update(nowMs, error)) return false;
            recorder.device(nowMs, device, gpu, battery);
            describeTrace(nowMs, recorder, device);
            while (nextTrace < traces.size() && traces[nextTrace] <= nowMs) ++nextTrace;

            clock.advanceTo(nowNs);
            if (!observe(feature, recorder)) {
                *error = kSnapshotRefused;
                return false;
            }
            while (nextEvent < mScenario.events.size() &&
                   baseNs + mScenario.events[nextEvent].timeMs * kNsPerMs <= nowNs) {
                const ScenarioEvent& event = mScenario.events[nextEvent++];
                if (!event.note.empty()) recorder.line("note", event.note);
                if (event.hasEvent) {
                    recorder.event(event.event);
                    feature->sendEvents(event.event.payload);
                    if (!observe(feature, recorder)) {
                        *error = kSnapshotRefused;
                        return false;
                    }
                }
            }
            if (nowNs >= endNs) return true;
        }
    }

    // Reads the feature's state through the plug-in's snapshot entry point into the recorder.
    bool observe(PowerOptFeature* feature, Recorder& recorder) {
        PSMFeatureSnapshot state{};
        if (mSnapshot(feature, &state) != 0 || state.version != PSM_FEATURE_SNAPSHOT_VERSION) {
            return false;
        }
        mReady = state.ready != 0;
        recorder.observe(state);
        return true;
    }

    const SimOptions& mOptions;
    PwrPsmSnapshotFn mSnapshot = nullptr;
    bool mReady = false;
    Recording* mOut;
    Scenario mScenario;
    DeviceModel mModel;
    FeatureConfig mConfig;
    tools::FeatureLauncher mLauncher;
    size_t mGpuLine = 0;
    size_t mBatteryLine = 0;
    size_t mForegroundLine = 0;
};

}  // namespace

void CounterTrack::set(int64_t timeMs, double value) {
    if (!points.empty() && points.back().first == timeMs) {
        points.back().second = value;
        // A value put back within the same time leaves no step.
        if (points.size() >= 2 && points[points.size() - 2].second == value) points.pop_back();
        return;
    }
    if (!points.empty() && points.back().second == value) return;
    points.emplace_back(timeMs, value);
}

double CounterTrack::at(int64_t timeMs, double fallback) const {
    if (points.empty()) return fallback;
    double value = points.front().second;
    for (const auto& [t, v] : points) {
        if (t > timeMs) break;
        value = v;
    }
    return value;
}

int runSimulation(const SimOptions& options, Recording* out, std::ostream& err) {
    return Simulation(options, out, err).run();
}

}  // namespace pwr::sim
