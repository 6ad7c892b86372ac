#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "ctl/console.h"
#include "ctl/error.h"

namespace qxpctl {

/// What every sub-command takes.
struct CommonOptions {
    std::string socket;
    bool json = false;
};

/// What the command line asks for. A sub-command declares its options on the parser and sets the action that runs once
/// the whole line has been read.
struct Invocation {
    CommonOptions common;
    std::function<ExitCode(const Console&, const CommonOptions&)> action;
};

/// Adds --json, and --socket for a sub-command that talks to the agent.
void AddJsonOption(CLI::App& command, Invocation& invocation);
void AddSocketOption(CLI::App& command, Invocation& invocation);

/// The whole program: reads the line, runs what it asks for, turns every failure into one line and an exit code.
int Run(int argc, const char* const* argv, const Console& console);

}  // namespace qxpctl
