// Crash safety of property application: a process applying the deep-mode property list is killed
// with SIGKILL at random moments. Whatever the moment, the database must be intact and every
// property already changed must have its previous first character saved, so that it can be put
// back after the restart.

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>

#include "host/fakeperf/FakePerf.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SqliteProbe.h"
#include "tests/support/TestConfig.h"

namespace {

using android::base::unique_fd;
using Clock = std::chrono::steady_clock;

constexpr int kProperties = 24;
// At least this many kills, and more until enough of them have landed inside the list (the
// list's speed drifts with the machine's load), up to the cap.
constexpr int kRuns = 60;
constexpr int kMinMidListKills = 30;
constexpr int kMaxRuns = 300;
constexpr char kStoreFile[] = "/data/vendor/pwr/InputPMDB.db";

// Child to parent, one byte each.
constexpr char kReady = 'R';  // about to apply the list
constexpr char kDone = 'D';   // the list is applied; the child's own timing follows

struct PropertyCase {
    std::string name;
    std::optional<std::string> original;  // nullopt: unset before deep mode
    std::string deepValue;

    // The first character of the old value, read with the default "0".
    char saved() const { return original ? (*original)[0] : '0'; }
};

// Unset properties, single characters, multi-character values, and deep values that share the
// first character of the old one.
std::vector<PropertyCase> deepModeCases() {
    std::vector<PropertyCase> cases;
    const std::optional<std::string> originals[] = {std::nullopt, "1", "128", "abc", "0", "7x"};
    const char* const deepValues[] = {"1", "0", "1", "z", "1", "70"};
    for (int i = 0; i < kProperties; ++i) {
        cases.push_back(
                {"vendor.pwr.deep.p" + std::to_string(i), originals[i % 6], deepValues[i % 6]});
    }
    return cases;
}

// Waits at most `timeout` for one byte from the child; 0 on timeout or end of file.
char readByte(int fd, std::chrono::milliseconds timeout) {
    pollfd pfd{fd, POLLIN, 0};
    if (poll(&pfd, 1, static_cast<int>(timeout.count())) <= 0) return 0;
    char c = 0;
    return read(fd, &c, 1) == 1 ? c : 0;
}

// Arms a one-shot timer of the monotonic clock that sends SIGKILL to this process after `delay`.
// The kernel fires it at that moment of the child's own run, however the machine schedules
// the parent.
bool armKillTimer(std::chrono::microseconds delay) {
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGKILL;
    timer_t timer;
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0) return false;
    itimerspec spec{};
    const long long nanos = std::max<long long>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(delay).count(), 1);  // 0 disarms
    spec.it_value.tv_sec = static_cast<time_t>(nanos / 1000000000);
    spec.it_value.tv_nsec = static_cast<long>(nanos % 1000000000);
    return timer_settime(timer, 0, &spec, nullptr) == 0;
}

// The child: builds a feature with its store, then applies the deep-mode list, killed by its
// timer `killAfter` into the list (or timed, for a calibration run). Never returns.
[[noreturn]] void applyInChild(int fd, const std::vector<PropertyCase>& cases,
                               std::optional<std::chrono::microseconds> killAfter) {
    pwr::test::installNullLogger();
    pwr::test::FeatureHandle feature(pwr::test::minimalConfig());
    feature->pmDbInit();
    if (PSMPowerOptFeatureTestPeer(*feature).store().database() == nullptr) _exit(3);
    std::vector<std::string> list;
    for (const PropertyCase& c : cases) {
        list.push_back(c.name);
        list.push_back(c.deepValue);
    }
    (void)!write(fd, &kReady, 1);
    if (killAfter && !armKillTimer(*killAfter)) _exit(4);
    const auto start = Clock::now();
    feature->applyProp(list.data(), static_cast<int>(list.size()), 0);
    const int64_t micros =
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
    char done[1 + sizeof(micros)] = {kDone};
    memcpy(done + 1, &micros, sizeof(micros));
    (void)!write(fd, done, sizeof(done));
    for (;;) pause();
}

struct RunResult {
    bool finished = false;  // the list was fully applied before the kill
    std::chrono::microseconds applyTime{0};
    int changed = 0;
    std::vector<std::string> faults;
};

// One run in a fresh device tree: set the old values, start the child, have it killed
// `killAfter` after it starts applying (not before the end, for a calibration run), then check
// the tree it left.
RunResult runOnce(const std::vector<PropertyCase>& cases,
                  std::optional<std::chrono::microseconds> killAfter) {
    RunResult result;
    pwr::test::DeviceTree tree;
    tree.mkdirs("/data/vendor/pwr");
    for (const PropertyCase& c : cases) {
        if (c.original) pwr::test::setProperty(c.name, *c.original);
    }

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        result.faults.push_back("pipe failed");
        return result;
    }
    unique_fd readEnd(fds[0]);
    unique_fd writeEnd(fds[1]);
    const pid_t pid = fork();
    if (pid < 0) {
        result.faults.push_back("fork failed");
        return result;
    }
    if (pid == 0) {
        readEnd.reset();
        applyInChild(writeEnd.get(), cases, killAfter);
    }
    writeEnd.reset();

    // Then kDone, or the end of the pipe when the timer killed the child first.
    const char first = readByte(readEnd.get(), std::chrono::seconds(30));
    if (first == kReady) {
        result.finished = readByte(readEnd.get(), std::chrono::seconds(60)) == kDone;
        int64_t micros = 0;
        if (result.finished && read(readEnd.get(), &micros, sizeof(micros)) == sizeof(micros)) {
            result.applyTime = std::chrono::microseconds(micros);
        }
    }
    // A child that finished the list (or never reached it) is killed here instead.
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    if (first != kReady || !WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) {
        result.faults.push_back("child did not reach the list (status " + std::to_string(status) +
                                ")");
        return result;
    }

    pwr::test::SqliteProbe probe(tree.hostPath(kStoreFile));
    if (!probe.ok()) {
        result.faults.push_back("database cannot be opened");
        return result;
    }
    const std::string integrity = probe.scalar("PRAGMA integrity_check");
    if (integrity != "ok") result.faults.push_back("integrity_check: " + integrity);

    std::map<std::string, std::vector<std::string>> saved;
    for (const auto& row : probe.query("SELECT appName, blob FROM PSMPOWEROPT")) {
        if (row.size() != 2) {
            result.faults.push_back("query failed: " + row[0]);
            return result;
        }
        saved[row[0]].push_back(row[1]);
    }
    for (const PropertyCase& c : cases) {
        const std::string now = pwr::test::propertyValue(c.name);
        const bool changed = now != c.original.value_or("<unset>");
        if (changed) ++result.changed;
        auto it = saved.find(c.name);
        if (it == saved.end()) {
            if (changed)
                result.faults.push_back(c.name + " changed to '" + now + "', nothing saved");
            continue;
        }
        // Saved before the property is set, so a saved row may precede the change; it must
        // hold the old first character either way.
        if (it->second != std::vector<std::string>{std::string(1, c.saved())}) {
            result.faults.push_back(c.name + " saved " + ::testing::PrintToString(it->second) +
                                    ", expected '" + std::string(1, c.saved()) + "'");
        }
        saved.erase(it);
    }
    for (const auto& [name, values] : saved) {
        result.faults.push_back("unexpected row " + name + " " + ::testing::PrintToString(values));
    }
    return result;
}

TEST(PropertyCrash, KilledWhileApplyingDeepModeListLosesNoOldValue) {
    fakeperf::reset();
    const std::vector<PropertyCase> cases = deepModeCases();

    // Calibration: one uninterrupted run gives the span over which the kills are spread.
    const RunResult calibration = runOnce(cases, std::nullopt);
    ASSERT_TRUE(calibration.faults.empty()) << ::testing::PrintToString(calibration.faults);
    ASSERT_TRUE(calibration.finished);
    ASSERT_EQ(calibration.changed, kProperties);
    // The machine's speed drifts between runs: the span shrinks after a kill that came too late
    // and grows after one that came too early, so that most kills land inside the list.
    double window = std::max<double>(static_cast<double>(calibration.applyTime.count()), 1.0);

    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    int failedRuns = 0;
    int beforeFirst = 0;
    int midList = 0;
    int afterLast = 0;
    int runs = 0;
    for (; runs < kMaxRuns && (runs < kRuns || midList < kMinMidListKills); ++runs) {
        std::uniform_real_distribution<double> delay(0, window);
        const std::chrono::microseconds killAfter(static_cast<long long>(delay(random)));
        const RunResult result = runOnce(cases, killAfter);
        if (!result.faults.empty()) {
            ++failedRuns;
            ADD_FAILURE() << "run " << runs << " killed after " << killAfter.count()
                          << " us: " << ::testing::PrintToString(result.faults);
        }
        if (result.changed == 0) {
            ++beforeFirst;
            window *= 1.1;
        } else if (result.changed < kProperties) {
            ++midList;
        } else {
            ++afterLast;
            window *= 0.8;
        }
    }
    printf("seed %u, %d properties, apply time %lld us, %d kills: %d before the first change, "
           "%d mid-list, %d after the last; %d failed runs\n",
           seed, kProperties, static_cast<long long>(calibration.applyTime.count()), runs,
           beforeFirst, midList, afterLast, failedRuns);
    EXPECT_EQ(failedRuns, 0);
    // Kills that all missed the list would prove nothing.
    EXPECT_GE(midList, kMinMidListKills);
}

}  // namespace
