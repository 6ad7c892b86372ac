#include "ctl/terminal/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "base/unique_fd.h"

namespace qxpctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMaxOutput = 65536;

// Reads until the child closes its end. False when the deadline comes first.
bool ReadUntil(int descriptor, Clock::time_point deadline, std::string& output) {
    std::array<char, 4096> buffer{};
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd ready{descriptor, POLLIN, 0};
        const int found = poll(&ready, 1, left > 0 ? static_cast<int>(left) : 0);
        if (found == 0 || (found < 0 && errno != EINTR)) {
            return false;
        }
        const ssize_t count = found > 0 ? read(descriptor, buffer.data(), buffer.size()) : 1;
        if (count == 0) {
            return true;
        }
        if (found > 0 && count > 0 && output.size() < kMaxOutput) {
            output.append(buffer.data(), static_cast<size_t>(count));
        }
    }
}

int Spawn(const std::string& program, const std::vector<std::string>& arguments, int output, pid_t& child) {
    std::vector<std::string> texts{program};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        argv.push_back(text.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
    const int failure = posix_spawn(&child, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return failure;
}

}  // namespace

ChildResult RunChild(const std::string& program, const std::vector<std::string>& arguments,
                     std::chrono::milliseconds deadline) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return {ChildResult::End::kNotStarted, errno, {}};
    }
    const qxpbase::UniqueFd reader(ends[0]);
    qxpbase::UniqueFd writer(ends[1]);
    pid_t child = 0;
    ChildResult result;
    result.code = Spawn(program, arguments, writer.Get(), child);
    if (result.code != 0) {
        return result;
    }
    // With this end open too, the reader would never see the end.
    writer.Reset();
    const bool ended = ReadUntil(reader.Get(), Clock::now() + deadline, result.output);
    if (!ended) {
        kill(child, SIGKILL);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    result.end = !ended                ? ChildResult::End::kTimedOut
                 : WIFSIGNALED(status) ? ChildResult::End::kKilled
                                       : ChildResult::End::kExited;
    result.code = WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status);
    return result;
}

}  // namespace qxpctl
