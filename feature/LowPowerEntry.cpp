// Low-power mode entry (usable power mode hint of type 3): reconciles the deep-mode switch
// recorded under "PSM" at the last entry with the configured one, and arms the deep-mode timer
// when deep mode is on.
//
// The release branch (deep mode configured off, '1' recorded) is kept, but a feature whose deep
// mode is off never opens the state store and has no property list, so there it reads nothing,
// releases nothing and records nothing: properties changed by an earlier configuration with deep
// mode on are not put back by a later run with it off.

#include "feature/PSMPowerOptFeature.h"

#include "platform/Log.h"

using pwr::kModFeature;

void PSMPowerOptFeature::lowPowerInit() {
    const char previous = pmDbRead("PSM");
    // Only the low byte of the setting counts.
    const auto deepMode = static_cast<unsigned char>(mDeepMode & 0xFF);
    if (deepMode == 0) {
        if (previous == '1') releaseProp(mPropList);
    } else {
        Timer timer;
        // One deep-mode timer at a time: an earlier one (still retrying, or done) is deleted
        // before its replacement exists, so that it can never fire again and the destructor
        // deletes the only one left.
        Timer_s* const earlier = mDeepTimerStruct.exchange(nullptr);
        mDeepTimerStructCopy = nullptr;
        timer.Timer_destroy(earlier);

        Timer_s* const deepTimer = timer.Timer_create(&PSMPowerOptFeature::deeptimerCallBack, this);
        mDeepTimerStruct = deepTimer;
        mDeepTimerStructCopy = deepTimer;

        bool started = false;
        {
            pwr::MutexLock lock(timerMutex);
            if (deepTimer != nullptr && !deepTimer->active) {
                // First expiry after 1.5 s, then every 1.5 s until the deep profile is held.
                itimerspec spec{};
                spec.it_value.tv_sec = 1;
                spec.it_value.tv_nsec = 500000000;
                spec.it_interval = spec.it_value;
                if (timer_settime(deepTimer->timerId, 0, &spec, nullptr) == 0) {
                    deepTimer->active = true;
                    started = true;
                }
            }
        }
        if (debugEnabled) {
            PWR_LOG(kModFeature, "lowPowerInit", 1087, "Timer started \n");
            if (!started) PWR_LOG(kModFeature, "lowPowerInit", 1089, "Timer couldn't be started\n");
        }
    }
    pmDbWrite("PSM", static_cast<char>('0' + deepMode));
}
