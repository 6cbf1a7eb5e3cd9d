// Cost of sendEvents for a game start followed by its stop in PSM mode 2, against the fake
// performance library, beside a floor measured in the same run: the same library entry points
// and the same timer_settime calls made directly in a loop. Logging goes to a null logger and the
// fake library records nothing. At the end the program prints feature/floor for each pair from the
// medians of the repetitions; the goal is at most 2.
//
//   build/bench/pwr_sendevents_bench   (ten interleaved repetitions of each; flags may override)

#include <android/log.h>
#include <benchmark/benchmark.h>
#include <signal.h>
#include <time.h>

#include <climits>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench/BenchSupport.h"
#include "feature/FeatureCodes.h"
#include "feature/PSMPowerOptFeature.h"
#include "host/PluginHost.h"
#include "host/fakeperf/FakePerf.h"
#include "tests/support/FeaturePeer.h"

// The fake library's entry points, called directly by the floor.
extern "C" int perf_lock_acq(int handle, int duration, int* list, int numArgs);
extern "C" int perf_lock_rel(int handle);
extern "C" int perf_get_feedback(int request, const char* app);

namespace {

constexpr char kActivity[] = "com.example.game/.MainActivity";
constexpr char kGame[] = "com.example.game";
constexpr int kAppTypeRequest = 0x1601;
const Profile kGameProfile{{0x40C00000, 0x1, 0x40804000, 0x5DC, 0x42804000, 0x2}};

void nullLogger(const __android_logger_data*, const char*) {}

// The fake library answers "game" for kGame and keeps no record of the calls.
void quietLibrary() {
    __android_log_set_logger(nullLogger);
    fakeperf::reset();
    fakeperf::setAppType(kGame, 2);
    fakeperf::setRecording(false);
}

// Mode 2 with the GPU monitor on; a one-second game timer, armed and disarmed long before it
// could fire.
std::unique_ptr<PSMPowerOptFeature> gamingFeature() {
    PowerOptFeatureInfo info;
    info.featureName = PSMPowerOptFeature::kFeatureName;
    info.configs = {{"PSM_STATE", "2"},
                    {"DEEP_MODE", "0"},
                    {"GPUMode", "1"},
                    {"GAME_TIMER", "1000"},
                    {"GPU_SAMPLE_COUNT", "5"},
                    {"STABILITY_SAMPLE_COUNT", "3"},
                    {"GPU_BUSY_STABILITY_THRESHOLD", "10"},
                    {"GPU_Freq_THRESHOLD_LOW", "300"},
                    {"GPU_Freq_THRESHOLD_HIGH", "600"}};
    info.profiles["PROFILE_LIGHT_MODE"] = {{0x40C00000, 0x1}};
    info.profiles["DYN_GPU_0_HIGH"] = {{0x42804000, 0x3}};
    info.profiles["DYN_GPU_1_MID"] = {{0x42804000, 0x2}};
    info.profiles["DYN_GPU_2_LOW"] = {{0x42804000, 0x1}};
    PowerOptFeatureFactory factory =
            pwr::host::PluginHost::findFactory(PSMPowerOptFeature::kFeatureName);
    if (factory == nullptr) return nullptr;
    return std::unique_ptr<PSMPowerOptFeature>(static_cast<PSMPowerOptFeature*>(factory(info)));
}

AsyncTriggerPayload payload(int32_t hintId) {
    AsyncTriggerPayload p;
    p.hintId = hintId;
    p.appName = kActivity;
    return p;
}

// A POSIX timer made as the timer service makes one, for the floor's timer_settime calls.
class RawTimer {
  public:
    RawTimer() {
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD;
        event.sigev_notify_function = [](sigval) {};
        mOk = timer_create(CLOCK_REALTIME, &event, &mId) == 0;
    }
    ~RawTimer() {
        if (mOk) timer_delete(mId);
    }
    bool ok() const { return mOk; }
    timer_t id() const { return mId; }

  private:
    timer_t mId{};
    bool mOk = false;
};

const itimerspec kArmOneSecond{{1, 0}, {1, 0}};
const itimerspec kDisarm{};

// sendEvents alone: the start classifies the app and arms the game timer, the stop disarms it
// (no profile is held, so nothing is released).
void BM_Feature_GameStartStop(benchmark::State& state) {
    quietLibrary();
    auto feature = gamingFeature();
    if (feature == nullptr) return state.SkipWithError("feature not registered");
    const AsyncTriggerPayload start = payload(pwr::codes::kAppStart);
    const AsyncTriggerPayload stop = payload(pwr::codes::kAppStop);
    for (auto _ : state) {
        feature->sendEvents(start);
        feature->sendEvents(stop);
    }
}
BENCHMARK(BM_Feature_GameStartStop);

void BM_Floor_GameStartStop(benchmark::State& state) {
    quietLibrary();
    RawTimer timer;
    if (!timer.ok()) return state.SkipWithError("timer_create failed");
    for (auto _ : state) {
        benchmark::DoNotOptimize(perf_get_feedback(kAppTypeRequest, kGame));
        timer_settime(timer.id(), 0, &kArmOneSecond, nullptr);
        timer_settime(timer.id(), 0, &kDisarm, nullptr);
    }
}
BENCHMARK(BM_Floor_GameStartStop);

// As a running game has it: a game profile is held when the game stops, so the stop releases it.
// The lock is taken by the same direct perf_lock_acq call in both loops and handed to the feature
// as its held profile (the GPU monitor's switch, with its own logging, is not what is measured).
void BM_Feature_GameStartStopReleasingProfile(benchmark::State& state) {
    quietLibrary();
    auto feature = gamingFeature();
    if (feature == nullptr) return state.SkipWithError("feature not registered");
    PSMPowerOptFeatureTestPeer peer(*feature);
    const AsyncTriggerPayload start = payload(pwr::codes::kAppStart);
    const AsyncTriggerPayload stop = payload(pwr::codes::kAppStop);
    std::vector<int> list = kGameProfile[0];
    for (auto _ : state) {
        feature->sendEvents(start);
        peer.profileLock().adopt(
                perf_lock_acq(0, INT_MAX, list.data(), static_cast<int>(list.size())));
        feature->sendEvents(stop);
    }
}
BENCHMARK(BM_Feature_GameStartStopReleasingProfile);

void BM_Floor_GameStartStopReleasingProfile(benchmark::State& state) {
    quietLibrary();
    RawTimer timer;
    if (!timer.ok()) return state.SkipWithError("timer_create failed");
    std::vector<int> list = kGameProfile[0];
    for (auto _ : state) {
        benchmark::DoNotOptimize(perf_get_feedback(kAppTypeRequest, kGame));
        timer_settime(timer.id(), 0, &kArmOneSecond, nullptr);
        const int handle = perf_lock_acq(0, INT_MAX, list.data(), static_cast<int>(list.size()));
        timer_settime(timer.id(), 0, &kDisarm, nullptr);
        perf_lock_rel(handle);
    }
}
BENCHMARK(BM_Floor_GameStartStopReleasingProfile);

}  // namespace

int main(int argc, char** argv) {
    // The machine is shared: repeat, interleave the feature's and the floor's repetitions so that
    // both see the same load, and report aggregates.
    if (!pwr::bench::initialize(
                argc, argv,
                {"--benchmark_repetitions=10", "--benchmark_enable_random_interleaving=true",
                 "--benchmark_report_aggregates_only=true"})) {
        return 1;
    }
    // The plug-in is loaded as the power service loads it; its registration fills the registry.
    pwr::host::PluginHost host;
    std::string error;
    if (!host.load(PWR_PLUGIN_PATH, &error)) {
        fprintf(stderr, "cannot load the plug-in: %s\n", error.c_str());
        return 1;
    }
    pwr::bench::MedianReporter reporter;
    pwr::bench::run(reporter);
    for (const std::string pair : {"GameStartStop", "GameStartStopReleasingProfile"}) {
        reporter.printRatio(pair, "BM_Feature_" + pair, "BM_Floor_" + pair, "at most 2x");
    }
    return 0;
}
