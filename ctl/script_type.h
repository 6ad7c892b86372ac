#pragma once

#include <string>

#include "ctl/files.h"

namespace qxpctl {

/// What the plugin does with a script of a type, compared without regard to case.
enum class TypeHandling {
    Shell,       // "sh": run by bash
    Program,     // "exe": run as it is
    NeverRun,    // "zip" and unknown types: accepted, and then nothing happens
    Unsupported  // "bat", "vbs": dropped
};

TypeHandling HandlingOf(const std::string& type);

/// The type of a script that nobody gave one: "sh" for a script that names sh, bash, dash or ash as its interpreter and
/// for a file named *.sh; "exe" for an ELF program, a script with any other interpreter and a file with the execute
/// permission. Throws BadInput, asking for a type, for anything else.
std::string GuessType(const std::string& path, const ScriptFile& script);

}  // namespace qxpctl
