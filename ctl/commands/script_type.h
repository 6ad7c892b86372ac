#pragma once

#include <string>

#include "ctl/terminal/files.h"
#include "policy/type_handling.h"

namespace qxpctl {

using qxppolicy::HandlingOf;
using qxppolicy::TypeHandling;

/// The type of a script that nobody gave one: "sh" for a script that names sh, bash, dash or ash as its interpreter and
/// for a file named *.sh; "exe" for an ELF program, a script with any other interpreter and a file with the execute
/// permission. Throws BadInput, asking for a type, for anything else.
std::string GuessType(const std::string& path, const ScriptFile& script);

}  // namespace qxpctl
