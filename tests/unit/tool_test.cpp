// The operating-system services: what each does to real files, processes and signal masks.

#include "tool/main_t_tool.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>  // NOLINT(modernize-deprecated-headers): POSIX
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace {

std::string Output(const std::string& command) {
    _CreateProcessInfo process;
    if (!CMainTTool::CreateProcessLinux(command.c_str(), process, nullptr))
        return "not started";
    std::string output;
    char buffer[256];
    while (const size_t count = fread(buffer, 1, sizeof(buffer), static_cast<FILE*>(process.hProcess)))
        output.append(buffer, count);
    CMainTTool::CleanHandle(process.hProcess);
    return output;
}

// Blocks a signal in this thread for the length of a scope.
class BlockedSignal {
public:
    explicit BlockedSignal(int signal) {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, signal);
        pthread_sigmask(SIG_BLOCK, &set, &saved_);
    }
    ~BlockedSignal() { pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }

private:
    sigset_t saved_;
};

mode_t Mode(const std::string& path) {
    struct stat attributes {};
    return stat(path.c_str(), &attributes) == 0 ? attributes.st_mode & 07777 : 0;
}

TEST(ToolProcess, ChildStartsWithAnEmptyMaskAndTheCallersMaskIsKept) {
    const BlockedSignal blocked(SIGTERM);
    EXPECT_EQ(Output("grep SigBlk /proc/self/status"), "SigBlk:\t0000000000000000\n");
    sigset_t now;
    pthread_sigmask(SIG_SETMASK, nullptr, &now);
    EXPECT_EQ(sigismember(&now, SIGTERM), 1);
}

TEST(ToolProcess, NoChildInheritsThePipeOfAnother) {
    _CreateProcessInfo first;
    ASSERT_TRUE(CMainTTool::MaintCreateProcess("cat /dev/zero", "ignored", 7, first, nullptr));
    EXPECT_EQ(fcntl(fileno(static_cast<FILE*>(first.hProcess)), F_GETFD), FD_CLOEXEC);
    // The shell's own: 0, 1, 2 and the directory that ls reads.
    EXPECT_EQ(Output("ls /proc/self/fd | wc -l"), "4\n");
    CMainTTool::CleanHandle(first.hProcess);
    CMainTTool::CleanHandle(nullptr);
}

TEST(ToolProcess, FailureTouchesNothingOrTellsErrno) {
    _CreateProcessInfo process;
    int marker = 0;
    process.hProcess = &marker;
    unsigned int error = 77;
    EXPECT_FALSE(CMainTTool::CreateProcessLinux("", process, &error));
    EXPECT_FALSE(CMainTTool::CreateProcessLinux(nullptr, process, &error));
    EXPECT_EQ(process.hProcess, &marker);
    EXPECT_EQ(error, 77U);

    // Without a free descriptor popen fails.
    rlimit_guard:
    const int lowest_free = dup(0);
    close(lowest_free);
    EXPECT_NE(lowest_free, -1);
}

}  // namespace
