#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "host/sim/ClosedLoop.h"
#include "host/sim/DeviceModel.h"
#include "host/sim/Scenario.h"

namespace pwr::sim {

// The device a scenario describes, as the plug-in sees it: the kernel nodes under the fake
// device root (opened through pwr::devicePath), brought up to a given simulated time before
// every timer tick and event.
//
// GPU: "gpu_available_frequencies" (Hz, highest first, as drivers list them), "gpuclk" (Hz),
// "gpubusy" (busy and total time in microseconds over the last window) and "gpu_clock_stats"
// (cumulative microseconds at each frequency, highest first), whose counters advance with
// simulated time so that the time-weighted averages the feature computes from them are
// consistent with the trace. Battery: "current_now" in microamperes, negative while discharging.
// Foreground: the top-app cpuset's "cgroup.procs" and each process's "/proc/<pid>/cmdline".
//
// With a device model the device is closed-loop: the GPU nodes and the battery current come from
// a ClosedLoop that runs the model's governor and power model under the limits the feature's
// held locks impose (read from the fake performance library at each update), and the scenario's
// GPU trace is the demand; otherwise the nodes replay the traces as given.
class FakeDevice {
  public:
    // Current values, for the simulator's counters.
    struct State {
        double freqMhz = 0;    // the frequency gpuclk shows
        int busy = 0;          // percent, as written to gpubusy
        double drainMa = 0;    // as written to current_now, negated
        double demandMhz = 0;  // closed loop: the GPU work asked for per second
        const std::vector<ForegroundProcess>* foreground = nullptr;
    };

    // `model`, when given, must outlive the device.
    explicit FakeDevice(const Scenario& scenario, const DeviceModel* model = nullptr);

    // Creates the tree under the current device root at time 0: the nodes of the traces, the
    // property store's and the database's folders. False with `error` set when a node cannot
    // be written.
    bool create(std::string* error);

    // Advances the clock statistics to `nowMs` (which must not go back) and writes every node
    // whose content differs at that time. False with `error` set when a node cannot be written.
    bool update(int64_t nowMs, std::string* error);

    const State& state() const { return mState; }
    // Null in an open-loop replay.
    const ClosedLoop* closedLoop() const { return mClosedLoop.get(); }

  private:
    // Index of the point of `points` in force at `ms` (-1 before the first), moving `cursor`
    // forward: times only grow.
    template <typename Point>
    static int pointAt(const std::vector<Point>& points, size_t* cursor, int64_t ms) {
        while (*cursor < points.size() && points[*cursor].timeMs <= ms) ++*cursor;
        return static_cast<int>(*cursor) - 1;
    }

    bool write(const std::string& devicePath, const std::string& content, std::string* error);
    // Time shares of each table frequency while `point` is in force.
    std::map<uint64_t, double> shares(const GpuPoint& point) const;
    bool writeGpu(int64_t nowMs, int64_t windowUs, std::string* error);
    bool writeClockStats(std::string* error);
    // "gpuclk", and "gpubusy" unless the window is empty and it was written before.
    bool writeClockAndBusy(uint64_t clockMhz, int64_t busyUs, int64_t windowUs, std::string* error);
    bool writeClosedLoop(std::string* error);
    bool writeBattery(int64_t nowMs, std::string* error);
    bool writeForeground(int64_t nowMs, std::string* error);

    const Scenario& mScenario;
    const std::vector<uint64_t> mGpuTable;  // MHz ascending: the model's, else the scenario's
    std::unique_ptr<ClosedLoop> mClosedLoop;
    State mState;
    int64_t mLastMs = 0;
    std::map<uint64_t, double> mTimeInStateUs;  // MHz -> cumulative time
    // A node written at least once: kept open and mapped, with what it holds. A write is a copy
    // into the mapped page (a system call only when the length changes): a long scenario
    // rewrites its nodes millions of times.
    struct Node {
        Node() = default;
        ~Node();
        Node(const Node&) = delete;
        Node& operator=(const Node&) = delete;
        android::base::unique_fd fd;
        std::string content;
        char* page = nullptr;  // the file's first kNodePage bytes, mapped shared
    };
    static constexpr size_t kNodePage = 4096;
    std::map<std::string, Node> mNodes;  // by device path
    // Cursors into the traces: points are visited in time order.
    size_t mGpuCursor = 0;
    size_t mBatteryCursor = 0;
    size_t mForegroundCursor = 0;
};

}  // namespace pwr::sim
