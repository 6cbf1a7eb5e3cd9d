// Foreground processes and their task-load boost.
//
// getTopTask lists the processes of the foreground cpuset; updateTaskloadboost gives one of them
// its own perf lock carrying the task-load-boost resource for its pid. Both run on the battery
// timer's thread and, through ResetBattery, on the event thread: the lists and maps they touch are
// guarded by mBatteryMutex.

#include <fcntl.h>

#include <climits>
#include <cstdint>
#include <exception>
#include <sstream>

#include <android-base/file.h>
#include <android-base/unique_fd.h>

#include "feature/PSMPowerOptFeature.h"

#include "platform/DevicePath.h"
#include "platform/Log.h"

using pwr::kModFeature;

namespace {

constexpr char kTopAppProcs[] = "/dev/cpuset/top-app/cgroup.procs";
constexpr size_t kMaxTopTasks = 4;

// The whole content of a device node; false when it cannot be opened or read.
bool readNode(const std::string& devicePath, std::string* content) {
    android::base::unique_fd fd(
            TEMP_FAILURE_RETRY(open(pwr::devicePath(devicePath).c_str(), O_RDONLY | O_CLOEXEC)));
    if (fd == -1) return false;
    return android::base::ReadFdToString(fd, content);
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

bool PSMPowerOptFeature::getTopTask() {
    pwr::MutexLock lock(mBatteryMutex);
    return getTopTaskLocked();
}

bool PSMPowerOptFeature::getTopTaskLocked() {
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
                if (debugEnabled) PWR_LOG(kModFeature, "getTopTask", 761, "Get task %d\n", id);
                const std::string key = std::to_string(id);
                taskScalingValues[key] = taskLoadBoostScale;
                topTaskList.push_back(key);
            }
            // Processes after the fourth are not even opened.
            if (topTaskList.size() >= kMaxTopTasks) break;
        }
        if (!topTaskList.empty()) {
            if (debugEnabled) {
                PWR_LOG(kModFeature, "getTopTask", 774, "Toplist Size %d\n",
                        static_cast<int>(topTaskList.size()));
            }
            return true;
        }
    } catch (const std::exception& e) {
        PWR_LOG(kModFeature, "getTopTask", 779, "Caught Exception: %s in %s", e.what(),
                "getTopTask");
    } catch (...) {
        PWR_LOG(kModFeature, "getTopTask", 781, "Caught Exception in %s", "getTopTask");
    }
    if (debugEnabled) PWR_LOG(kModFeature, "getTopTask", 784, "No more task fits");
    return false;
}

void PSMPowerOptFeature::updateTaskloadboost(std::string pid, int maxNumTask, int value) {
    pwr::MutexLock lock(mBatteryMutex);
    updateTaskloadboostLocked(pid, maxNumTask, value);
}

void PSMPowerOptFeature::updateTaskloadboostLocked(const std::string& pid, int maxNumTask,
                                                   int value) {
    if (maxNumTask == 0) {
        if (debugEnabled) {
            PWR_LOG(kModFeature, "updateTaskloadboost", 708,
                    "Failed to update task_load_boost, maxNumTask = %d", 0);
        }
        return;
    }
    const int magnitude = value < 0 ? static_cast<int>(0u - static_cast<uint32_t>(value)) : 0;

    // A process seen for the first time has handle 0, which is released like any other.
    int& handle = taskBoostHandles[pid];
    releaseProfile(handle);

    const int encoded = encodeTaskBoost(std::stoi(pid, nullptr, 10), value);
    // The first int of the configured resource is the task-load-boost opcode; without one,
    // nothing is acquired and the released handle stays recorded.
    if (!taskBoostOpcodes.empty() && !taskBoostOpcodes[0].empty()) {
        int request[2] = {taskBoostOpcodes[0][0], encoded};
        handle = applyProfile(request, 2, INT_MAX);
    }
    if (debugEnabled) {
        PWR_LOG(kModFeature, "updateTaskloadboost", 722, "Updated handle: %d, value: %d, val: %d",
                handle, magnitude, encoded);
    }
}
