#include "host/sim/RunPool.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>

#include <android-base/file.h>

extern char** environ;

namespace pwr::sim {
namespace {

// Blocks SIGINT, SIGTERM and SIGCHLD while alive, so that sigtimedwait takes them in order with
// the children's ends; the previous mask comes back at the end.
class HeldSignals {
  public:
    HeldSignals() {
        sigemptyset(&mSet);
        sigaddset(&mSet, SIGINT);
        sigaddset(&mSet, SIGTERM);
        sigaddset(&mSet, SIGCHLD);
        pthread_sigmask(SIG_BLOCK, &mSet, &mPrevious);
    }
    ~HeldSignals() { pthread_sigmask(SIG_SETMASK, &mPrevious, nullptr); }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    const sigset_t& set() const { return mSet; }

  private:
    sigset_t mSet;
    sigset_t mPrevious;
};

int statusOf(int wstatus) {
    return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
}

}  // namespace

std::string RunPool::selfPath() {
    std::string path;
    return android::base::Readlink("/proc/self/exe", &path) ? path : std::string();
}

int RunPool::cores() {
    const long n = sysconf(_SC_NPROCESSORS_ONLN);
    return n > 0 ? static_cast<int>(n) : 1;
}

RunPool::Progress RunPool::terminalProgress(std::string what, size_t total) {
    if (!isatty(STDERR_FILENO)) return nullptr;
    return [what = std::move(what), total](size_t done, size_t failed, size_t running) {
        fprintf(stderr, "\r%s: %zu/%zu runs done, %zu running, %zu failed ", what.c_str(), done,
                total, running, failed);
        fflush(stderr);
    };
}

void RunPool::finishLine() {
    if (isatty(STDERR_FILENO)) fprintf(stderr, "\n");
}

pid_t RunPool::start(const Run& run) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(mProgram.c_str()));
    for (const std::string& a : run.args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, run.outPath.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, run.errPath.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    // The child starts with no signal blocked and the default action for the ones held here.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none;
    sigemptyset(&none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGTERM);
    sigaddset(&defaults, SIGCHLD);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    std::vector<std::string> variables;
    for (char** v = environ; *v != nullptr; ++v) {
        if (mTmpDir.empty() || strncmp(*v, "TMPDIR=", 7) != 0) variables.push_back(*v);
    }
    if (!mTmpDir.empty()) variables.push_back("TMPDIR=" + mTmpDir);
    std::vector<char*> envp;
    for (std::string& v : variables) envp.push_back(v.data());
    envp.push_back(nullptr);
    pid_t pid = -1;
    const int result =
            posix_spawn(&pid, mProgram.c_str(), &actions, &attr, argv.data(), envp.data());
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    return result == 0 ? pid : -1;
}

bool RunPool::runAll(std::vector<Run>& runs, const Progress& progress) {
    HeldSignals held;
    std::map<pid_t, size_t> running;  // pid -> index in runs
    size_t next = 0;
    size_t done = 0;
    size_t failed = 0;
    auto finish = [&](size_t index, int status) {
        runs[index].status = status;
        ++done;
        failed += status != 0 ? 1 : 0;
    };
    bool interrupted = false;
    while (!interrupted && (next < runs.size() || !running.empty())) {
        while (next < runs.size() && running.size() < static_cast<size_t>(std::max(mJobs, 1))) {
            const pid_t pid = start(runs[next]);
            if (pid > 0) {
                running[pid] = next;
            } else {
                finish(next, 127);
            }
            ++next;
            if (progress) progress(done, failed, running.size());
        }
        if (running.empty()) continue;
        siginfo_t info;
        const timespec wait{1, 0};
        const int signal = sigtimedwait(&held.set(), &info, &wait);
        if (signal == SIGINT || signal == SIGTERM) {
            interrupted = true;
            break;
        }
        // SIGCHLD, a timeout or EINTR: reap whichever of ours ended (the ends of several
        // children may come as one signal; other children of the process are left alone).
        for (auto it = running.begin(); it != running.end();) {
            int wstatus = 0;
            if (waitpid(it->first, &wstatus, WNOHANG) != it->first) {
                ++it;
                continue;
            }
            finish(it->second, statusOf(wstatus));
            it = running.erase(it);
            if (progress) progress(done, failed, running.size());
        }
    }
    if (interrupted) {
        for (const auto& [pid, index] : running) kill(pid, SIGTERM);
        for (const auto& [pid, index] : running) {
            int wstatus = 0;
            if (TEMP_FAILURE_RETRY(waitpid(pid, &wstatus, 0)) == pid) {
                runs[index].status = statusOf(wstatus);
            }
        }
    }
    // Signals still pending would act when the mask is restored, before the caller can clean
    // up: take them now; a stop asked for counts as an interruption.
    const timespec now{0, 0};
    for (int signal; (signal = sigtimedwait(&held.set(), nullptr, &now)) > 0;) {
        interrupted = interrupted || signal == SIGINT || signal == SIGTERM;
    }
    return !interrupted;
}

}  // namespace pwr::sim
