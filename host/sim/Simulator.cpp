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
#include "host/sim/Explainer.h"
#include "host/sim/FakeDevice.h"
#include "host/sim/Scenario.h"
#include "host/sim/SeriesSketch.h"
#include "host/tools/DeviceRootSession.h"
#include "host/tools/FeatureConfigXml.h"
#include "host/tools/FeatureLauncher.h"
#include "host/tools/TimelineText.h"
#include "host/tools/ToolOptions.h"
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
// simulator does (events, device changes), streams each timeline line, counter change and ended
// lock to the run's observers, and keeps only aggregates and thinned-out series in a Recording,
// so that its memory does not grow with the run. Everything arrives on the thread that advances
// the virtual clock; the mutex keeps that true for any other thread a plug-in might start.
class Recorder {
  public:
    Recorder(Recording* out, const FeatureConfig& config, const Scenario& scenario,
             std::vector<RunObserver*> observers)
        : mOut(out),
          mObservers(std::move(observers)),
          mSliceMs(std::max<int64_t>(1, scenario.durationMs / kPlotSlices)),
          mEndMs(scenario.durationMs),
          mExplainer(!scenario.battery.empty() || !out->deviceModelFile.empty()) {
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

    // What the feature's own state says after an event or a tick: its PSM mode, gaming state,
    // deep mode and thresholds, and why a lock is not taken when the snapshot shows it. The
    // first look sets the tracks' starting values.
    void observe(const PSMFeatureSnapshot& state) {
        MutexLock lock(mMutex);
        const int64_t now = nowMsLocked();
        if (!mObserved) {
            mObserved = true;
            mPsmMode = state.psmMode;
            mGameState = state.gameState;
            setCounterLocked(now, kCounterPsmMode, "PSM mode", "mode", mPsmMode);
            setCounterLocked(now, kCounterGameState, "Gaming state", "state", mGameState);
            setCounterLocked(now, kCounterDeepState, "Deep mode", "state", state.deepModeState);
            if (state.gameTimerExists != 0) {
                setCounterLocked(now, kCounterFreqLow, "GPU frequency threshold low", "MHz",
                                 state.gpuFreqThresholdLow);
                setCounterLocked(now, kCounterFreqHigh, "GPU frequency threshold high", "MHz",
                                 state.gpuFreqThresholdHigh);
            }
        } else {
            setModeLocked(now, state.psmMode);
            setGameStateLocked(now, state.gameState);
            setDeepStateLocked(now, state.deepModeState);
        }
        if (state.activeScalingUp != 0 || state.activeScalingDown != 0) {
            setCounterLocked(now, kCounterScalingUp, "Battery scaling-up threshold", "mA",
                             state.activeScalingUp);
            setCounterLocked(now, kCounterScalingDown, "Battery scaling-down threshold", "mA",
                             state.activeScalingDown);
        }
        for (const std::string& why : mExplainer.explain(state)) lineLocked(now, "why", why);
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
            mTotals = RunningTotals{totals.chargeMah, static_cast<double>(totals.saturatedMs),
                                    totals.demandMc, totals.unservedMc};
            if (!mTotalsStarted) {
                mTotalsStarted = true;
                mOut->totalsAtStart = mTotals;
            }
        }
    }

    void note(const std::string& text) {
        MutexLock lock(mMutex);
        const int64_t now = nowMsLocked();
        lineLocked(now, "note", text);
        if (mOut->deviceModelFile.empty() || now >= mEndMs) return;
        std::vector<PhaseMark>& phases = mOut->phases;
        if (phases.empty() && now > 0)
            phases.push_back(PhaseMark{0, "(start)", mOut->totalsAtStart});
        // Notes of the same time start one phase, named by the first.
        if (phases.empty() || phases.back().startMs != now) {
            phases.push_back(PhaseMark{now, text, mTotals});
        }
    }

    void event(const ScriptEvent& event) {
        MutexLock lock(mMutex);
        const int64_t now = nowMsLocked();
        lineLocked(now, "event", event.describe());
        // The application the host reports in the foreground, as its events say.
        const std::string& app = event.payload.appName;
        const std::string key = app.substr(0, app.find('/'));
        if (event.kind == ScriptEvent::Kind::Start && key != mForegroundApp) {
            closeLaneLocked(now, kLaneForeground);
            mForegroundApp = key;
            openLaneLocked(now, kLaneForeground, key);
        } else if (event.kind == ScriptEvent::Kind::Stop && key == mForegroundApp) {
            closeLaneLocked(now, kLaneForeground);
            mForegroundApp.clear();
        }
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
        if (history.writes == 0) {
            history.before = current;
            history.first = value;
        }
        ++history.writes;
        history.last = value;
        mPropertyValues[key] = value;

        const std::optional<std::string>& before = history.before;
        std::string text;
        if (history.writes > 1 && before && value == *before) {
            text = "restored " + key + " = " + quoted(value);
        } else if (history.writes > 1 && before && before->size() > 1 &&
                   value == before->substr(0, 1)) {
            text = "restored " + key + " = " + quoted(value) + ", the first character of " +
                   quoted(*before) + " it had before";
        } else if (history.writes > 1 && !before && value == "0") {
            text = "restored " + key + " = " + quoted(value) + " (it was unset before)";
        } else {
            text = "set " + key + " = " + quoted(value) + " (was " +
                   (current ? quoted(*current) : std::string("unset")) + ")";
        }
        lineLocked(now, "prop", text);
    }

    // Closes the run: locks still held are counted to the end; every counter's last value and
    // every open lane are handed over; the inputs the feature never read are named.
    void finish(int64_t endMs, bool gpuTrace, bool batteryTrace) {
        MutexLock lock(mMutex);
        mOut->durationMs = endMs;
        for (LockSlice& slice : mOpen) {
            totalOfLocked(slice).heldMs += endMs - slice.startMs;
            mOut->heldAtEnd.push_back(StringPrintf("#%d %s", slice.handle, slice.name.c_str()));
            for (RunObserver* observer : mObservers) observer->lock(slice);
            addBarLocked(&mOut->locks, &mLastLockBar, slice);
        }
        mOpen.clear();
        for (auto& [track, slice] : mOpenLanes) {
            for (RunObserver* observer : mObservers) observer->lock(slice);
            addBarLocked(&mOut->lanes, &mLastLaneBar, slice);
        }
        mOpenLanes.clear();
        for (auto& [key, counter] : mCounters) {
            flushCounterLocked(key, counter);
            CounterTrack& track = mOut->counters[key];
            if (track.states && counter.emitted) {
                track.msByValue[counter.lastValue] += endMs - counter.lastMs;
            }
            counter.sketch.flush(&track.points);
        }
        mOut->totalsAtEnd = mTotals;
        mOut->unreadInputs = mExplainer.unreadInputs(gpuTrace, batteryTrace);
        mBaseNs = 0;
    }

  private:
    // How finely the plots' series and bars are kept: slices of the run's time.
    static constexpr int kPlotSlices = 2000;

    // A counter's value waiting for its time to pass (a later call of the same time replaces
    // it, so a value put back within one time leaves no step), and what was handed over last.
    struct Counter {
        explicit Counter(int64_t endMs) : sketch(endMs, kPlotSlices) {}
        SeriesSketch sketch;
        bool pending = false;
        int64_t pendingMs = 0;
        double pendingValue = 0;
        bool emitted = false;
        int64_t lastMs = 0;
        double lastValue = 0;
    };

    int64_t nowMsLocked() REQUIRES(mMutex) {
        return (VirtualClock::instance().nowNs() - mBaseNs) / kNsPerMs;
    }

    void lineLocked(int64_t ms, const char* kind, const std::string& text) REQUIRES(mMutex) {
        const TimelineEntry entry{ms, kind, text};
        for (RunObserver* observer : mObservers) observer->timeline(entry);
    }

    static bool same(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

    void setCounterLocked(int64_t ms, const char* key, const char* name, const char* unit,
                          double value) REQUIRES(mMutex) {
        auto it = mCounters.find(key);
        if (it == mCounters.end()) {
            it = mCounters.emplace(key, Counter(mEndMs)).first;
            CounterTrack& track = mOut->counters[key];
            track.name = name;
            track.unit = unit;
            track.states = isStateCounter(key);
        }
        Counter& counter = it->second;
        if (counter.pending && counter.pendingMs == ms) {
            counter.pendingValue = value;
            return;
        }
        flushCounterLocked(it->first, counter);
        counter.pending = true;
        counter.pendingMs = ms;
        counter.pendingValue = value;
    }

    static bool isStateCounter(const std::string& key) {
        for (const char* k : {kCounterPsmMode, kCounterGameState, kCounterDeepState,
                              kCounterProfileLevel, kCounterBoostedTasks}) {
            if (key == k) return true;
        }
        return false;
    }

    void flushCounterLocked(const std::string& key, Counter& counter) REQUIRES(mMutex) {
        if (!counter.pending) return;
        counter.pending = false;
        if (counter.emitted && same(counter.lastValue, counter.pendingValue)) return;
        CounterTrack& track = mOut->counters[key];
        if (track.states && counter.emitted) {
            track.msByValue[counter.lastValue] += counter.pendingMs - counter.lastMs;
        }
        counter.emitted = true;
        counter.lastMs = counter.pendingMs;
        counter.lastValue = counter.pendingValue;
        counter.sketch.add(counter.lastMs, counter.lastValue, &track.points);
        for (RunObserver* observer : mObservers) {
            observer->counter(key, track, counter.lastMs, counter.lastValue);
        }
    }

    // Keeps `slice` as a bar of its track, or draws it into the bar before it on that track when
    // that one started less than a slice of the run's time earlier.
    void addBarLocked(std::vector<LockSlice>* bars, std::map<std::string, size_t>* lastByTrack,
                      const LockSlice& slice) REQUIRES(mMutex) {
        auto last = lastByTrack->find(slice.track);
        const int64_t span = slice.endMs.value_or(mEndMs) - slice.startMs;
        if (last != lastByTrack->end() &&
            slice.startMs - (*bars)[last->second].startMs < mSliceMs) {
            LockSlice& bar = (*bars)[last->second];
            const int64_t covered =
                    bar.coveredMs > 0 ? bar.coveredMs : bar.endMs.value_or(mEndMs) - bar.startMs;
            bar.coveredMs = covered + span;
            bar.endMs = slice.endMs;
            return;
        }
        (*lastByTrack)[slice.track] = bars->size();
        LockSlice bar = slice;
        bar.list.clear();
        bars->push_back(std::move(bar));
    }

    void openLaneLocked(int64_t ms, const char* track, const std::string& name) REQUIRES(mMutex) {
        LockSlice slice;
        slice.kind = LockSlice::Kind::State;
        slice.track = track;
        slice.name = name;
        slice.startMs = ms;
        mOpenLanes[track] = slice;
    }

    void closeLaneLocked(int64_t ms, const char* track) REQUIRES(mMutex) {
        auto open = mOpenLanes.find(track);
        if (open == mOpenLanes.end()) return;
        open->second.endMs = ms;
        for (RunObserver* observer : mObservers) observer->lock(open->second);
        addBarLocked(&mOut->lanes, &mLastLaneBar, open->second);
        mOpenLanes.erase(open);
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
        if (state == kGameStateOff && mCounters.count(kCounterGpuFreqMeasured) != 0) {
            setCounterLocked(ms, kCounterGpuFreqMeasured, "", "", std::nan(""));
        }
        lineLocked(
                ms, "game",
                StringPrintf("gaming state %d (%s)", state, state == kGameStateOn ? "on" : "off"));
        setCounterLocked(ms, kCounterGameState, "Gaming state", "state", state);
        if (state == kGameStateOn) {
            openLaneLocked(ms, kLaneGaming, "gaming usable mode on");
        } else {
            closeLaneLocked(ms, kLaneGaming);
        }
    }

    void setDeepStateLocked(int64_t ms, int state) REQUIRES(mMutex) {
        if (state == mDeepState) return;
        mDeepState = state;
        lineLocked(ms, "deep",
                   state != 0 ? StringPrintf("deep mode applied (state %d)", state)
                              : std::string("deep mode left (state 0)"));
        setCounterLocked(ms, kCounterDeepState, "Deep mode", "state", state);
        if (state != 0) {
            openLaneLocked(ms, kLaneDeep, "deep mode applied");
        } else {
            closeLaneLocked(ms, kLaneDeep);
        }
    }

    std::string programOf(int pid) REQUIRES(mMutex) {
        auto it = mProgramNames.find(pid);
        return it == mProgramNames.end() || it->second.empty() ? "" : " (" + it->second + ")";
    }

    int boostedCountLocked() REQUIRES(mMutex) {
        int count = 0;
        for (const LockSlice& slice : mOpen) {
            count += slice.kind == LockSlice::Kind::TaskBoost && slice.boostValue < 0 ? 1 : 0;
        }
        return count;
    }

    LockTotal& totalOfLocked(const LockSlice& slice) REQUIRES(mMutex) {
        const bool scaled = slice.kind == LockSlice::Kind::TaskBoost && slice.boostValue < 0;
        for (LockTotal& total : mOut->lockTotals) {
            if (total.kind == slice.kind && total.name == slice.name &&
                total.boostPid == slice.boostPid && total.scaled == scaled) {
                return total;
            }
        }
        mOut->lockTotals.push_back(LockTotal{slice.kind, slice.name, slice.boostPid, scaled, 0, 0});
        return mOut->lockTotals.back();
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
        ++totalOfLocked(slice).taken;
        if (slice.kind == LockSlice::Kind::Profile) {
            if (!mPreviousProfile.empty() && mPreviousProfile != slice.name) {
                ++mOut->profileSwitches;
            }
            mPreviousProfile = slice.name;
        }
        mOpen.push_back(std::move(slice));
        setCounterLocked(now, kCounterBoostedTasks, "Boosted tasks", "tasks", boostedCountLocked());
    }

    void releasedLocked(int64_t now, const fakeperf::Call& call) REQUIRES(mMutex) {
        auto open = std::find_if(mOpen.begin(), mOpen.end(),
                                 [&](const LockSlice& s) { return s.handle == call.handle; });
        if (open == mOpen.end()) {
            lineLocked(now, "lock",
                       StringPrintf("released #%d, which was not held (%d)", call.handle,
                                    call.result));
            return;
        }
        LockSlice slice = std::move(*open);
        mOpen.erase(open);
        slice.endMs = now;
        totalOfLocked(slice).heldMs += now - slice.startMs;
        for (RunObserver* observer : mObservers) observer->lock(slice);
        addBarLocked(&mOut->locks, &mLastLockBar, slice);
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
    const std::vector<RunObserver*> mObservers;
    const int64_t mSliceMs;
    const int64_t mEndMs;
    int64_t mBaseNs GUARDED_BY(mMutex) = 0;
    std::map<std::vector<int>, std::set<std::string>> mProfilesByList;
    std::set<std::string> mDynamic;  // ascending, as the feature indexes them
    std::optional<int> mBoostOpcode;
    const std::string mMeasuredPrefix = linePrefix(site::kMeasured);
    std::map<int, std::string> mProgramNames;
    std::vector<LockSlice> mOpen GUARDED_BY(mMutex);  // held locks, in acquisition order
    std::string mPreviousProfile GUARDED_BY(mMutex);
    std::map<std::string, size_t> mLastLockBar GUARDED_BY(mMutex);
    std::map<std::string, LockSlice> mOpenLanes GUARDED_BY(mMutex);
    std::map<std::string, size_t> mLastLaneBar GUARDED_BY(mMutex);
    std::map<std::string, Counter> mCounters GUARDED_BY(mMutex);
    std::map<std::string, std::string> mPropertyValues GUARDED_BY(mMutex);
    Explainer mExplainer GUARDED_BY(mMutex);
    bool mObserved GUARDED_BY(mMutex) = false;
    int mPsmMode GUARDED_BY(mMutex) = 0;
    int mGameState GUARDED_BY(mMutex) = 0;
    int mDeepState GUARDED_BY(mMutex) = 0;
    std::string mForegroundApp GUARDED_BY(mMutex);
    int64_t mLastDeviceMs GUARDED_BY(mMutex) = 0;
    int64_t mLastSaturatedMs GUARDED_BY(mMutex) = 0;
    RunningTotals mTotals GUARDED_BY(mMutex);
    bool mTotalsStarted GUARDED_BY(mMutex) = false;
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
    Simulation(const SimOptions& options, Recording* out, std::vector<RunObserver*> observers,
               std::ostream& err)
        : mOptions(options),
          mOut(out),
          mObservers(std::move(observers)),
          mLauncher(kTool, mConfig, err) {}

    int run() {
        std::string error;
        // The events are checked now and read again as the run reaches them, never kept.
        if (!Scenario::parseFile(mOptions.scenarioPath, &mScenario, &error,
                                 /*keepEvents=*/false)) {
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
        mOut->durationMs = mScenario.durationMs;

        tools::DeviceRootSession deviceRoot;
        if (!deviceRoot.open(mOptions.deviceRoot, kTool, &error)) return mLauncher.fail(error);
        for (const auto& [name, value] : mScenario.properties) {
            if (property_set(name.c_str(), value.c_str()) != 0) {
                return mLauncher.fail(mScenario.file + ": properties." + name +
                                      ": cannot be set in " + deviceRoot.root());
            }
        }
        Recorder recorder(mOut, mConfig, mScenario, mObservers);
        if (mOptions.debug || mScenario.debug) {
            if (property_set(kDebugProperty, "true") != 0) {
                return mLauncher.fail(std::string("cannot set ") + kDebugProperty + " under " +
                                      deviceRoot.root());
            }
            recorder.property(kDebugProperty, "true");
        }
        fakeperf::reset();
        // The recorder sees every call as it is made; keeping them too would grow with the run.
        fakeperf::setRecording(false);
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

        Replay replay{feature.get(), device, recorder, clock, baseNs, {}, 0, -1, false, false};
        if (!this->replay(replay, &error)) {
            feature.reset();
            if (mInterrupted) {
                mLauncher.fail("interrupted; the run was stopped");
                return tools::kInterrupted;
            }
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
        recorder.finish(mScenario.durationMs, !mScenario.gpu.empty() && !closedLoop,
                        !mScenario.battery.empty() && !closedLoop);
        return 0;
    }

  private:
    struct Replay {
        PowerOptFeature* feature;
        FakeDevice& device;
        Recorder& recorder;
        VirtualClock& clock;
        int64_t baseNs;
        std::vector<int64_t> traces;  // times at which a trace point takes effect
        size_t nextTrace = 0;
        int64_t deviceMs = -1;  // the time the device was last brought up to
        bool gpu = false;
        bool battery = false;
    };

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

    // Moves the clock to `targetNs`: from trace point to trace point and timer expiry to timer
    // expiry, bringing the device's nodes up to each time before the ticks of that time.
    bool runUntil(Replay& r, int64_t targetNs, std::string* error) {
        for (;;) {
            if (mOptions.stopRequested && mOptions.stopRequested()) {
                mInterrupted = true;
                return false;
            }
            int64_t nowNs = targetNs;
            if (r.nextTrace < r.traces.size()) {
                nowNs = std::min(nowNs, r.baseNs + r.traces[r.nextTrace] * kNsPerMs);
            }
            int64_t expiry = 0;
            if (r.clock.nextExpiryNs(&expiry)) nowNs = std::min(nowNs, std::max(expiry, r.baseNs));
            const int64_t nowMs = (nowNs - r.baseNs) / kNsPerMs;

            // The nodes first, so that the ticks and events of this time read them; once per
            // time, as a second update would start a new (empty) busy window.
            if (nowMs != r.deviceMs) {
                if (!r.device.update(nowMs, error)) return false;
                r.deviceMs = nowMs;
                r.recorder.device(nowMs, r.device, r.gpu, r.battery);
                describeTrace(nowMs, r.recorder, r.device);
                while (r.nextTrace < r.traces.size() && r.traces[r.nextTrace] <= nowMs) {
                    ++r.nextTrace;
                }
            }
            r.clock.advanceTo(nowNs);
            if (!observe(r.feature, r.recorder)) {
                *error = kSnapshotRefused;
                return false;
            }
            if (mOptions.progress) mOptions.progress(nowMs, mScenario.durationMs);
            if (nowNs >= targetNs) return true;
        }
    }

    bool replay(Replay& r, std::string* error) {
        r.traces = traceTimes();
        const bool closedLoop = r.device.closedLoop() != nullptr;
        r.gpu = !mScenario.gpu.empty() || closedLoop;
        r.battery = !mScenario.battery.empty() || closedLoop;
        const bool delivered = mScenario.forEachEvent(
                [&](const ScenarioEvent& event) {
                    if (!runUntil(r, r.baseNs + event.timeMs * kNsPerMs, error)) return false;
                    if (!event.note.empty()) r.recorder.note(event.note);
                    if (!event.hasEvent) return true;
                    r.recorder.event(event.event);
                    r.feature->sendEvents(event.event.payload);
                    if (!observe(r.feature, r.recorder)) {
                        *error = kSnapshotRefused;
                        return false;
                    }
                    return true;
                },
                error);
        return delivered && runUntil(r, r.baseNs + mScenario.durationMs * kNsPerMs, error);
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
    bool mInterrupted = false;
    Recording* mOut;
    std::vector<RunObserver*> mObservers;
    Scenario mScenario;
    DeviceModel mModel;
    FeatureConfig mConfig;
    tools::FeatureLauncher mLauncher;
    size_t mGpuLine = 0;
    size_t mBatteryLine = 0;
    size_t mForegroundLine = 0;
};

}  // namespace

double LockSlice::share(int64_t runEndMs) const {
    const int64_t span = endMs.value_or(runEndMs) - startMs;
    return coveredMs > 0 && span > 0
                   ? std::min(1.0, static_cast<double>(coveredMs) / static_cast<double>(span))
                   : 1.0;
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

int runSimulation(const SimOptions& options, Recording* out,
                  const std::vector<RunObserver*>& observers, std::ostream& err) {
    return Simulation(options, out, observers, err).run();
}

}  // namespace pwr::sim
