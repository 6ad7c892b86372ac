#pragma once

#include <stdexcept>
#include <string>
#include <utility>

#include <fmt/core.h>

namespace qxpctl {

/// What the process ends with. Part of the command-line interface: scripts depend on the numbers.
enum class ExitCode {
    kSuccess = 0,
    /// The answer is no: a run failed or was refused, a script would not be accepted.
    kNegative = 1,
    /// Wrong options, or input that cannot be used; nothing was sent and nothing was written.
    kBadInput = 2,
    /// The agent cannot be reached, or cannot take work now.
    kAgentUnavailable = 3,
    /// Waiting ended before the results were there.
    kWaitTimedOut = 4,
    /// This machine failed: a file or the standard output could not be written.
    kLocalFailure = 5,
    /// Ctrl-C while waiting.
    kInterrupted = 130,
};

/// A failure that ends the program. The text is one line for the operator: what is wrong, and what to do about it.
class Error : public std::runtime_error {
public:
    Error(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}

    ExitCode Code() const { return code_; }

private:
    ExitCode code_;
};

/// A failure of one kind. Takes its text as it is, or as a format with its arguments.
template <ExitCode Exit>
class FailureOf : public Error {
public:
    explicit FailureOf(const std::string& text) : Error(Exit, text) {}
    template <typename... Arguments>
    explicit FailureOf(fmt::format_string<Arguments...> format, Arguments&&... arguments)
        : Error(Exit, fmt::format(format, std::forward<Arguments>(arguments)...)) {}
};

using BadInput = FailureOf<ExitCode::kBadInput>;
using AgentUnavailable = FailureOf<ExitCode::kAgentUnavailable>;
using LocalFailure = FailureOf<ExitCode::kLocalFailure>;

}  // namespace qxpctl
