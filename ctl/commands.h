#pragma once

#include "ctl/command_line.h"

// The sub-commands, one source file each. A new one is declared here and entered in the table of command_line.cpp.

namespace qxpctl {

void AddKeygenCommand(CLI::App& program, Invocation& invocation);
void AddPackCommand(CLI::App& program, Invocation& invocation);
void AddVerifyCommand(CLI::App& program, Invocation& invocation);
void AddSubmitCommand(CLI::App& program, Invocation& invocation);
void AddRunCommand(CLI::App& program, Invocation& invocation);
void AddStatusCommand(CLI::App& program, Invocation& invocation);
void AddWatchCommand(CLI::App& program, Invocation& invocation);
void AddShowCommand(CLI::App& program, Invocation& invocation);
void AddResultsCommand(CLI::App& program, Invocation& invocation);
void AddDropCommand(CLI::App& program, Invocation& invocation);
void AddRunOnceCommand(CLI::App& program, Invocation& invocation);
void AddDoctorCommand(CLI::App& program, Invocation& invocation);

}  // namespace qxpctl
