#include "host/sim/FakeDevice.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>

#include <android-base/file.h>
#include <android-base/unique_fd.h>

#include "host/fakeperf/FakePerf.h"
#include "platform/DevicePath.h"

namespace pwr::sim {
namespace {

constexpr char kGpuDir[] = "/sys/class/grax/grax-3d0/";
constexpr char kCurrentNow[] = "/sys/class/power_supply/battery/current_now";
constexpr char kTopAppProcs[] = "/dev/cpuset/top-app/cgroup.procs";
// Folders the feature expects to exist: the state store's and the property store's.
constexpr const char* kFolders[] = {"/data/vendor/pwr", "/data/property"};

std::string hz(uint64_t mhz) {
    return std::to_string(mhz * 1000000ull);
}

}  // namespace

FakeDevice::FakeDevice(const Scenario& scenario, const DeviceModel* model)
    : mScenario(scenario),
      mGpuTable(model != nullptr ? model->gpuFrequenciesMhz() : scenario.gpuFrequenciesMhz) {
    if (model != nullptr) mClosedLoop = std::make_unique<ClosedLoop>(*model, scenario.gpu);
}

FakeDevice::Node::~Node() {
    if (page != nullptr) munmap(page, kNodePage);
}

bool FakeDevice::write(const std::string& devicePath, const std::string& content,
                       std::string* error) {
    Node& node = mNodes[devicePath];
    if (node.fd != -1 && node.content == content) return true;
    const std::string path = pwr::devicePath(devicePath);
    if (node.fd == -1) {
        if (node.page != nullptr) munmap(node.page, kNodePage);
        node.fd.reset(TEMP_FAILURE_RETRY(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)));
        void* page = node.fd == -1 ? MAP_FAILED
                                   : mmap(nullptr, kNodePage, PROT_READ | PROT_WRITE, MAP_SHARED,
                                          node.fd, 0);
        node.page = page == MAP_FAILED ? nullptr : static_cast<char*>(page);
        // A file kept from an earlier run may hold more than will be written.
        node.content.clear();
        if (node.fd != -1 && TEMP_FAILURE_RETRY(ftruncate(node.fd, 0)) != 0) node.fd.reset();
    }
    // The length first: a mapped byte past the end of the file cannot be written.
    bool ok = node.fd != -1 &&
              (content.size() == node.content.size() ||
               TEMP_FAILURE_RETRY(ftruncate(node.fd, static_cast<off_t>(content.size()))) == 0);
    if (ok && node.page != nullptr && content.size() <= kNodePage) {
        memcpy(node.page, content.data(), content.size());
    } else if (ok) {
        ok = TEMP_FAILURE_RETRY(pwrite(node.fd, content.data(), content.size(), 0)) ==
             static_cast<ssize_t>(content.size());
    }
    if (!ok) {
        *error = "cannot write the device node " + path + ": " + strerror(errno);
        node.fd.reset();
        return false;
    }
    node.content = content;
    return true;
}

bool FakeDevice::create(std::string* error) {
    std::error_code ec;
    std::vector<std::string> folders(std::begin(kFolders), std::end(kFolders));
    if (!mGpuTable.empty()) folders.push_back(kGpuDir);
    if (!mScenario.battery.empty() || mClosedLoop) {
        folders.push_back("/sys/class/power_supply/battery");
    }
    if (!mScenario.foreground.empty()) folders.push_back("/dev/cpuset/top-app");
    for (const std::string& folder : folders) {
        const std::string path = pwr::devicePath(folder);
        std::filesystem::create_directories(path, ec);
        if (!std::filesystem::is_directory(path)) {
            *error = "cannot create the device folder " + path;
            return false;
        }
    }
    if (!mGpuTable.empty()) {
        std::string table;
        for (auto it = mGpuTable.rbegin(); it != mGpuTable.rend(); ++it) {
            table += (table.empty() ? "" : " ") + hz(*it);
        }
        if (!write(std::string(kGpuDir) + "gpu_available_frequencies", table + "\n", error)) {
            return false;
        }
        for (uint64_t mhz : mGpuTable) mTimeInStateUs[mhz] = 0;
    }
    mLastMs = 0;
    return update(0, error);
}

std::map<uint64_t, double> FakeDevice::shares(const GpuPoint& point) const {
    if (!point.residency.empty()) return point.residency;
    const std::vector<uint64_t>& table = mScenario.gpuFrequenciesMhz;
    // The two table frequencies around the average, weighted so that their mean is it.
    size_t upper = 0;
    while (upper + 1 < table.size() && static_cast<double>(table[upper]) < point.freqMhz) ++upper;
    const double hi = static_cast<double>(table[upper]);
    if (upper == 0 || hi <= point.freqMhz) return {{table[upper], 1.0}};
    const double lo = static_cast<double>(table[upper - 1]);
    const double atHi = (point.freqMhz - lo) / (hi - lo);
    std::map<uint64_t, double> out{{table[upper], atHi}};
    if (atHi < 1.0) out[table[upper - 1]] = 1.0 - atHi;
    return out;
}

bool FakeDevice::update(int64_t nowMs, std::string* error) {
    if (nowMs < mLastMs) nowMs = mLastMs;
    const int64_t windowUs = (nowMs - mLastMs) * 1000;
    if (mClosedLoop) {
        // Under the locks held since the last update: a lock taken at a tick limits the device
        // from that tick on.
        mClosedLoop->advance(nowMs, fakeperf::limits(), &mTimeInStateUs);
        if (!writeClosedLoop(error)) return false;
    } else {
        if (!mScenario.gpu.empty() && !writeGpu(nowMs, windowUs, error)) return false;
        if (!mScenario.battery.empty() && !writeBattery(nowMs, error)) return false;
    }
    if (!mScenario.foreground.empty() && !writeForeground(nowMs, error)) return false;
    mLastMs = nowMs;
    return true;
}

bool FakeDevice::writeGpu(int64_t nowMs, int64_t windowUs, std::string* error) {
    // The time since the last update ran under the point in force at its start.
    size_t previousCursor = mGpuCursor;
    const int before = pointAt(mScenario.gpu, &previousCursor, mLastMs);
    if (before >= 0 && windowUs > 0) {
        for (const auto& [mhz, share] : shares(mScenario.gpu[before])) {
            mTimeInStateUs[mhz] += share * static_cast<double>(windowUs);
        }
    }
    const int now = pointAt(mScenario.gpu, &mGpuCursor, nowMs);
    const GpuPoint* point = now >= 0 ? &mScenario.gpu[now] : nullptr;

    if (!writeClockStats(error)) return false;

    // Before the first point the GPU idles at its lowest frequency.
    uint64_t clockMhz = mScenario.gpuFrequenciesMhz.front();
    int busy = 0;
    if (point != nullptr) {
        double best = -1;
        for (const auto& [mhz, share] : shares(*point)) {
            if (share >= best) {
                best = share;
                clockMhz = mhz;
            }
        }
        busy = static_cast<int>(std::lround(point->busyAt(nowMs)));
    }
    mState.freqMhz = static_cast<double>(clockMhz);
    mState.busy = busy;
    const int64_t total = windowUs > 0 ? windowUs : 1000000;
    return writeClockAndBusy(clockMhz, total / 100 * busy, windowUs, error);
}

bool FakeDevice::writeClockStats(std::string* error) {
    std::string stats;
    for (auto it = mTimeInStateUs.rbegin(); it != mTimeInStateUs.rend(); ++it) {
        stats += (stats.empty() ? "" : " ") + std::to_string(std::llround(it->second));
    }
    return write(std::string(kGpuDir) + "gpu_clock_stats", stats + "\n", error);
}

bool FakeDevice::writeClockAndBusy(uint64_t clockMhz, int64_t busyUs, int64_t windowUs,
                                   std::string* error) {
    if (!write(std::string(kGpuDir) + "gpuclk", hz(clockMhz) + "\n", error)) return false;
    // Busy and total time of the last window; a window of no time keeps the previous one.
    if (windowUs > 0 || mNodes.count(std::string(kGpuDir) + "gpubusy") == 0) {
        const int64_t total = windowUs > 0 ? windowUs : 1000000;
        if (!write(std::string(kGpuDir) + "gpubusy",
                   std::to_string(busyUs) + " " + std::to_string(total) + "\n", error)) {
            return false;
        }
    }
    return true;
}

bool FakeDevice::writeClosedLoop(std::string* error) {
    const ClosedLoop& loop = *mClosedLoop;
    const int64_t windowUs = std::llround(loop.windowUs());
    mState.freqMhz = static_cast<double>(loop.clockMhz());
    mState.demandMhz = loop.demandMhz();
    // As gpubusy shows it: the share of the window since the last update; before any time
    // has passed, the share of the device as it stands.
    const double busy =
            windowUs > 0 ? loop.windowBusyUs() / loop.windowUs()
                         : std::min(1.0, loop.demandMhz() / static_cast<double>(loop.clockMhz()));
    mState.busy = static_cast<int>(std::lround(100.0 * busy));
    mState.drainMa = loop.currentMa();
    const int64_t busyUs =
            windowUs > 0 ? std::llround(loop.windowBusyUs()) : std::llround(busy * 1000000.0);
    if (!writeClockStats(error) || !writeClockAndBusy(loop.clockMhz(), busyUs, windowUs, error)) {
        return false;
    }
    const long long microamps = std::llround(-loop.currentMa() * 1000.0);
    return write(kCurrentNow, std::to_string(microamps) + "\n", error);
}

bool FakeDevice::writeBattery(int64_t nowMs, std::string* error) {
    const int now = pointAt(mScenario.battery, &mBatteryCursor, nowMs);
    double drain = 0;
    if (now >= 0) {
        drain = mScenario.battery[now].drainAt(nowMs);
    }
    mState.drainMa = drain;
    const long long microamps = std::llround(-drain * 1000.0);
    return write(kCurrentNow, std::to_string(microamps) + "\n", error);
}

bool FakeDevice::writeForeground(int64_t nowMs, std::string* error) {
    const int now = pointAt(mScenario.foreground, &mForegroundCursor, nowMs);
    static const std::vector<ForegroundProcess> kNone;
    const std::vector<ForegroundProcess>& procs =
            now >= 0 ? mScenario.foreground[now].processes : kNone;
    if (mState.foreground == &procs) return true;
    std::string list;
    for (const ForegroundProcess& process : procs) {
        const std::string dir = "/proc/" + std::to_string(process.pid);
        std::error_code ec;
        std::filesystem::create_directories(pwr::devicePath(dir), ec);
        // The command line is NUL-separated; a kernel thread's is empty.
        std::string cmdline = process.cmdline;
        if (!cmdline.empty()) cmdline.push_back('\0');
        if (!write(dir + "/cmdline", cmdline, error)) return false;
        list += std::to_string(process.pid) + "\n";
    }
    if (!write(kTopAppProcs, list, error)) return false;
    mState.foreground = &procs;
    return true;
}

}  // namespace pwr::sim
