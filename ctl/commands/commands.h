#pragma once

#include <memory>
#include <string>

#include "ctl/terminal/command_setup.h"

namespace qxpctl {

/// The whole program: reads the line, runs what it asks for, turns every failure into one line and an exit code.
int Run(int argc, const char* const* argv, const Console& console);

// The sub-commands, one source file each. A new one is declared here and entered in the table of command_line.cpp.

void AddKeygenCommand(const CommandSetup& program);
void AddPackCommand(const CommandSetup& program);
void AddVerifyCommand(const CommandSetup& program);
void AddSubmitCommand(const CommandSetup& program);
void AddRunCommand(const CommandSetup& program);
void AddStatusCommand(const CommandSetup& program);
void AddWatchCommand(const CommandSetup& program);
void AddShowCommand(const CommandSetup& program);
void AddResultsCommand(const CommandSetup& program);
void AddDropCommand(const CommandSetup& program);
void AddRunOnceCommand(const CommandSetup& program);
void AddDoctorCommand(const CommandSetup& program);

/// A sub-command while it is declared, and what its options are read into.
template <typename Options>
struct SubCommand {
    CommandSetup command;
    std::shared_ptr<Options> options;
};

/// Begins a sub-command; its options follow in the order in which help lists them.
/// @param run  called once the line has been read.
template <typename Options>
SubCommand<Options> AddSubCommand(const CommandSetup& program, const char* name, const char* description,
                                  const std::string& footer,
                                  ExitCode (*run)(const Options&, const Console&, const CommonOptions&)) {
    const auto options = std::make_shared<Options>();
    const CommandSetup command = program.SubCommand(name, description);
    command.Footer(footer);
    command.Action(
        [options, run](const Console& console, const CommonOptions& common) { return run(*options, console, common); });
    return {command, options};
}

/// What each sub-command that talks to the agent takes, after its own options.
inline void AddAgentOptions(const CommandSetup& command) {
    command.SocketOption();
    command.JsonOption();
}

}  // namespace qxpctl
