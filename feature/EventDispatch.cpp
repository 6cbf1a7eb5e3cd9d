// Event dispatch: what app start and stop, game-off and usable power mode hints do in each PSM
// mode.
//
// The mode and the gaming state are read under mStateMutex and the lock is dropped before acting;
// every write takes it again. Two events are handled in order only because the host delivers them
// one at a time on its event thread.

#include "feature/PSMPowerOptFeature.h"

#include "platform/Log.h"

using pwr::kModFeature;

namespace {

constexpr int32_t kAppStart = 0x1001;
constexpr int32_t kAppStartAlt = 0x1003;
constexpr int32_t kAppStop = 0x1002;
constexpr int32_t kAppStopAlt = 0x1004;
constexpr int32_t kAppStopOther = 0x1093;
constexpr int32_t kGameOff = 0x1040;
constexpr int32_t kUsablePowerModeHint = 0x15E0;

constexpr int kModeGaming = 2;
constexpr int kModeBatteryWatch = 3;

constexpr int kGameStateOn = 1;
constexpr int kGameStateOff = 2;

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

int PSMPowerOptFeature::psmMode() {
    pwr::MutexLock lock(mStateMutex);
    return mPsmMode;
}

int PSMPowerOptFeature::gameState() {
    pwr::MutexLock lock(mStateMutex);
    return mGameState;
}

void PSMPowerOptFeature::setPsmMode(int mode) {
    pwr::MutexLock lock(mStateMutex);
    mPsmMode = mode;
}

void PSMPowerOptFeature::setGameState(int state) {
    pwr::MutexLock lock(mStateMutex);
    mGameState = state;
}

void PSMPowerOptFeature::sendEvents(AsyncTriggerPayload payload) {
    if (!mReady) return;
    switch (payload.hintId) {
        case kAppStart:
        case kAppStartAlt:
            handleStart(appKey(std::move(payload.appName)));
            break;
        case kAppStop:
        case kAppStopAlt:
        case kAppStopOther:
            handleStop(payload);
            break;
        case kGameOff:
            handleGameOff();
            break;
        case kUsablePowerModeHint:
            handlePowerModeHint(payload);
            break;
        default:
            break;
    }
}

void PSMPowerOptFeature::handleStart(std::string key) {
    Timer timer;
    const int mode = psmMode();
    if (mode == kModeGaming) {
        if (mGpuMode == 0) return;
        if (isGame(std::move(key))) {
            if (gameState() == kGameStateOn) return;
            PWR_LOG(kModFeature, "sendEvents", 398, "Triggering Gaming Usable Mode.");
            initGpuSamples();
            timer.Timer_disable(mGameTimerStruct);
            if (!timer.Timer_scheduleInterval(mGameTimerStruct, mGameTimerMs)) {
                PWR_LOG(kModFeature, "sendEvents", 404, "Timer couldn't be started\n");
            }
            // Set even when the timer failed, so the next start of a game does not retry.
            setGameState(kGameStateOn);
        } else {
            if (gameState() == kGameStateOff) return;
            PWR_LOG(kModFeature, "sendEvents", 408, "Disable Game feature for non-game case.");
            timer.Timer_disable(mGameTimerStruct);
            releaseProfileLock();
            setGameState(kGameStateOff);
        }
    } else if (mode == kModeBatteryWatch) {
        const bool eligible = isPSMType(std::move(key));
        timer.Timer_disable(mBatteryTimerStruct);
        // The tasks boosted for the app that was in front lose their boost.
        ResetBattery();
        if (eligible && !timer.Timer_scheduleInterval(mBatteryTimerStruct, kBatteryPeriodMs)) {
            PWR_LOG(kModFeature, "sendEvents", 421, "Battery Timer couldn't be started\n");
        }
    }
}

void PSMPowerOptFeature::handleStop(AsyncTriggerPayload& payload) {
    Timer timer;
    const int mode = psmMode();
    if (mode == kModeGaming) {
        if (gameState() == kGameStateOff) return;
        PWR_LOG(kModFeature, "sendEvents", 449, "Stop hint %d for: %s", payload.hintId,
                payload.appName.c_str());
        timer.Timer_disable(mGameTimerStruct);
        releaseProfileLock();
        setGameState(kGameStateOff);
    } else if (mode == kModeBatteryWatch) {
        if (isPSMType(appKey(std::move(payload.appName)))) {
            timer.Timer_disable(mBatteryTimerStruct);
            ResetBattery();
        }
    }
}

void PSMPowerOptFeature::handleGameOff() {
    if (psmMode() != kModeGaming) return;
    if (gameState() == kGameStateOff) return;
    releaseProfileLock();
    Timer().Timer_disable(mGameTimerStruct);
    setGameState(kGameStateOff);
}

void PSMPowerOptFeature::handlePowerModeHint(const AsyncTriggerPayload& payload) {
    if (mPsmState != 0) {
        // A configured PSM_STATE owns the mode; hints may not change it.
        PWR_LOG(kModFeature, "sendEvents", 354, "Control PSM mode swiching by XML.");
        return;
    }
    const int action = static_cast<int>((payload.hintType >> 7) & 0xFF);
    const int type = static_cast<int>(payload.hintType & 0x7F);
    if (action == 0) return;
    if (debugEnabled) {
        PWR_LOG(kModFeature, "sendEvents", 362,
                "Usable power mode hint for app %s, hintID : %d, hintType hex : %x, psmAction: "
                "%d, psmType: %d",
                payload.appName.c_str(), payload.hintId, payload.hintType, action, type);
    }
    switch (type) {
        case 0:
            releaseProfileLock();
            setPsmMode(0);
            leaveLowPowerMode();
            break;
        case 1:
            releaseProfileLock();
            applyProfileLock(mLightModeProfile);
            setPsmMode(1);
            leaveLowPowerMode();
            break;
        case 2:
            releaseProfileLock();
            setPsmMode(2);
            leaveLowPowerMode();
            break;
        case 3:
            releaseProfileLock();
            // Re-applying over an applied deep mode would save deep mode's own values as the
            // ones to put back.
            if (mDeepModeState == kDeepModeApplied) resetDeepMode();
            lowPowerInit();
            break;
        default:
            break;
    }
}

void PSMPowerOptFeature::leaveLowPowerMode() {
    // A deep-mode timer still waiting for its lock must not engage after the device has left.
    // (A callback already running on the timer's thread is not waited for.)
    Timer().Timer_disable(mDeepTimerStruct.load());
    // Only an applied deep mode is reset: a second reset would find the saved values consumed
    // and clear the properties.
    if (mDeepModeState == kDeepModeApplied) resetDeepMode();
    ResetBattery();
}
