#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/input_file.h"

namespace qxpctl {

/// What an operator may say about a script. An attribute that is not set leaves the default; one that is set to an
/// empty text, where that is allowed, takes a general default back.
struct ScriptAttributes {
    std::optional<std::string> type;
    std::optional<std::string> id;
    std::optional<std::string> check;
    std::optional<std::string> path;
    std::optional<uint32_t> timeout;  // seconds
    std::optional<uint32_t> action;
};

/// A script as it is named on the command line.
struct ScriptArgument {
    std::string file;
    ScriptAttributes attributes;
};

/// Reads FILE[,key=value...]. In the file name and the values "\," is a comma and "\\" a backslash. Throws BadInput for
/// an unknown or repeated key and for a value that SetAttribute refuses.
ScriptArgument ParseScriptArgument(const std::string& argument);

/// Sets one attribute by its name, by the rules of policy/rules.h. Throws BadInput that names the value and the rule.
void SetAttribute(ScriptAttributes& attributes, const std::string& key, const std::string& value);

/// Fills what is not set from the general defaults.
ScriptAttributes WithDefaults(ScriptAttributes attributes, const ScriptAttributes& defaults);

/// The type of a script that nobody gave one: "sh" for a script that names sh, bash, dash or ash as its interpreter and
/// for a file named *.sh; "exe" for an ELF program, a script with any other interpreter and a file with the execute
/// permission. Throws BadInput, asking for a type, for anything else.
std::string GuessType(const std::string& path, const qxpbase::ScriptFile& script);

}  // namespace qxpctl
