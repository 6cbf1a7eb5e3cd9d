#include "host/sim/Explainer.h"

#include <android-base/stringprintf.h>

#include "feature/FeatureCodes.h"
#include "feature/FeatureSettings.h"

namespace pwr::sim {
namespace {

using android::base::StringPrintf;
using S = FeatureSettings;

const char* keyName(int S::*member) {
    return settings::keyOf(member).name;
}

}  // namespace

std::string Explainer::gpuReason(const PSMFeatureSnapshot& s, Reason* reason) const {
    *reason = Reason::None;
    if (s.psmMode != codes::kModeGaming || s.gameState != codes::kGameStateOn ||
        s.gameTimerExists == 0 || s.heldProfileHandle > 0) {
        return "";
    }
    const bool checking = s.gpuPhase == PSM_GPU_PHASE_CHECKING;
    const bool evaluating = s.gpuPhase == PSM_GPU_PHASE_EVALUATING;
    if ((checking || evaluating) && s.gpuSamples < s.gpuSampleCount) {
        *reason = Reason::Samples;
        return StringPrintf("no GPU profile yet: %d of %d samples (%s) kept, %s", s.gpuSamples,
                            s.gpuSampleCount, keyName(&S::mGpuSampleCount),
                            checking ? "the stability check waits for a full list"
                                     : "the evaluation waits for a full list");
    }
    if (checking && s.lastBusyRange > s.gpuBusyStabilityThreshold) {
        *reason = Reason::Unstable;
        return StringPrintf(
                "no GPU profile yet: waiting for a stable GPU, busy range %d points is above "
                "%d (%s)",
                s.lastBusyRange, s.gpuBusyStabilityThreshold,
                keyName(&S::mGpuBusyStabilityThreshold));
    }
    if (checking && s.lastBusyRange >= 0) {
        *reason = Reason::Settling;
        return StringPrintf(
                "no GPU profile yet: the GPU is stable (busy range %d points, at most %d), %d of "
                "%d stable checks in a row (%s)",
                s.lastBusyRange, s.gpuBusyStabilityThreshold, s.gpuStableCount,
                s.stabilitySampleCount, keyName(&S::mStabilitySampleCount));
    }
    if (evaluating && s.lastDecision >= 0 && s.lastDecision == s.gpuProfileLevel) {
        *reason = Reason::SameLevel;
        return StringPrintf(
                "no GPU profile lock: the decision for an average of %lld MHz (thresholds %d and "
                "%d MHz) is level %d, the level already in force, so the monitor takes no lock",
                static_cast<long long>(s.lastAveragedFreqMhz), s.gpuFreqThresholdLow,
                s.gpuFreqThresholdHigh, s.lastDecision);
    }
    return "";
}

std::string Explainer::batteryReason(const PSMFeatureSnapshot& s, Reason* reason) const {
    *reason = Reason::None;
    if (!mBatteryInput || s.batteryTimerArmed != 0) return "";
    if (s.psmMode != codes::kModeBatteryWatch) {
        *reason = Reason::ModeIgnoresBattery;
        return StringPrintf(
                "the battery is not watched: PSM mode %d does not read it; only mode %d runs the "
                "battery timer",
                s.psmMode, codes::kModeBatteryWatch);
    }
    if (s.batteryTimerExists == 0) {
        *reason = Reason::NoBatteryMonitor;
        return StringPrintf(
                "the battery is not watched: PSM mode %d, but the configuration has no battery "
                "monitor (it comes with %s on)",
                s.psmMode, settings::keyOf(&S::mDeepMode).name);
    }
    *reason = Reason::NoEligibleApp;
    return StringPrintf(
            "the battery is not watched: PSM mode %d, but no application the battery monitor "
            "serves has started (its start arms the battery timer)",
            s.psmMode);
}

std::vector<std::string> Explainer::explain(const PSMFeatureSnapshot& state) {
    mGameTimerRan = mGameTimerRan || state.gameTimerArmed != 0;
    mBatteryTimerRan = mBatteryTimerRan || state.batteryTimerArmed != 0;
    std::vector<std::string> lines;
    if (state.gameState != codes::kGameStateOn) {
        mToldThisGame.clear();
        mToldLevel = -1;
    }
    Reason gpu = Reason::None;
    std::string text;
    if (state.gameState == codes::kGameStateOn) text = gpuReason(state, &gpu);
    const bool newLevel = gpu == Reason::SameLevel && state.gpuProfileLevel != mToldLevel;
    if (gpu != Reason::None && (mToldThisGame.insert(gpu).second || newLevel)) {
        if (gpu == Reason::SameLevel) mToldLevel = state.gpuProfileLevel;
        lines.push_back(std::move(text));
    }
    // Most looks change nothing: the sentence is made only for a new reason.
    if (!mBatteryInput || state.batteryTimerArmed != 0) {
        mBattery = Reason::None;
        return lines;
    }
    if (mBattery != Reason::None && state.psmMode == mBatteryMode) return lines;
    Reason battery;
    text = batteryReason(state, &battery);
    // Told again for a new reason, or the same one in another mode.
    if (battery != Reason::None) lines.push_back(std::move(text));
    mBattery = battery;
    mBatteryMode = state.psmMode;
    return lines;
}

std::vector<std::string> Explainer::unreadInputs(bool gpuTrace, bool batteryTrace) const {
    std::vector<std::string> out;
    if (gpuTrace && !mGameTimerRan) {
        out.push_back(StringPrintf(
                "the GPU trace was never read: the game timer never ran (the GPU monitor samples "
                "only in PSM mode %d, with a game in the foreground and %s on)",
                codes::kModeGaming, settings::keyOf(&S::mGpuMode).name));
    }
    if (batteryTrace && !mBatteryTimerRan) {
        out.push_back(StringPrintf(
                "the battery trace was never read: the battery timer never ran (the battery "
                "monitor reads the current only in PSM mode %d, with %s on and an application it "
                "serves in the foreground)",
                codes::kModeBatteryWatch, settings::keyOf(&S::mDeepMode).name));
    }
    return out;
}

}  // namespace pwr::sim
