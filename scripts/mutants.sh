#!/usr/bin/env bash
# Fault detection of the test suite, measured with mutants (run by hand, not in CI).
#
# Each mutant below is one small change that breaks behaviour the plug-in or its tools must keep:
# a comparison made strict or loose, a constant changed, a step dropped or moved, a performance
# lock or a mutex dropped where it shows. The script copies the working tree (tracked and new
# files) into a scratch directory with its own build directory, builds it once and checks that the
# whole suite passes there; then for each mutant it applies the change, rebuilds incrementally,
# runs the whole suite with a per-test timeout until the first failure, and puts the file back.
# A mutant is killed when the suite fails (or the change no longer builds) and survives when every
# test passes. It prints one line per mutant and a score.
#
#   scripts/mutants.sh                 every mutant
#   scripts/mutants.sh 3 17 dispatch   mutants by number or by a word of their name
#   scripts/mutants.sh --list          the table, numbered, without building anything
#   scripts/mutants.sh --check         only check that every anchor is found exactly once
#
# Environment: PWR_MUTANT_DIR (scratch directory, default /tmp/pwr-mutants; kept between runs so
# that only the first run builds everything), PWR_MUTANT_JOBS (build and test jobs, default 2),
# PWR_MUTANT_TIMEOUT (seconds per test, default 300).
#
# Table: one mutant a line, `name @@ file @@ anchor @@ replacement`. The anchor is exact text that
# must occur exactly once in the file (a "\n" in it stands for a line break, so that a line written
# twice can be told apart by its neighbour); the replacement takes its place. A line starting with
# `=` marks an equivalent mutant, kept to show it was considered: the comment above it says why it
# cannot be told apart, and it is left out of the score.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
work=${PWR_MUTANT_DIR:-/tmp/pwr-mutants}
jobs=${PWR_MUTANT_JOBS:-2}
timeout=${PWR_MUTANT_TIMEOUT:-300}

read -r -d '' TABLE <<'EOF' || true
# --- Event dispatch
dispatch-alt-start-ignored @@ feature/EventDispatch.cpp @@         case codes::kAppStartAlt:\n @@ 
dispatch-other-stop-ignored @@ feature/EventDispatch.cpp @@         case codes::kAppStopOther:\n @@ 
dispatch-app-key-keeps-activity @@ feature/EventDispatch.cpp @@ if (slash != std::string::npos) appName.resize(slash); @@ (void)slash;
dispatch-game-start-without-gpu-mode @@ feature/EventDispatch.cpp @@ if (mSettings.mGpuMode == 0) return; @@ 
dispatch-second-game-start-restarts @@ feature/EventDispatch.cpp @@ if (mModeState.gameState() == codes::kGameStateOn) return; @@ 
dispatch-game-state-not-set @@ feature/EventDispatch.cpp @@             mModeState.setGameState(codes::kGameStateOn); @@ 
dispatch-non-game-keeps-profile @@ feature/EventDispatch.cpp @@ PWR_LOG_AT(pwr::site::kGamingOffNonGame);\n            timer.Timer_disable(mGpuMonitor.timer());\n            releaseProfileLock(); @@ PWR_LOG_AT(pwr::site::kGamingOffNonGame);\n            timer.Timer_disable(mGpuMonitor.timer());
dispatch-start-keeps-boost @@ feature/EventDispatch.cpp @@ lose their boost.\n        ResetBattery(); @@ lose their boost.
dispatch-battery-timer-for-ineligible @@ feature/EventDispatch.cpp @@ if (eligible && !timer.Timer_scheduleInterval @@ if (!eligible && !timer.Timer_scheduleInterval
dispatch-battery-period @@ feature/EventDispatch.cpp @@ constexpr int kBatteryPeriodMs = 1000; @@ constexpr int kBatteryPeriodMs = 2000;
dispatch-stop-when-already-off @@ feature/EventDispatch.cpp @@     if (mode == codes::kModeGaming) {\n        if (mModeState.gameState() == codes::kGameStateOff) return;\n        PWR_LOG_AT @@     if (mode == codes::kModeGaming) {\n        PWR_LOG_AT
dispatch-stop-ineligible-resets @@ feature/EventDispatch.cpp @@ if (isPSMType(appKey(std::move(payload.appName)))) { @@ if (!isPSMType(appKey(std::move(payload.appName)))) {
dispatch-game-off-any-mode @@ feature/EventDispatch.cpp @@ if (mModeState.psmMode() != codes::kModeGaming) return; @@ 
dispatch-hint-with-psm-state-one @@ feature/EventDispatch.cpp @@ if (mSettings.mPsmState != 0) { @@ if (mSettings.mPsmState > 1) {
dispatch-hint-action-zero-acts @@ feature/EventDispatch.cpp @@ if (action == 0) return; @@ 
dispatch-light-mode-no-lock @@ feature/EventDispatch.cpp @@ applyProfileLock(mSettings.mLightModeProfile); @@ 
dispatch-low-power-over-applied @@ feature/EventDispatch.cpp @@             if (mDeepMode.applied()) resetDeepMode();\n            lowPowerInit(); @@             lowPowerInit();
dispatch-leave-keeps-deep-timer @@ feature/EventDispatch.cpp @@     mDeepMode.disarmTimer(); @@ 
# --- Classification and settings
classify-video-not-eligible @@ feature/Classification.cpp @@ type != kAppTypeBrowser && type != kAppTypeVideo) return false; @@ type != kAppTypeBrowser) return false;
classify-type-not-kept @@ feature/Classification.cpp @@     mPsmAppType = type; @@ 
settings-dynamic-by-prefix @@ feature/FeatureSettings.cpp @@ if (name.find(key.name) != std::string::npos) profiles.push_back(profile); @@ if (name.rfind(key.name, 0) == 0) profiles.push_back(profile);
settings-empty-profile-accepted @@ feature/FeatureSettings.cpp @@ return !(out.*key.profile).empty() || missing(key); @@ return true;
feature-mode-from-psm-state @@ feature/PSMPowerOptFeature.cpp @@     mModeState.setPsmMode(mSettings.mPsmState); @@ 
feature-deep-setup-without-switch @@ feature/PSMPowerOptFeature.cpp @@ key.enables == settings::Group::DeepMode && mSettings.mDeepMode != 0 && @@ key.enables == settings::Group::DeepMode &&
# --- Profile locks
lock-acquire-over-held @@ feature/ProfileLock.cpp @@ if (heldProfileHandle >= 1) return; @@ 
lock-first-handle-not-kept @@ feature/ProfileLock.cpp @@ if (handle >= 1) heldProfileHandle = handle; @@ if (handle > 1) heldProfileHandle = handle;
lock-last-list-applied @@ feature/ProfileLock.cpp @@ std::vector<int> list = profile[0]; @@ std::vector<int> list = profile.back();
lock-release-keeps-handle @@ feature/ProfileLock.cpp @@     heldProfileHandle = -1;\n} @@ }
lock-handle-zero-not-released @@ feature/ProfileLock.cpp @@ if (handle == -1 || mPowerHelper == nullptr) return; @@ if (handle <= 0 || mPowerHelper == nullptr) return;
# --- GPU stability monitor
gpu-two-changes-switch @@ feature/GpuStabilityMonitor.cpp @@ constexpr int kChangesBeforeSwitch = 3; @@ constexpr int kChangesBeforeSwitch = 2;
gpu-same-level-keeps-count @@ feature/GpuStabilityMonitor.cpp @@         gGpuProfileChangeCount = 0;\n        return; @@         return;
gpu-low-threshold-inclusive @@ feature/GpuStabilityMonitor.cpp @@ if (avgFreqMhz < static_cast<uint64_t> @@ if (avgFreqMhz <= static_cast<uint64_t>
gpu-high-threshold-exclusive @@ feature/GpuStabilityMonitor.cpp @@ } else if (avgFreqMhz <= @@ } else if (avgFreqMhz <
gpu-busy-range-strict @@ feature/GpuStabilityMonitor.cpp @@ if (range > mSettings.mGpuBusyStabilityThreshold) { @@ if (range >= mSettings.mGpuBusyStabilityThreshold) {
gpu-one-more-stable-tick @@ feature/GpuStabilityMonitor.cpp @@ if (++mGpuStableCount < mSettings.mStabilitySampleCount) return; @@ if (++mGpuStableCount <= mSettings.mStabilitySampleCount) return;
gpu-one-sample-fewer @@ feature/GpuStabilityMonitor.cpp @@ if (static_cast<int64_t>(mGpuSamples.size()) > mSettings.mGpuSampleCount) { @@ if (static_cast<int64_t>(mGpuSamples.size()) >= mSettings.mGpuSampleCount) {
gpu-unstable-keeps-count @@ feature/GpuStabilityMonitor.cpp @@             mGpuStableCount = 0;\n            return; @@             return;
gpu-khz-not-mhz @@ feature/GpuStabilityMonitor.cpp @@ constexpr uint64_t kHzPerMHz = 1000000; @@ constexpr uint64_t kHzPerMHz = 1000;
gpu-idle-sample-kept @@ feature/GpuStabilityMonitor.cpp @@ if (busy == 0) return false; @@ 
gpu-negative-capacity-reads-clock @@ feature/GpuStabilityMonitor.cpp @@ if (capacity != 0) { @@ if (capacity > 0) {
gpu-reset-keeps-samples @@ feature/GpuStabilityMonitor.cpp @@     mGpuSamples.clear(); @@ 
gpu-switch-keeps-old-lock @@ feature/GpuStabilityMonitor.cpp @@         mProfileLock.releaseLocked();\n    } @@     }
# --- Battery monitor and task-load boost
battery-boost-at-threshold @@ feature/BatteryMonitor.cpp @@ if (average > mActiveScalingUp) { @@ if (average >= mActiveScalingUp) {
battery-unboost-at-threshold @@ feature/BatteryMonitor.cpp @@ } else if (average < mActiveScalingDown) { @@ } else if (average <= mActiveScalingDown) {
battery-charging-counts @@ feature/BatteryMonitor.cpp @@ const double drain = milliamps < 0 ? -milliamps : 0; @@ const double drain = milliamps < 0 ? -milliamps : milliamps;
battery-window-one-short @@ feature/BatteryMonitor.cpp @@ if (static_cast<int64_t>(mBatterySamples.size()) > mSettings.mMaxSampleNum) { @@ if (static_cast<int64_t>(mBatterySamples.size()) >= mSettings.mMaxSampleNum) {
battery-failed-read-not-counted @@ feature/BatteryMonitor.cpp @@ PWR_LOG_AT(pwr::site::kReadDenied); @@ PWR_LOG_AT(pwr::site::kReadDenied);\n        return;
battery-average-over-samples @@ feature/BatteryMonitor.cpp @@ static_cast<float>(sum / mBatterySampleCounter); @@ static_cast<float>(sum / static_cast<double>(mBatterySamples.size()));
battery-counter-not-reset @@ feature/BatteryMonitor.cpp @@     }\n    mBatterySampleCounter = 0;\n} @@     }\n}
battery-browser-uses-video @@ feature/BatteryMonitor.cpp @@         mActiveScalingUp = mSettings.mBrowserScalingUp; @@         mActiveScalingUp = mSettings.mVideoScalingUp;
battery-down-threshold-unchecked @@ feature/BatteryMonitor.cpp @@ mActiveScalingUp == 0 || mActiveScalingDown == 0) { @@ mActiveScalingUp == 0) {
battery-reset-keeps-top-flag @@ feature/BatteryMonitor.cpp @@     mTopTaskFlag = 0;\n} @@ }
boost-five-top-tasks @@ feature/BatteryMonitor.cpp @@ constexpr size_t kMaxTopTasks = 4; @@ constexpr size_t kMaxTopTasks = 5;
boost-system-server-kept @@ feature/BatteryMonitor.cpp @@ if (!name.empty() && name.find("system_server") == std::string::npos) { @@ if (!name.empty()) {
boost-sign-bit @@ feature/BatteryMonitor.cpp @@ (value < 0 ? 0x80u : 0u) @@ (value < 0 ? 0x40u : 0u)
boost-pid-shift @@ feature/BatteryMonitor.cpp @@ (static_cast<uint32_t>(pid) << 8) @@ (static_cast<uint32_t>(pid) << 7)
boost-old-handle-kept @@ feature/BatteryMonitor.cpp @@     mProfileLock.releaseProfile(handle);\n @@ 
boost-single-task-refused @@ feature/BatteryMonitor.cpp @@ if (maxNumTask == 0) { @@ if (maxNumTask <= 1) {
# --- Deep mode, state store, properties
deep-psm-key-as-properties @@ feature/DeepMode.cpp @@ if (key == pwr::settings::kPropertyListExcluded) continue; @@ 
deep-off-restores-unless-zero @@ feature/DeepMode.cpp @@ if (previous == '1') mProperties.releaseProp(mPropList); @@ if (previous != '0') mProperties.releaseProp(mPropList);
deep-timer-one-second @@ feature/DeepMode.cpp @@ spec.it_value.tv_nsec = 500000000; @@ spec.it_value.tv_nsec = 0;
deep-properties-without-lock @@ feature/DeepMode.cpp @@ if (mProfileLock.held() < 1) return; @@ 
deep-timer-keeps-firing @@ feature/DeepMode.cpp @@ once per arming.\n        pwr::MutexLock lock(mDeepTimerMutex);\n        Timer().Timer_disable(mDeepTimerStruct.get()); @@ once per arming.\n        pwr::MutexLock lock(mDeepTimerMutex);
deep-reset-after-empty-read @@ feature/DeepMode.cpp @@ if (mPropResult == 0) return; @@ 
deep-switch-not-recorded @@ feature/DeepMode.cpp @@     mStore.pmDbWrite("PSM", static_cast<char>('0' + deepMode)); @@ 
store-read-keeps-rows @@ feature/StateStore.cpp @@     mPmDatabase->deleteAllDR(rowKey); @@ 
store-first-row-wins @@ feature/StateStore.cpp @@         result = rows[i]->blob; @@         if (i == 0) result = rows[i]->blob;
store-write-stays-cached @@ feature/StateStore.cpp @@     mPmDatabase->writeCachedDRToDisk();\n @@ 
props-not-saved @@ feature/PropertyApplier.cpp @@         mStore.pmDbWrite(name, old[0]); @@ 
props-unset-saved-as-empty @@ feature/PropertyApplier.cpp @@ result = property_get(name.c_str(), old, "0"); @@ result = property_get(name.c_str(), old, "");
props-split-on-space-too @@ feature/PropertyApplier.cpp @@ strtok_r(nullptr, ",", &rest) @@ strtok_r(nullptr, ", ", &rest)
# --- Timer service
timer-period-in-microseconds @@ platform/Timer.cpp @@ spec.it_value.tv_sec * 1000) * 1000000L; @@ spec.it_value.tv_sec * 1000) * 1000L;
timer-single-in-milliseconds @@ platform/Timer.cpp @@ spec.it_value.tv_sec * 1000) * 1000L; @@ spec.it_value.tv_sec * 1000) * 1000000L;
timer-schedule-while-active @@ platform/Timer.cpp @@ bool Timer::Timer_scheduleInterval(Timer_s* timer, int milliseconds) {\n    pwr::MutexLock lock(timerMutex);\n    if (timer == nullptr || timer->active) return false; @@ bool Timer::Timer_scheduleInterval(Timer_s* timer, int milliseconds) {\n    pwr::MutexLock lock(timerMutex);\n    if (timer == nullptr) return false;
timer-disable-stays-active @@ platform/Timer.cpp @@ if (arm(timer, itimerspec{})) timer->active = false; @@ (void)arm(timer, itimerspec{});
timer-release-does-not-wait @@ platform/Timer.cpp @@     while (dispatch->running != 0) r.callbackReturned.wait(r.mutex); @@ 
timer-deleted-record-still-notified @@ platform/Timer.cpp @@ std::unique_ptr<Dispatch> dispatch = unregister(timer);\n    deleteRecord(timer); @@ std::unique_ptr<Dispatch> dispatch;\n    deleteRecord(timer);
# --- GPU and CPU information, number readers
grax-capacity-scale @@ platform/GraxInfo.cpp @@ (f << 10) / max; @@ (f << 9) / max;
grax-busy-pair-unchecked @@ platform/GraxInfo.cpp @@     if (count != 2) return -EINVAL; @@ 
grax-stats-lowest-first @@ platform/GraxInfo.cpp @@ const uint64_t f = mFreqs[n - 1 - i]; @@ const uint64_t f = mFreqs[i];
grax-delta-unbounded @@ platform/GraxInfo.cpp @@         delta = std::min(delta, mMaxTimeDelta); @@ 
levels-search-from-zero @@ platform/FreqLevels.h @@ for (size_t i = 1; i < n; ++i) { @@ for (size_t i = 0; i < n; ++i) {
levels-wrap-counts-zero @@ platform/FreqLevels.h @@ return current >= previous ? current - previous : current; @@ return current >= previous ? current - previous : 0;
policy-previous-stats-kept @@ platform/PolicyInfo.cpp @@         before = now; @@ 
policy-capacity-gpu-scale @@ platform/PolicyInfo.cpp @@ (f * cpuCapacity) / max; @@ (f << 10) / max;
policy-backward-delta @@ platform/PolicyInfo.cpp @@ return current >= previous ? current - previous : 0; @@ return current >= previous ? current - previous : current;
policy-time-unweighted @@ platform/PolicyInfo.cpp @@ weightedFreq += static_cast<double>(freq) * static_cast<double>(delta); @@ weightedFreq += static_cast<double>(freq);
numbers-bad-piece-skipped @@ platform/NumberReader.cpp @@ if (!parseNumber(text.c_str() + begin, width, &value)) return false; @@ if (!parseNumber(text.c_str() + begin, width, &value)) value = 0;
numbers-empty-piece-fails @@ platform/NumberReader.cpp @@         if (piece.empty()) continue; @@ 
# --- Display and connection probes, helper, classifier, touch
usb-connected-ignored @@ platform/DisplayProbes.cpp @@ if (line == "CONFIGURED" || line == "CONNECTED") { @@ if (line == "CONFIGURED") {
usb-debug-property-inverted @@ platform/DisplayProbes.cpp @@ attached = atoi(value) != 1 ? 1 : 0; @@ attached = atoi(value) != 0 ? 1 : 0;
external-display-not-first @@ platform/DisplayProbes.cpp @@ if (isDisplayConnected() != 0) return 0; @@ 
display-stream-not-rewound @@ platform/DisplayProbes.cpp @@         stream.seekg(0);\n        if (line == "enabled") { @@         if (line == "enabled") {
panel-fps-scale @@ platform/DisplayProbes.cpp @@ static_cast<float>(1000000000 / vsyncPeriodNs) @@ static_cast<float>(1000000 / vsyncPeriodNs)
fps-frames-skip-a-digit @@ platform/DisplayProbes.cpp @@ strtoul(line.c_str() + last + 1, nullptr, 10) @@ strtoul(line.c_str() + last + 2, nullptr, 10)
helper-debug-property-ignored @@ platform/PowerHelper.cpp @@ if (property_get_bool("vendor.debug.trace.power", false)) debugEnabled = 1; @@ 
helper-zero-duration-hint-refused @@ platform/PowerHelper.cpp @@ if (duration < 0 || perflock_hint == nullptr) return 0; @@ if (duration <= 0 || perflock_hint == nullptr) return 0;
classifier-wrong-request @@ platform/PowerOptClassifier.cpp @@ return getFeedback(kAppTypeRequest, app.c_str()); @@ return getFeedback(kAppTypeRequest + 1, app.c_str());
touch-name-exact @@ platform/TouchEvent.cpp @@ strstr(name, kTouchDeviceName) == nullptr @@ strcmp(name, kTouchDeviceName) != 0
touch-any-abs-code @@ platform/TouchEvent.cpp @@ if (event.type != EV_ABS || event.code != ABS_MT_TRACKING_ID) continue; @@ if (event.type != EV_ABS) continue;
touch-duplicate-id @@ platform/TouchEvent.cpp @@         if (entry->id == id) return nullptr; @@ 
touch-disabled-called @@ platform/TouchEvent.cpp @@ if (entry->enabled != 0 && entry->callback != nullptr) { @@ if (entry->callback != nullptr) {
touch-enable-not-recorded @@ platform/TouchEvent.cpp @@         entry->enabled = enable ? 1 : 0; @@ 
# --- Record store
pmdb-no-create @@ pmdb/PMDatabase.cpp @@ SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE @@ SQLITE_OPEN_READWRITE
pmdb-read-limit @@ pmdb/PMDatabase.cpp @@ constexpr int kMaxRowsPerRead = 10000; @@ constexpr int kMaxRowsPerRead = 1000;
pmdb-key-ignores-reserved-name @@ pmdb/PMDatabase.cpp @@     if (!key.rsvdName.empty()) add("rsvdName", "'" + key.rsvdName + "'");\n @@ 
pmdb-update-inserts @@ pmdb/PMDatabase.cpp @@ const bool isUpdate = row.rowid != 0; @@ const bool isUpdate = false;
pmdb-close-drops-cache @@ pmdb/PMDatabase.cpp @@ PMDatabase<Row>::~PMDatabase() {\n    writeCachedDRToDisk(); @@ PMDatabase<Row>::~PMDatabase() {
pmdb-no-wal @@ pmdb/PMDatabase.cpp @@ "PRAGMA journal_mode=WAL" @@ "PRAGMA journal_mode=DELETE"
pmdb-transaction-not-pending @@ pmdb/Transaction.cpp @@     mPending = rc == SQLITE_OK; @@     mPending = false;
# --- Host tools
script-time-may-go-back @@ host/tools/EventScript.cpp @@ if (time < last.timeMs) { @@ if (time < last.timeMs - 1) {
script-hash-in-word-is-comment @@ host/tools/EventScript.cpp @@ if (line[i] == '#' && (i == 0 || line[i - 1] == ' ' || line[i - 1] == '\t')) { @@ if (line[i] == '#') {
script-hint-type-wide @@ host/tools/EventScript.cpp @@ if (!parseInteger(word(0), 0, codes::kHintTypeMask, &type)) { @@ if (!parseInteger(word(0), 0, codes::kHintActionMask, &type)) {
script-crlf-kept @@ host/tools/EventScript.cpp @@ if (!content.empty() && content.back() == '\r') content.remove_suffix(1); @@ 
keys-equal-thresholds-refused @@ host/tools/FeatureKeys.cpp @@             low > high) { @@             low >= high) {
keys-zero-boost-scale-accepted @@ host/tools/FeatureKeys.cpp @@ if (parsed(&S::taskLoadBoostScale, &v) && v >= 0) { @@ if (parsed(&S::taskLoadBoostScale, &v) && v > 0) {
keys-long-property-name @@ host/tools/FeatureKeys.cpp @@ name.size() >= 92) { @@ name.size() > 92) {
xml-line-of-value-off @@ host/tools/FeatureConfigXml.cpp @@ + linesBefore(value, offset) - linesBefore(value, first); @@ + linesBefore(value, offset);
# Equivalent: the replay resets the fake library before it loads the feature, and the fake then
# grants every lock with handles counted from 1; a result of 0 never reaches the timeline.
=replay-refusal-as-lock @@ host/tools/Replay.cpp @@ if (call.result >= 1) { @@ if (call.result >= 0) {
clock-time-not-advanced @@ host/tools/VirtualClock.cpp @@ if (due->expiryNs > mNowNs) mNowNs = due->expiryNs; @@ 
clock-nanoseconds-overflow-accepted @@ host/tools/VirtualClock.cpp @@ ts.tv_nsec >= kNsPerSecond) return false; @@ ts.tv_nsec > kNsPerSecond) return false;
clock-zero-value-arms @@ host/tools/VirtualClock.cpp @@ entry->armed = false;  // a zero first expiry disarms @@ entry->armed = true;
EOF

# The helper that reads the table, checks anchors, applies and reverts mutants and mirrors the tree.
helper=$(mktemp)
trap 'rm -f "$helper"' EXIT
cat >"$helper" <<'PY'
import os, sys, subprocess, time

def table():
    rows = []
    for raw in os.environ["TABLE"].splitlines():
        if not raw.strip() or raw.startswith("#"):
            continue
        equivalent = raw.startswith("=")
        parts = (raw[1:] if equivalent else raw).split("@@")
        if len(parts) != 4:
            sys.exit(f"mutants: malformed table line: {raw}")
        # One space pads each side of a separator; the anchor's own indentation stays.
        name, path = parts[0].strip(), parts[1].strip()
        anchor = parts[2][1:-1].replace("\\n", "\n")
        replacement = parts[3][1:].rstrip().replace("\\n", "\n")
        rows.append(dict(name=name, path=path, anchor=anchor, replacement=replacement,
                         equivalent=equivalent))
    return rows

def check(tree):
    bad = 0
    for i, m in enumerate(table(), 1):
        try:
            text = open(os.path.join(tree, m["path"]), encoding="utf-8").read()
        except OSError as e:
            print(f"mutant {i} {m['name']}: {e}"); bad += 1; continue
        n = text.count(m["anchor"])
        if n != 1:
            print(f"mutant {i} {m['name']}: anchor found {n} times in {m['path']}: {m['anchor']!r}")
            bad += 1
    names = [m["name"] for m in table()]
    for dup in sorted({n for n in names if names.count(n) > 1}):
        print(f"mutant name {dup} is used twice"); bad += 1
    if bad:
        sys.exit(f"mutants: {bad} table problem(s)")

def touch_now(path):
    now = time.time()
    os.utime(path, (now, now))

def apply(tree, index):
    m = table()[index - 1]
    path = os.path.join(tree, m["path"])
    text = open(path, encoding="utf-8").read()
    if text.count(m["anchor"]) != 1:
        sys.exit(f"mutants: anchor of {m['name']} not found exactly once in the scratch tree")
    open(path + ".orig", "w", encoding="utf-8").write(text)
    open(path, "w", encoding="utf-8").write(text.replace(m["anchor"], m["replacement"], 1))
    touch_now(path)

def revert(tree, index):
    m = table()[index - 1]
    path = os.path.join(tree, m["path"])
    os.replace(path + ".orig", path)
    touch_now(path)  # the mutant's objects are newer than the original's text

def mirror(source, tree):
    # Tracked and new (not ignored) files; a copy is written only when its content differs, so
    # that the scratch build stays incremental between runs.
    out = subprocess.run(["git", "-C", source, "ls-files", "-z", "--cached", "--others",
                          "--exclude-standard"], check=True, capture_output=True).stdout
    files = {f for f in out.decode().split("\0") if f and os.path.isfile(os.path.join(source, f))}
    for f in sorted(files):
        src, dst = os.path.join(source, f), os.path.join(tree, f)
        data = open(src, "rb").read()
        if os.path.exists(dst) and open(dst, "rb").read() == data:
            continue
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        open(dst, "wb").write(data)
        os.chmod(dst, os.stat(src).st_mode)
        touch_now(dst)
    for dirpath, dirnames, filenames in os.walk(tree):
        rel = os.path.relpath(dirpath, tree)
        if rel == ".":
            dirnames[:] = [d for d in dirnames if d != "build"]
        for name in filenames:
            f = os.path.normpath(os.path.join(rel, name))
            if f not in files:
                os.remove(os.path.join(dirpath, name))

def main():
    cmd = sys.argv[1]
    if cmd == "check":
        check(sys.argv[2])
    elif cmd == "list":
        for i, m in enumerate(table(), 1):
            print(f"{i}\t{m['name']}\t{m['path']}\t{'equivalent' if m['equivalent'] else ''}")
    elif cmd == "apply":
        apply(sys.argv[2], int(sys.argv[3]))
    elif cmd == "revert":
        revert(sys.argv[2], int(sys.argv[3]))
    elif cmd == "mirror":
        mirror(sys.argv[2], sys.argv[3])

main()
PY
export TABLE
mut() { python3 "$helper" "$@"; }

case "${1:-}" in
    --list) mut list; exit 0 ;;
    --check) mut check "$root"; echo "every anchor found exactly once"; exit 0 ;;
esac

# Which mutants: all, or those named by number or by a word of their name.
mapfile -t rows < <(mut list)
selected=()
for row in "${rows[@]}"; do
    IFS=$'\t' read -r number name _ _ <<<"$row"
    if [ $# -eq 0 ]; then
        selected+=("$number")
        continue
    fi
    for want in "$@"; do
        if [ "$want" = "$number" ] || [[ "$name" == *"$want"* ]]; then
            selected+=("$number")
            break
        fi
    done
done
[ ${#selected[@]} -gt 0 ] || { echo "mutants: nothing selected" >&2; exit 2; }

mut check "$root"
tree=$work/tree
build=$tree/build
logs=$work/logs
mkdir -p "$tree" "$logs"
# A run that was stopped may have left a mutant in place: put every file back first.
find "$tree" -path "$build" -prune -o -name '*.orig' -print | while read -r orig; do
    mv "$orig" "${orig%.orig}"
done
mut mirror "$root" "$tree"
mut check "$tree"

start=$SECONDS
if [ ! -f "$build/build.ninja" ]; then
    # Benchmarks are not part of the suite. Executables are not relinked when only the plug-in's
    # shared library changed: they load the rebuilt library at run time.
    cmake -S "$tree" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
        -DPWR_BUILD_BENCH=OFF -DCMAKE_LINK_DEPENDS_NO_SHARED=ON >"$logs/configure.log"
fi

run_suite() {  # $1: log file; fails on the first failing test
    rm -f "$build/Testing/Temporary/CTestCostData.txt"  # keep the declared order: unit tests first
    ctest --test-dir "$build" -j"$jobs" --timeout "$timeout" --stop-on-failure \
        --output-on-failure >"$1" 2>&1
}

echo "building the scratch copy in $build"
cmake --build "$build" -j"$jobs" >"$logs/build.log" 2>&1 || {
    tail -30 "$logs/build.log"
    echo "mutants: the unmutated tree does not build" >&2
    exit 1
}
suite_start=$SECONDS
if ! run_suite "$logs/baseline.log"; then
    tail -30 "$logs/baseline.log"
    echo "mutants: the suite fails without any mutant; fix that first" >&2
    exit 1
fi
echo "unmutated suite passes in $((SECONDS - suite_start))s (built in $((suite_start - start))s)"

killed=0
survived=0
equivalent=0
survivors=()
printf '%-4s %-40s %-9s %6s  %s\n' "#" mutant result time "first failure"
for number in "${selected[@]}"; do
    IFS=$'\t' read -r _ name path equiv <<<"${rows[$((number - 1))]}"
    t0=$SECONDS
    log=$logs/$number-$name.log
    mut apply "$tree" "$number"
    result=survived
    detail=""
    if ! cmake --build "$build" -j"$jobs" >"$log" 2>&1; then
        result=killed
        detail="(does not build)"
    elif ! run_suite "$log"; then
        result=killed
        # The first test that failed, as ctest names it.
        detail=$(grep -m1 -E 'Test +#[0-9]+: .*(\*\*\*|SEGFAULT|Subprocess|Child aborted)' "$log" |
            sed -E 's/.*Test +#[0-9]+: ([^ ]+) .*/\1/' || true)
    fi
    mut revert "$tree" "$number"
    if [ -n "$equiv" ]; then
        result="$result/eq"
        equivalent=$((equivalent + 1))
    elif [ "$result" = killed ]; then
        killed=$((killed + 1))
    else
        survived=$((survived + 1))
        survivors+=("$number $name ($path)")
    fi
    printf '%-4s %-40s %-9s %5ds  %s\n' "$number" "$name" "$result" $((SECONDS - t0)) "$detail"
done
# Leave the scratch build matching the tree for the next run.
cmake --build "$build" -j"$jobs" >"$logs/build.log" 2>&1 || true

scored=$((killed + survived))
echo "=== $killed killed, $survived survived, $equivalent equivalent (not scored)"
for s in "${survivors[@]}"; do echo "survived: $s"; done
if [ $scored -gt 0 ]; then
    echo "score: $killed/$scored = $((1000 * killed / scored / 10)).$((1000 * killed / scored % 10))%"
fi
echo "took $((SECONDS - start))s"
