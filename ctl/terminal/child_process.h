#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace qxpctl {

/// How a program that was started has ended.
struct ChildResult {
    enum class End { kNotStarted, kExited, kKilled, kTimedOut };
    End end = End::kNotStarted;
    int code = 0;        // Exited: the exit code. Killed: the signal. NotStarted: errno.
    std::string output;  // standard output and standard error together, at most 64 KiB
};

/// Runs a program without input to its end, or kills it at the deadline. Descriptors of this process but the standard
/// ones are not inherited.
/// @param arguments  without the program's own name.
ChildResult RunChild(const std::string& program, const std::vector<std::string>& arguments,
                     std::chrono::milliseconds deadline);

}  // namespace qxpctl
