#pragma once

#include "ctl/terminal/command_setup.h"

// The sub-commands, one source file each. A new one is declared here and entered in the table of command_line.cpp.

namespace qxpctl {

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

}  // namespace qxpctl
