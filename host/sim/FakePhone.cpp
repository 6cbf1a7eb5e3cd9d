#include "host/sim/FakePhone.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <thread>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>

#include "host/sim/FakeDevice.h"
#include "host/sim/Scenario.h"
#include "host/tools/DeviceRootSession.h"
#include "platform/DevicePath.h"
#include "platform/Properties.h"

namespace pwr::sim {
namespace {

using android::base::StringPrintf;
using android::base::unique_fd;

constexpr char kTool[] = "pwr-sim phone";
// The phone has been up a while when the command starts: /proc/uptime counts from here.
constexpr int64_t kBootedMs = 1000 * 1000;
constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

constexpr char kSleep[] = R"(#!/bin/sh
# The fake phone's sleep: asks pwr-sim to move the phone's clock on by $1 seconds, and waits
# until the device nodes show that time.
echo "sleep $1" > "$PWR_FAKE_PHONE/clock" || exit 1
read -r reply < "$PWR_FAKE_PHONE/clock.ack" && [ "$reply" = ok ]
)";
constexpr char kDumpsys[] = R"(#!/bin/sh
# The fake phone's dumpsys: the activity the scenario's start and stop events leave resumed.
cat "$PWR_FAKE_PHONE/activity"
)";
constexpr char kGetprop[] = R"(#!/bin/sh
# The fake phone's getprop: a value of the fake device tree's property store.
[ -n "$1" ] && cat "$PWR_DEVICE_ROOT/data/property/$1" 2>/dev/null
echo
)";

// The command's process group, for the signal handler to pass signals on to.
volatile sig_atomic_t gGroup = 0;

void forward(int signal) {
    if (gGroup > 0) kill(-gGroup, signal);
}

// The stand-ins' folder: written at start, removed at the end.
class StandIns {
  public:
    ~StandIns() {
        if (mDir.empty()) return;
        std::error_code ec;
        std::filesystem::remove_all(mDir, ec);
    }

    bool create(std::string* error) {
        std::error_code ec;
        std::string templ = std::filesystem::temp_directory_path(ec).string() + "/pwr-phone.XXXXXX";
        if (ec || mkdtemp(templ.data()) == nullptr) {
            *error = "cannot create a folder for the phone's commands in " + templ;
            return false;
        }
        mDir = templ;
        for (const auto& [name, text] : {std::pair{"sleep", kSleep}, std::pair{"dumpsys", kDumpsys},
                                         std::pair{"getprop", kGetprop}}) {
            const std::string path = mDir + "/" + name;
            if (!android::base::WriteStringToFile(text, path) || chmod(path.c_str(), 0755) != 0) {
                *error = "cannot write " + path + ": " + strerror(errno);
                return false;
            }
        }
        for (const char* fifo : {"clock", "clock.ack"}) {
            if (mkfifo((mDir + "/" + fifo).c_str(), 0600) != 0) {
                *error = "cannot make the pipe " + mDir + "/" + fifo + ": " + strerror(errno);
                return false;
            }
        }
        // Read-write: opening never waits for the other end, and the pipes never see an end
        // of file while the phone runs.
        mClock.reset(TEMP_FAILURE_RETRY(open((mDir + "/clock").c_str(), O_RDWR | O_CLOEXEC)));
        mAck.reset(TEMP_FAILURE_RETRY(open((mDir + "/clock.ack").c_str(), O_RDWR | O_CLOEXEC)));
        if (mClock == -1 || mAck == -1) {
            *error = "cannot open the pipes in " + mDir + ": " + strerror(errno);
            return false;
        }
        return true;
    }

    const std::string& dir() const { return mDir; }
    int clock() const { return mClock.get(); }
    int ack() const { return mAck.get(); }

  private:
    std::string mDir;
    unique_fd mClock;
    unique_fd mAck;
};

// Passes SIGINT, SIGTERM and SIGHUP on to the command while alive.
class SignalForwarding {
  public:
    explicit SignalForwarding(pid_t group) {
        gGroup = group;
        struct sigaction action = {};
        action.sa_handler = forward;
        sigemptyset(&action.sa_mask);
        for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &action, &mOld[i]);
    }
    ~SignalForwarding() {
        for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &mOld[i], nullptr);
        gGroup = 0;
    }
    SignalForwarding(const SignalForwarding&) = delete;
    SignalForwarding& operator=(const SignalForwarding&) = delete;

  private:
    struct sigaction mOld[std::size(kSignals)];
};

class Phone {
  public:
    Phone(const FakePhoneOptions& options, std::ostream& err) : mOptions(options), mErr(err) {}

    int run() {
        std::string error;
        if (mOptions.command.empty()) return fail("no command to run");
        if (!Scenario::parseFile(mOptions.scenarioPath, &mScenario, &error)) return fail(error);
        tools::DeviceRootSession root;
        if (!root.open(mOptions.deviceRoot, "pwr-sim-phone", &error)) return fail(error);
        for (const auto& [name, value] : mScenario.properties) {
            if (property_set(name.c_str(), value.c_str()) != 0) {
                return fail(mScenario.file + ": properties." + name + ": cannot be set in " +
                            root.root());
            }
        }
        FakeDevice device(mScenario);
        StandIns standIns;
        if (!device.create(&error) || !standIns.create(&error)) return fail(error);
        mDevice = &device;
        mStandIns = &standIns;
        if (!showTime(&error)) return fail(error);

        const pid_t child = fork();
        if (child < 0) return fail(std::string("cannot start the command: ") + strerror(errno));
        if (child == 0) exec(root.root());
        setpgid(child, child);  // also done by the child: whichever runs first
        SignalForwarding forwarding(child);
        int status = 0;
        // Waits for the command and then wakes the loop below through its own pipe.
        std::thread waiter([&status, child, fd = standIns.clock()] {
            while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
            }
            constexpr char kExit[] = "exit\n";
            TEMP_FAILURE_RETRY(write(fd, kExit, sizeof(kExit) - 1));
        });
        const bool served = serve(&error);
        if (!served) kill(-child, SIGKILL);
        waiter.join();
        if (!served) return fail(error);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

  private:
    int fail(const std::string& message) {
        mErr << kTool << ": error: " << message << '\n';
        return 1;
    }

    [[noreturn]] void exec(const std::string& root) {
        setpgid(0, 0);
        // A command started with these ignored (in the background of a script) could not trap
        // them; the phone's shell can.
        for (int signal : kSignals) ::signal(signal, SIG_DFL);
        const char* path = getenv("PATH");
        const std::string newPath =
                mStandIns->dir() + ":" + (path != nullptr ? path : "/usr/bin:/bin");
        setenv("PATH", newPath.c_str(), 1);
        setenv("PWR_DEVICE_ROOT", root.c_str(), 1);
        setenv("PWR_FAKE_PHONE", mStandIns->dir().c_str(), 1);
        std::vector<char*> argv;
        for (const std::string& arg : mOptions.command)
            argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        const std::string message = std::string(kTool) + ": error: cannot run " +
                                    mOptions.command[0] + ": " + strerror(errno) + "\n";
        TEMP_FAILURE_RETRY(write(STDERR_FILENO, message.data(), message.size()));
        _exit(127);
    }

    // Answers the stand-ins' requests until the command has ended. False with `error` set when
    // the phone's nodes cannot be written.
    bool serve(std::string* error) {
        std::string pending;
        char buffer[256];
        for (;;) {
            const ssize_t n = read(mStandIns->clock(), buffer, sizeof(buffer));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                *error = std::string("cannot read the phone's clock pipe: ") + strerror(errno);
                return false;
            }
            pending.append(buffer, static_cast<size_t>(n));
            size_t end;
            while ((end = pending.find('\n')) != std::string::npos) {
                const std::string line = pending.substr(0, end);
                pending.erase(0, end + 1);
                if (line == "exit") return true;
                if (!sleep(line, error)) return false;
            }
        }
    }

    bool sleep(const std::string& request, std::string* error) {
        const std::string amount = request.rfind("sleep ", 0) == 0 ? request.substr(6) : "";
        char* end = nullptr;
        const double seconds = strtod(amount.c_str(), &end);
        const bool valid = !amount.empty() && *end == '\0' && std::isfinite(seconds) &&
                           seconds >= 0 && seconds < 1e6;
        if (valid && !mEnded) {
            const int64_t nowMs = mNowMs + std::llround(seconds * 1000);
            if (nowMs > mScenario.durationMs) {
                mEnded = true;
                forward(SIGINT);
            } else {
                mNowMs = nowMs;
                if (!mDevice->update(mNowMs, error) || !showTime(error)) return false;
            }
        }
        const std::string reply = valid ? "ok\n" : "invalid\n";
        TEMP_FAILURE_RETRY(write(mStandIns->ack(), reply.data(), reply.size()));
        return true;
    }

    // Writes /proc/uptime and the activity dumpsys reports for the phone's time.
    bool showTime(std::string* error) {
        for (;
             mNextEvent < mScenario.events.size() && mScenario.events[mNextEvent].timeMs <= mNowMs;
             ++mNextEvent) {
            const ScenarioEvent& event = mScenario.events[mNextEvent];
            if (!event.hasEvent) continue;
            const std::string& app = event.event.payload.appName;
            if (event.event.kind == tools::ScriptEvent::Kind::Start) {
                mResumed = app;
            } else if (event.event.kind == tools::ScriptEvent::Kind::Stop && app == mResumed) {
                mResumed.clear();
            }
        }
        const int64_t uptime = (kBootedMs + mNowMs) / 10;  // hundredths, as the kernel prints it
        const std::string uptimePath = pwr::devicePath("/proc/uptime");
        const std::string activityPath = mStandIns->dir() + "/activity";
        std::error_code ec;
        std::filesystem::create_directories(pwr::devicePath("/proc"), ec);
        const std::string activity =
                mResumed.empty()
                        ? ""
                        : "    mResumedActivity: ActivityRecord{5eed u0 " + mResumed + " t1}\n";
        if (!android::base::WriteStringToFile(
                    StringPrintf("%lld.%02lld 0.00\n", static_cast<long long>(uptime / 100),
                                 static_cast<long long>(uptime % 100)),
                    uptimePath) ||
            !android::base::WriteStringToFile(activity, activityPath)) {
            *error = "cannot write " + uptimePath + " or " + activityPath + ": " + strerror(errno);
            return false;
        }
        return true;
    }

    const FakePhoneOptions& mOptions;
    std::ostream& mErr;
    Scenario mScenario;
    FakeDevice* mDevice = nullptr;
    StandIns* mStandIns = nullptr;
    int64_t mNowMs = 0;
    bool mEnded = false;
    size_t mNextEvent = 0;
    std::string mResumed;
};

}  // namespace

int runFakePhone(const FakePhoneOptions& options, std::ostream& err) {
    return Phone(options, err).run();
}

}  // namespace pwr::sim
