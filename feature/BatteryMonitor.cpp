// Battery monitor: once a second the battery timer samples the discharge current; every
// MAX_SAMPLE_NUM ticks the average is compared with the thresholds of the foreground app's type,
// and a high drain scales down the task-load boost of the foreground tasks, a low drain undoes it.
//
// The samples, the counter, the flags, the active thresholds and the task lists are shared with
// the event thread (ResetBattery) and guarded by mBatteryMutex.

#include <fcntl.h>

#include <cstdint>
#include <cstdlib>

#include <android-base/file.h>
#include <android-base/unique_fd.h>

#include "feature/PSMPowerOptFeature.h"

#include "platform/DevicePath.h"
#include "platform/Log.h"

using pwr::kModFeature;

namespace {

constexpr char kCurrentNow[] = "/sys/class/power_supply/battery/current_now";

constexpr int kTypeGame = 2;
constexpr int kTypeBrowser = 3;
constexpr int kTypeVideo = 5;

// 2^63: the first double that does not fit an int64_t.
constexpr double kInt64Limit = 9223372036854775808.0;

// The first line of a node; empty when it cannot be opened or read.
std::string readFirstLine(const std::string& devicePath) {
    android::base::unique_fd fd(
            TEMP_FAILURE_RETRY(open(pwr::devicePath(devicePath).c_str(), O_RDONLY | O_CLOEXEC)));
    std::string content;
    if (fd == -1 || !android::base::ReadFdToString(fd, &content)) return "";
    return content.substr(0, content.find('\n'));
}

}  // namespace

void PSMPowerOptFeature::getBatteryStatus() {
    pwr::MutexLock lock(mBatteryMutex);
    getBatteryStatusLocked();
}

void PSMPowerOptFeature::getBatteryStatusLocked() {
    const std::string line = readFirstLine(kCurrentNow);
    if (line.empty()) {
        PWR_LOG(kModFeature, "getBatteryStatus", 1108, "Read denied.");
    } else {
        // Microamperes, negative while discharging. Text that is not a number reads as 0.
        const double milliamps = strtof(line.c_str(), nullptr) / 1000.0;
        // Charging counts as no drain; an absurd reading is clamped rather than overflowing.
        const double drain = milliamps < 0 ? -milliamps : 0;
        const int64_t sample = drain >= kInt64Limit ? INT64_MAX : static_cast<int64_t>(drain);
        mBatterySamples.push_front(sample);
        if (static_cast<int64_t>(mBatterySamples.size()) > mMaxSampleNum) {
            mBatterySamples.pop_back();
        }
    }
    // A tick without a sample still counts: the next average divides by the full count.
    ++mBatterySampleCounter;
}

void PSMPowerOptFeature::batterytimerCallBack(void* feature) {
    if (feature == nullptr) return;
    static_cast<PSMPowerOptFeature*>(feature)->onBatteryTick();
}

void PSMPowerOptFeature::onBatteryTick() {
    pwr::MutexLock lock(mBatteryMutex);
    getBatteryStatusLocked();
    if (mBatterySampleCounter != mMaxSampleNum) return;

    double sum = 0;
    for (int64_t sample : mBatterySamples) sum += static_cast<double>(sample);
    const float average = static_cast<float>(sum / mBatterySampleCounter);
    if (debugEnabled) {
        PWR_LOG(kModFeature, "batterytimerCallBack", 1131, "Avg Current: %.2f",
                static_cast<double>(average));
    }

    // Another type keeps the pair of the previous evaluation.
    const int appType = mPsmAppType;
    if (appType == kTypeGame) {
        mActiveScalingUp = mGameScalingUp;
        mActiveScalingDown = mGameScalingDown;
    } else if (appType == kTypeBrowser) {
        mActiveScalingUp = mBrowserScalingUp;
        mActiveScalingDown = mBrowserScalingDown;
    } else if (appType == kTypeVideo) {
        mActiveScalingUp = mVideoScalingUp;
        mActiveScalingDown = mVideoScalingDown;
    }
    if (taskBoostOpcodes.empty() || mActiveScalingUp == 0 || mActiveScalingDown == 0) {
        if (debugEnabled) {
            PWR_LOG(kModFeature, "batterytimerCallBack", 1147, "Missing configs for: %d", appType);
        }
        mBatterySampleCounter = 0;
        return;
    }

    // Strict comparisons: an average equal to a threshold changes nothing.
    if (average > mActiveScalingUp) {
        if (mTopTaskFlag == 0) mTopTaskFlag = getTopTaskLocked() ? 1 : 0;
        if (mBoosted == 0) {
            const int count = static_cast<int>(topTaskList.size());
            for (const std::string& pid : topTaskList) {
                updateTaskloadboostLocked(pid, count, taskScalingValues[pid]);
            }
            mBoosted = 1;
        }
    } else if (average < mActiveScalingDown) {
        if (mBoosted != 0) {
            const int count = static_cast<int>(topTaskList.size());
            for (const std::string& pid : topTaskList) updateTaskloadboostLocked(pid, count, 0);
            mBoosted = 0;
        }
    }
    mBatterySampleCounter = 0;
}

void PSMPowerOptFeature::ResetBattery() {
    pwr::MutexLock lock(mBatteryMutex);
    if (mBoosted != 0) {
        if (debugEnabled) PWR_LOG(kModFeature, "ResetBattery", 1190, "Reset battery status.");
        const int count = static_cast<int>(topTaskList.size());
        for (const std::string& pid : topTaskList) updateTaskloadboostLocked(pid, count, 0);
        mBoosted = 0;
    }
    // The samples are kept.
    mBatterySampleCounter = 0;
    mTopTaskFlag = 0;
}
