// One tick of the game timer in the evaluating phase, beside the floor any tick pays: opening,
// reading to the end and closing the same GPU nodes with plain system calls. The GPU nodes live
// on a tmpfs fake device tree (/dev/shm) and logging goes to a logger that drops every line, so
// what remains is the monitor's own work. The nodes hold still: the clock statistics do not
// move, so each tick reads "gpu_clock_stats", "gpuclk" and "gpubusy", and the averaged frequency
// keeps the level in force, so no profile is switched.
//
// Also counts the heap allocations of the whole process (operator new) per tick.
//
//   pwr_bench_gametick [--benchmark_repetitions=N] [other Google Benchmark flags]

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <android/log.h>
#include <benchmark/benchmark.h>

#include "bench/BenchSupport.h"
#include "feature/PSMPowerOptFeature.h"
#include "host/fakeperf/FakePerf.h"
#include "platform/hostshim/DeviceRoot.h"
#include "tests/support/FeaturePeer.h"

namespace {

std::atomic<uint64_t> gAllocations{0};

}  // namespace

// Counting replacements of the global allocation functions; the array forms and the sized
// delete forward to these. Not inlined, so the compiler does not pair an inlined free() with an
// inlined operator new and warn about a mismatch.
[[gnu::noinline]] void* operator new(size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
    free(p);
}
[[gnu::noinline]] void operator delete(void* p, size_t) noexcept {
    free(p);
}

namespace {

constexpr char kGpuDir[] = "/sys/class/grax/grax-3d0/";
const char* const kTickNodes[] = {"gpu_clock_stats", "gpuclk", "gpubusy"};

// A fake device tree on tmpfs holding the GPU nodes, made the device root while alive.
class TmpfsGpuTree {
  public:
    TmpfsGpuTree() {
        std::string templ = "/dev/shm/pwrbench.XXXXXX";
        if (mkdtemp(templ.data()) == nullptr) throw std::runtime_error("mkdtemp in /dev/shm");
        mRoot = templ;
        std::filesystem::create_directories(mRoot + kGpuDir);
        write("gpu_available_frequencies", "900000000 600000000 300000000\n");
        write("gpu_clock_stats", "0 0 0\n");
        // 800 MHz is above the high threshold: the decision equals level 0, the level in force.
        write("gpuclk", "800000000\n");
        write("gpubusy", "523 1000\n");
        pwr::host::setDeviceRoot(mRoot);
    }
    ~TmpfsGpuTree() {
        pwr::host::setDeviceRoot("");
        std::error_code ec;
        std::filesystem::remove_all(mRoot, ec);
    }
    std::string hostPath(const char* node) const { return mRoot + kGpuDir + node; }

  private:
    void write(const char* node, const char* content) const {
        if (!android::base::WriteStringToFile(content, hostPath(node))) {
            throw std::runtime_error(std::string("cannot write ") + node);
        }
    }

    std::string mRoot;
};

PowerOptFeatureInfo benchConfig() {
    PowerOptFeatureInfo info;
    info.featureName = "PSMPowerOptFeature";
    info.configs["PSM_STATE"] = "2";
    info.configs["DEEP_MODE"] = "0";
    info.configs["GPUMode"] = "1";
    info.configs["GAME_TIMER"] = "1000";
    info.configs["GPU_SAMPLE_COUNT"] = "10";
    info.configs["STABILITY_SAMPLE_COUNT"] = "3";
    info.configs["GPU_BUSY_STABILITY_THRESHOLD"] = "10";
    info.configs["GPU_Freq_THRESHOLD_LOW"] = "300";
    info.configs["GPU_Freq_THRESHOLD_HIGH"] = "600";
    info.profiles["PROFILE_LIGHT_MODE"] = {{0x40C00000, 0x1}};
    info.profiles["DYN_0_HIGH"] = {{0x40C00000, 0x3}};
    info.profiles["DYN_1_BALANCED"] = {{0x40C00000, 0x2}};
    info.profiles["DYN_2_LOW"] = {{0x40C00000, 0x1}};
    return info;
}

TmpfsGpuTree* gTree = nullptr;
PSMPowerOptFeature* gFeature = nullptr;

void BM_GameTimerTick(benchmark::State& state) {
    const uint64_t before = gAllocations.load(std::memory_order_relaxed);
    for (auto _ : state) PSMPowerOptFeature::gametimerCallBack(gFeature);
    const uint64_t allocations = gAllocations.load(std::memory_order_relaxed) - before;
    state.counters["allocs/tick"] =
            static_cast<double>(allocations) / static_cast<double>(state.iterations());
    if (PSMPowerOptFeatureTestPeer(*gFeature).snapshot().gpuPhase != PSM_GPU_PHASE_EVALUATING) {
        state.SkipWithError("the monitor left the evaluating phase");
    }
}

// Opens, reads to the end and closes each node the tick reads.
void BM_ReadNodesFloor(benchmark::State& state) {
    std::vector<std::string> paths;
    for (const char* node : kTickNodes) paths.push_back(gTree->hostPath(node));
    char buffer[4096];
    const uint64_t before = gAllocations.load(std::memory_order_relaxed);
    for (auto _ : state) {
        for (const std::string& path : paths) {
            android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
            while (read(fd, buffer, sizeof(buffer)) > 0) {
            }
            benchmark::DoNotOptimize(buffer);
        }
    }
    const uint64_t allocations = gAllocations.load(std::memory_order_relaxed) - before;
    state.counters["allocs/tick"] =
            static_cast<double>(allocations) / static_cast<double>(state.iterations());
}

BENCHMARK(BM_GameTimerTick);
BENCHMARK(BM_ReadNodesFloor);

void dropLine(const __android_logger_data*, const char*) {}

}  // namespace

int main(int argc, char** argv) {
    if (!pwr::bench::initialize(argc, argv)) return 1;

    __android_log_set_logger(dropLine);
    fakeperf::reset();
    fakeperf::setRecording(false);
    TmpfsGpuTree tree;
    gTree = &tree;

    // The GPU singleton is built here, on the tmpfs tree, by the first feature of the process.
    auto feature = std::make_unique<PSMPowerOptFeature>(benchConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    if (!peer.ready()) {
        fprintf(stderr, "the feature is not ready\n");
        return 1;
    }
    gFeature = feature.get();

    // A game has come to the foreground: tick until the monitor evaluates with a full list.
    feature->initGpuSamples();
    for (int i = 0; i < 100 && !((peer.snapshot().gpuPhase == PSM_GPU_PHASE_EVALUATING) &&
                                 peer.gpu().samples().size() == 10u);
         ++i) {
        PSMPowerOptFeature::gametimerCallBack(gFeature);
    }
    if (!(peer.snapshot().gpuPhase == PSM_GPU_PHASE_EVALUATING)) {
        fprintf(stderr, "the monitor did not reach the evaluating phase\n");
        return 1;
    }

    pwr::bench::MedianReporter reporter;
    pwr::bench::run(reporter);
    reporter.printRatio("tick / floor", "BM_GameTimerTick", "BM_ReadNodesFloor", "within 1.5x");
    printf("allocations per tick (median): %.2f (goal: 0)\n",
           reporter.counter("BM_GameTimerTick", "allocs/tick"));
    gFeature = nullptr;
    return 0;
}
