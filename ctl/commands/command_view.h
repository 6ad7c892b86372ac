#pragma once

#include <string>

#include "ctl/client/agent_objects.h"
#include "ctl/terminal/console.h"
#include "ctl/terminal/table.h"

namespace qxpctl {

Color StateColor(CommandState state);

/// The headings and the cells of a list of commands.
Row CommandHeadings();
Row CommandRow(const Command& command);

/// One line about a change of a command, for a pipe: time, ID, state, results, reason; separated by tabs.
std::string CommandLine(const Command& command);

}  // namespace qxpctl
