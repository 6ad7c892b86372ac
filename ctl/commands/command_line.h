#pragma once

#include "ctl/terminal/console.h"

namespace qxpctl {

/// The whole program: reads the line, runs what it asks for, turns every failure into one line and an exit code.
int Run(int argc, const char* const* argv, const Console& console);

}  // namespace qxpctl
