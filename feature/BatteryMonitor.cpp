#include "feature/BatteryMonitor.h"

#include <fcntl.h>

#include <climits>
#include <cstdlib>
#include <exception>
#include <sstream>

#include <android-base/file.h>
#include <android-base/unique_fd.h>

#include "feature/FeatureCodes.h"
#include "feature/FeatureSnapshot.h"
#include "feature/LogSites.h"
#include "platform/DevicePath.h"

namespace {

constexpr char kCurrentNow[] = "/sys/class/power_supply/battery/current_now";
constexpr char kTopAppProcs[] = "/dev/cpuset/top-app/cgroup.procs";
constexpr size_t kMaxTopTasks = 4;

// 2^63: the first double that does not fit an int64_t.
constexpr double kInt64Limit = 9223372036854775808.0;

// The whole content of a device node; false when it cannot be opened or read.
bool readNode(const std::string& devicePath, std::string* content) {
    android::base::unique_fd fd(
            TEMP_FAILURE_RETRY(open(pwr::devicePath(devicePath).c_str(), O_RDONLY | O_CLOEXEC)));
    if (fd == -1) return false;
    return android::base::ReadFdToString(fd, content);
}

// The first line of a node; empty when it cannot be opened or read.
std::string readFirstLine(const std::string& devicePath) {
    std::string content;
    if (!readNode(devicePath, &content)) return "";
    return content.substr(0, content.find('\n'));
}

// The program name of a process: its command line up to the first NUL. Empty for kernel threads
// and for processes whose command line cannot be read.
std::string programName(int pid) {
    std::string cmdline;
    if (!readNode("/proc/" + std::to_string(pid) + "/cmdline", &cmdline)) return "";
    return cmdline.substr(0, cmdline.find('\0'));
}

// The task-load-boost value of a process: pid in bits 31..8; bit 7 set for a negative request,
// whose magnitude (modulo 128) fills bits 6..0. Zero and positive requests both carry 0 in the
// low byte: only scaling down is expressed.
int encodeTaskBoost(int pid, int value) {
    const uint32_t magnitude = value < 0 ? 0u - static_cast<uint32_t>(value) : 0u;
    const uint32_t low = (value < 0 ? 0x80u : 0u) + (magnitude & 0x7Fu);
    return static_cast<int>((static_cast<uint32_t>(pid) << 8) | low);
}

}  // namespace

bool BatteryMonitor::createTimer(void (*callback)(void*), void* argument) {
    mBatteryTimerStruct = pwr::TimerHandle(callback, argument);
    return static_cast<bool>(mBatteryTimerStruct);
}

void BatteryMonitor::getBatteryStatus() {
    pwr::MutexLock lock(mBatteryMutex);
    getBatteryStatusLocked();
}

void BatteryMonitor::getBatteryStatusLocked() {
    const std::string line = readFirstLine(kCurrentNow);
    if (line.empty()) {
        PWR_LOG_AT(pwr::site::kReadDenied);
    } else {
        // Microamperes, negative while discharging. Text that is not a number reads as 0.
        const double milliamps = strtof(line.c_str(), nullptr) / 1000.0;
        // Charging counts as no drain; an absurd reading is clamped rather than overflowing.
        const double drain = milliamps < 0 ? -milliamps : 0;
        const int64_t sample = drain >= kInt64Limit ? INT64_MAX : static_cast<int64_t>(drain);
        mBatterySamples.push_front(sample);
        if (static_cast<int64_t>(mBatterySamples.size()) > mSettings.mMaxSampleNum) {
            mBatterySamples.pop_back();
        }
    }
    // A tick without a sample still counts: the next average divides by the full count.
    ++mBatterySampleCounter;
}

void BatteryMonitor::tick() {
    pwr::MutexLock lock(mBatteryMutex);
    getBatteryStatusLocked();
    if (mBatterySampleCounter != mSettings.mMaxSampleNum) return;

    double sum = 0;
    for (int64_t sample : mBatterySamples) sum += static_cast<double>(sample);
    const float average = static_cast<float>(sum / mBatterySampleCounter);
    mLastAverage = average;
    if (mDebugEnabled) PWR_LOG_AT(pwr::site::kAverageCurrent, static_cast<double>(average));

    // Another type keeps the pair of the previous evaluation.
    const int appType = mPsmAppType;
    if (appType == pwr::codes::kAppTypeGame) {
        mActiveScalingUp = mSettings.mGameScalingUp;
        mActiveScalingDown = mSettings.mGameScalingDown;
    } else if (appType == pwr::codes::kAppTypeBrowser) {
        mActiveScalingUp = mSettings.mBrowserScalingUp;
        mActiveScalingDown = mSettings.mBrowserScalingDown;
    } else if (appType == pwr::codes::kAppTypeVideo) {
        mActiveScalingUp = mSettings.mVideoScalingUp;
        mActiveScalingDown = mSettings.mVideoScalingDown;
    }
    if (mSettings.taskBoostOpcodes.empty() || mActiveScalingUp == 0 || mActiveScalingDown == 0) {
        if (mDebugEnabled) PWR_LOG_AT(pwr::site::kMissingBatteryConfigs, appType);
        mBatterySampleCounter = 0;
        return;
    }

    // Strict comparisons: an average equal to a threshold changes nothing.
    if (average > mActiveScalingUp) {
        if (mTopTaskFlag == 0) mTopTaskFlag = getTopTaskLocked() ? 1 : 0;
        if (mBoosted == 0) {
            boostAllLocked(true);
            mBoosted = 1;
        }
    } else if (average < mActiveScalingDown) {
        if (mBoosted != 0) {
            boostAllLocked(false);
            mBoosted = 0;
        }
    }
    mBatterySampleCounter = 0;
}

void BatteryMonitor::ResetBattery() {
    pwr::MutexLock lock(mBatteryMutex);
    if (mBoosted != 0) {
        if (mDebugEnabled) PWR_LOG_AT(pwr::site::kResetBattery);
        boostAllLocked(false);
        mBoosted = 0;
    }
    mBatterySampleCounter = 0;
    mTopTaskFlag = 0;
}

void BatteryMonitor::boostAllLocked(bool scaled) {
    const int count = static_cast<int>(topTaskList.size());
    for (const std::string& pid : topTaskList) {
        updateTaskloadboostLocked(pid, count, scaled ? taskScalingValues[pid] : 0);
    }
}

bool BatteryMonitor::getTopTask() {
    pwr::MutexLock lock(mBatteryMutex);
    return getTopTaskLocked();
}

bool BatteryMonitor::getTopTaskLocked() {
    topTaskList.clear();
    try {
        std::string procs;
        if (!readNode(kTopAppProcs, &procs)) return false;
        std::vector<int> pids;
        std::istringstream in(procs);
        int pid = 0;
        while (in >> pid) pids.push_back(pid);

        for (int id : pids) {
            const std::string name = programName(id);
            if (!name.empty() && name.find("system_server") == std::string::npos) {
                if (mDebugEnabled) PWR_LOG_AT(pwr::site::kTopTask, id);
                const std::string key = std::to_string(id);
                taskScalingValues[key] = mSettings.taskLoadBoostScale;
                topTaskList.push_back(key);
            }
            // Processes after the fourth are not even opened.
            if (topTaskList.size() >= kMaxTopTasks) break;
        }
        if (!topTaskList.empty()) {
            if (mDebugEnabled) {
                PWR_LOG_AT(pwr::site::kTopTaskCount, static_cast<int>(topTaskList.size()));
            }
            return true;
        }
    } catch (const std::exception& e) {
        PWR_LOG_AT(pwr::site::kTopTaskException, e.what(), "getTopTask");
    } catch (...) {
        PWR_LOG_AT(pwr::site::kTopTaskUnknownException, "getTopTask");
    }
    if (mDebugEnabled) PWR_LOG_AT(pwr::site::kNoTopTask);
    return false;
}

void BatteryMonitor::updateTaskloadboost(const std::string& pid, int maxNumTask, int value) {
    pwr::MutexLock lock(mBatteryMutex);
    updateTaskloadboostLocked(pid, maxNumTask, value);
}

void BatteryMonitor::updateTaskloadboostLocked(const std::string& pid, int maxNumTask, int value) {
    if (maxNumTask == 0) {
        if (mDebugEnabled) PWR_LOG_AT(pwr::site::kBoostWithoutTasks, 0);
        return;
    }
    const int magnitude = value < 0 ? static_cast<int>(0u - static_cast<uint32_t>(value)) : 0;

    // A process seen for the first time has handle 0, which is released like any other.
    int& handle = taskBoostHandles[pid];
    mProfileLock.releaseProfile(handle);

    const int encoded = encodeTaskBoost(std::stoi(pid, nullptr, 10), value);
    // The first int of the configured resource is the task-load-boost opcode; without one (an
    // empty first list), nothing is acquired and the released handle stays recorded.
    const Profile& opcodes = mSettings.taskBoostOpcodes;
    if (!opcodes.empty() && !opcodes[0].empty()) {
        int request[2] = {opcodes[0][0], encoded};
        handle = mProfileLock.applyProfile(request, 2, INT_MAX);
    }
    if (mDebugEnabled) PWR_LOG_AT(pwr::site::kBoostUpdated, handle, magnitude, encoded);
}

std::vector<std::string> BatteryMonitor::tasks() {
    pwr::MutexLock lock(mBatteryMutex);
    return topTaskList;
}

std::map<std::string, int> BatteryMonitor::scalingValues() {
    pwr::MutexLock lock(mBatteryMutex);
    return taskScalingValues;
}

std::map<std::string, int> BatteryMonitor::boostHandles() {
    pwr::MutexLock lock(mBatteryMutex);
    return taskBoostHandles;
}

std::vector<int64_t> BatteryMonitor::samples() {
    pwr::MutexLock lock(mBatteryMutex);
    return {mBatterySamples.begin(), mBatterySamples.end()};
}

void BatteryMonitor::fillSnapshot(PSMFeatureSnapshot* out) {
    {
        pwr::MutexLock lock(mBatteryMutex);
        out->batteryBoosted = mBoosted;
        out->topTaskFlag = mTopTaskFlag;
        out->batterySampleCounter = mBatterySampleCounter;
        out->lastAverageCurrentMa = mLastAverage;
        out->activeScalingUp = mActiveScalingUp;
        out->activeScalingDown = mActiveScalingDown;
    }
    out->batteryTimerExists = mBatteryTimerStruct ? 1 : 0;
    out->batteryTimerArmed = Timer().Timer_isActive(mBatteryTimerStruct.get()) ? 1 : 0;
}
