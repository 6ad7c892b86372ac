#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

/// How long a test waits for something that must happen. Long, for a loaded machine under a sanitizer; never slept out.
inline constexpr std::chrono::seconds DEADLINE{60};

/// Waits until the condition holds; false when it does not within the deadline.
template <typename Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds deadline = DEADLINE) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// True while the process runs. One that has ended but was not waited for by its parent counts as ended.
inline bool ProcessRuns(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    if (!std::getline(file, stat)) {
        return false;
    }
    const size_t name = stat.rfind(')');
    return name != std::string::npos && stat.compare(name, 3, ") Z") != 0 && stat.compare(name, 3, ") X") != 0;
}

/// True while that thread of this process waits; false for the number 0.
inline bool ThreadSleeps(pid_t thread) {
    std::string stat;
    std::getline(std::ifstream("/proc/self/task/" + std::to_string(thread) + "/stat"), stat);
    return thread != 0 && stat.find(") S") != std::string::npos;
}

/// Threads of this process whose name begins so.
inline long CountThreads(const std::string& name) {
    long count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string comm;
        std::getline(std::ifstream(task.path() / "comm"), comm);
        count += comm.starts_with(name) ? 1 : 0;
    }
    return count;
}

/// Entries of /proc/self/fd or /proc/self/task.
inline long CountEntries(const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator());
}
