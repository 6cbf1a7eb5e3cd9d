// Features deleted while their game timer's callback runs, on the C library's own POSIX timers
// (this program is linked without the test timers of tests/support/ThreadTimers.cpp).
//
// The GPU busy node is a FIFO served by a writer thread, so a game timer tick blocks inside its
// GPU read until the writer answers. Each cycle builds a feature with a 1 ms game timer, starts
// a game, waits until a tick is blocked in that read, and deletes the feature; the writer
// answers only once the deletion has begun. A deletion must wait for the tick it interrupted:
// when it returns, the tick has been answered and has left the feature. Under AddressSanitizer
// a tick that outlives its feature is a heap-use-after-free report.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>

#include "feature/PowerOptFeature.h"
#include "host/PluginHost.h"
#include "host/fakeperf/FakePerf.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestConfig.h"

namespace {

using namespace std::chrono_literals;

// Every cycle forces the interleaving (a deletion that lands on a tick blocked in its read), so
// the count only has to cover the C library's ways of starting a tick, not to wait for a lucky
// one; each cycle waits for one 1 ms expiry.
constexpr int kCycles = 10000;
constexpr auto kTimeout = 10s;
constexpr char kGpuDir[] = "/sys/class/grax/grax-3d0/";
// The busy node's answer; a tick that has read the first part waits in its read for the rest.
constexpr char kBusyAnswer[] = "50 100\n";
constexpr ssize_t kHeldPart = 2;

// Answers every reader of the FIFO. The first reader of a cycle is held until the cycle's
// deletion has begun; any other (a tick queued behind it) is answered at once.
class BusyNodeWriter {
  public:
    explicit BusyNodeWriter(std::string fifo) : mFifo(std::move(fifo)) {
        mThread = std::thread([this] { serve(); });
    }
    ~BusyNodeWriter() {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mStop = true;
        }
        mChanged.notify_all();
        // A reader that opens and closes at once releases a writer blocked in open().
        android::base::unique_fd unblock(open(mFifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        mThread.join();
    }

    // The next reader is the one the cycle's deletion must land on.
    void armCycle() {
        std::lock_guard<std::mutex> lock(mMutex);
        mArmed = true;
        mHeld = false;
        mDeleting = false;
        mAnswered = false;
    }
    bool waitUntilHeld() {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kTimeout, [this] { return mHeld; });
    }
    void deletionBegins() {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mDeleting = true;
        }
        mChanged.notify_all();
    }
    bool heldReaderAnswered() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mAnswered;
    }

  private:
    void serve() {
        for (;;) {
            android::base::unique_fd fd(open(mFifo.c_str(), O_WRONLY | O_CLOEXEC));
            std::unique_lock<std::mutex> lock(mMutex);
            if (mStop) return;
            // A FIFO pairs a writer with a reader that is still closing the previous answer: the
            // first piece of the answer fails then, and the writer waits for the next reader.
            if (fd == -1 || write(fd, kBusyAnswer, kHeldPart) != kHeldPart) continue;
            if (mArmed) {
                mArmed = false;
                mHeld = true;
                mChanged.notify_all();
                mChanged.wait_for(lock, kTimeout, [this] { return mDeleting || mStop; });
                lock.unlock();
                // Let the deletion get well under way before the tick goes on.
                std::this_thread::sleep_for(50us);
                lock.lock();
                // Marked before the answer: the tick cannot go on before it is complete.
                mAnswered = true;
            }
            lock.unlock();
            (void)!write(fd, kBusyAnswer + kHeldPart, sizeof(kBusyAnswer) - 1 - kHeldPart);
        }
    }

    const std::string mFifo;
    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mStop = false;
    bool mArmed = false;
    bool mHeld = false;
    bool mDeleting = false;
    bool mAnswered = false;
    std::thread mThread;
};

TEST(TimerLifetimeStress, DeletionWaitsForTheTickItInterrupts) {
    pwr::test::DeviceTree tree;
    const std::string gpu = kGpuDir;
    tree.write(gpu + "gpu_available_frequencies", "100000000 300000000 500000000 700000000\n");
    tree.write(gpu + "gpu_clock_stats", "400 300 200 100\n");
    tree.write(gpu + "gpuclk", "250000000\n");
    const std::string fifo = tree.hostPath(gpu + "gpubusy");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0) << strerror(errno);
    // A reader gone before its answer is written is expected, not fatal.
    signal(SIGPIPE, SIG_IGN);
    pwr::test::installNullLogger();
    fakeperf::reset();
    fakeperf::setRecording(false);
    fakeperf::setAppType("com.example.game", 2);

    BusyNodeWriter writer(fifo);
    const PowerOptFeatureInfo info = pwr::test::gpuMonitorConfig("2", "1");
    const AsyncTriggerPayload start = pwr::test::event(0x1001, "com.example.game/.Main");

    int outlived = 0;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        std::string error;
        std::unique_ptr<PowerOptFeature> feature =
                pwr::host::PluginHost::create("PSMPowerOptFeature", info, &error);
        ASSERT_NE(feature, nullptr) << error;
        writer.armCycle();
        feature->sendEvents(start);
        ASSERT_TRUE(writer.waitUntilHeld()) << "cycle " << cycle << ": no tick read the GPU";
        writer.deletionBegins();
        feature.reset();
        if (!writer.heldReaderAnswered()) ++outlived;
    }
    EXPECT_EQ(outlived, 0) << "deletions that returned while their tick was still running";
}

}  // namespace
