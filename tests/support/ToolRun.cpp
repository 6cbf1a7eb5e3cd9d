#include "tests/support/ToolRun.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/file.h>

namespace pwr::test {

ToolRun runTool(const std::vector<std::string>& args, const std::string& dir,
                const std::string& pathFirst) {
    const std::string outPath = dir + "/tool.stdout";
    const std::string errPath = dir + "/tool.stderr";
    const pid_t pid = fork();
    if (pid == 0) {
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        if (!pathFirst.empty()) {
            const char* path = getenv("PATH");
            setenv("PATH", (pathFirst + ":" + (path != nullptr ? path : "")).c_str(), 1);
        }
        std::vector<char*> argv;
        const char* emulator = getenv("PWR_TEST_EMULATOR");
        if (emulator != nullptr && emulator[0] != '\0') argv.push_back(const_cast<char*>(emulator));
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    ToolRun result;
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    android::base::ReadFileToString(outPath, &result.out);
    android::base::ReadFileToString(errPath, &result.err);
    return result;
}

}  // namespace pwr::test
