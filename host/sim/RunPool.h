#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace pwr::sim {

// Runs a program many times as child processes, at most `jobs` at once, for pwr-sim's compare
// and sweep: each run is a process of its own, so the plug-in's process-wide state starts fresh
// for each, and the runs use every core.
class RunPool {
  public:
    struct Run {
        std::vector<std::string> args;  // without the program
        std::string outPath;            // where its standard output and error go
        std::string errPath;
        int status = -1;  // exit status once run; 128 + signal when killed
    };
    // Called after each start and end: runs finished, failed (non-zero status), running.
    using Progress = std::function<void(size_t done, size_t failed, size_t running)>;

    // `tmpDir`, when given, is the children's TMPDIR: their own temporary files (a pwr-sim run's
    // device tree) then go where the caller removes them, even from a child that was stopped.
    RunPool(std::string program, int jobs, std::string tmpDir = "")
        : mProgram(std::move(program)), mJobs(jobs), mTmpDir(std::move(tmpDir)) {}

    // Runs every run. SIGINT and SIGTERM are held back meanwhile; when one comes, the running
    // children are terminated and reaped, the runs not started stay at -1 and the result is
    // false. A child that cannot be started gets status 127. The calling thread's signal mask
    // is restored afterwards.
    bool runAll(std::vector<Run>& runs, const Progress& progress);

    // The path of the running executable, for a program that runs itself.
    static std::string selfPath();
    // Online processors: the default number of jobs.
    static int cores();
    // A Progress that keeps one line on standard error up to date ("<what>: 3/8 runs done, 2
    // running, 0 failed") when it is a terminal, and does nothing otherwise. finishLine() ends
    // that line.
    static Progress terminalProgress(std::string what, size_t total);
    static void finishLine();

  private:
    pid_t start(const Run& run);

    std::string mProgram;
    int mJobs;
    std::string mTmpDir;
};

}  // namespace pwr::sim
