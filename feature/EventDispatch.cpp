// Event dispatch: what app start and stop, game-off and usable power mode hints do in each PSM
// mode.
//
// The mode and the gaming state are read under mStateMutex and the lock is dropped before acting;
// every write takes it again. Two events are handled in order only because the host delivers them
// one at a time on its event thread.

#include "feature/PSMPowerOptFeature.h"

#include "feature/FeatureCodes.h"
#include "feature/LogSites.h"

namespace codes = pwr::codes;

namespace {

// The battery timer samples once a second.
constexpr int kBatteryPeriodMs = 1000;

// The application key: `appName` up to, not including, its first slash (all of it when there is
// none). Cuts the event's own copy of the name, so no new string is made.
std::string appKey(std::string appName) {
    const size_t slash = appName.find('/');
    if (slash != std::string::npos) appName.resize(slash);
    return appName;
}

}  // namespace

void PSMPowerOptFeature::sendEvents(AsyncTriggerPayload payload) {
    if (!mReady) return;
    switch (payload.hintId) {
        case codes::kAppStart:
        case codes::kAppStartAlt:
            handleStart(appKey(std::move(payload.appName)));
            break;
        case codes::kAppStop:
        case codes::kAppStopAlt:
        case codes::kAppStopOther:
            handleStop(payload);
            break;
        case codes::kGameOff:
            handleGameOff();
            break;
        case codes::kUsablePowerModeHint:
            handlePowerModeHint(payload);
            break;
        default:
            break;
    }
}

void PSMPowerOptFeature::handleStart(std::string key) {
    Timer timer;
    const int mode = mModeState.psmMode();
    if (mode == codes::kModeGaming) {
        if (mSettings.mGpuMode == 0) return;
        if (isGame(std::move(key))) {
            if (mModeState.gameState() == codes::kGameStateOn) return;
            PWR_LOG_AT(pwr::site::kGamingOn);
            initGpuSamples();
            timer.Timer_disable(mGpuMonitor.timer());
            if (!timer.Timer_scheduleInterval(mGpuMonitor.timer(), mSettings.mGameTimerMs)) {
                PWR_LOG_AT(pwr::site::kGameTimerNotStarted);
            }
            // Set even when the timer failed, so the next start of a game does not retry.
            mModeState.setGameState(codes::kGameStateOn);
        } else {
            if (mModeState.gameState() == codes::kGameStateOff) return;
            PWR_LOG_AT(pwr::site::kGamingOffNonGame);
            timer.Timer_disable(mGpuMonitor.timer());
            releaseProfileLock();
            mModeState.setGameState(codes::kGameStateOff);
        }
    } else if (mode == codes::kModeBatteryWatch) {
        const bool eligible = isPSMType(std::move(key));
        timer.Timer_disable(mBatteryMonitor.timer());
        // The tasks boosted for the app that was in front lose their boost.
        ResetBattery();
        if (eligible && !timer.Timer_scheduleInterval(mBatteryMonitor.timer(), kBatteryPeriodMs)) {
            PWR_LOG_AT(pwr::site::kBatteryTimerNotStarted);
        }
    }
}

void PSMPowerOptFeature::handleStop(AsyncTriggerPayload& payload) {
    Timer timer;
    const int mode = mModeState.psmMode();
    if (mode == codes::kModeGaming) {
        if (mModeState.gameState() == codes::kGameStateOff) return;
        PWR_LOG_AT(pwr::site::kStopHint, payload.hintId, payload.appName.c_str());
        timer.Timer_disable(mGpuMonitor.timer());
        releaseProfileLock();
        mModeState.setGameState(codes::kGameStateOff);
    } else if (mode == codes::kModeBatteryWatch) {
        if (isPSMType(appKey(std::move(payload.appName)))) {
            timer.Timer_disable(mBatteryMonitor.timer());
            ResetBattery();
        }
    }
}

void PSMPowerOptFeature::handleGameOff() {
    if (mModeState.psmMode() != codes::kModeGaming) return;
    if (mModeState.gameState() == codes::kGameStateOff) return;
    releaseProfileLock();
    Timer().Timer_disable(mGpuMonitor.timer());
    mModeState.setGameState(codes::kGameStateOff);
}

void PSMPowerOptFeature::handlePowerModeHint(const AsyncTriggerPayload& payload) {
    if (mSettings.mPsmState != 0) {
        // A configured PSM_STATE owns the mode; hints may not change it.
        PWR_LOG_AT(pwr::site::kXmlOwnsMode);
        return;
    }
    const int action = static_cast<int>(codes::hintAction(payload.hintType));
    const int type = static_cast<int>(codes::hintType(payload.hintType));
    if (action == 0) return;
    if (debugEnabled) {
        PWR_LOG_AT(pwr::site::kPowerModeHint, payload.appName.c_str(), payload.hintId,
                   payload.hintType, action, type);
    }
    switch (type) {
        case codes::kModeOff:
            releaseProfileLock();
            mModeState.setPsmMode(codes::kModeOff);
            leaveLowPowerMode();
            break;
        case codes::kModeLight:
            releaseProfileLock();
            applyProfileLock(mSettings.mLightModeProfile);
            mModeState.setPsmMode(codes::kModeLight);
            leaveLowPowerMode();
            break;
        case codes::kModeGaming:
            releaseProfileLock();
            mModeState.setPsmMode(codes::kModeGaming);
            leaveLowPowerMode();
            break;
        case codes::kHintLowPower:
            releaseProfileLock();
            // Re-applying over an applied deep mode would save deep mode's own values as the
            // ones to put back.
            if (mDeepMode.applied()) resetDeepMode();
            lowPowerInit();
            break;
        default:
            break;
    }
}

void PSMPowerOptFeature::leaveLowPowerMode() {
    // A deep-mode timer still waiting for its lock must not engage after the device has left.
    // (A callback already running on the timer's thread is not waited for.)
    mDeepMode.disarmTimer();
    // Only an applied deep mode is reset: a second reset would find the saved values consumed
    // and clear the properties.
    if (mDeepMode.applied()) resetDeepMode();
    ResetBattery();
}
