#pragma once

#include "ctl/command_line.h"

// The sub-commands, one source file each. A new one is declared here and entered in the table of command_line.cpp.

namespace qxpctl {

void AddKeygenCommand(CLI::App& program, Invocation& invocation);
void AddPackCommand(CLI::App& program, Invocation& invocation);
void AddVerifyCommand(CLI::App& program, Invocation& invocation);
void AddSubmitCommand(CLI::App& program, Invocation& invocation);
void AddRunCommand(CLI::App& program, Invocation& invocation);

}  // namespace qxpctl
