#pragma once

#include <cstdint>
#include <optional>
#include <string>

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

/// The plugin multiplies the seconds by 1000 in 32 bits: a longer time-out would wrap round to a short one.
inline constexpr uint32_t kMaxTimeoutSeconds = 4294967;
/// The plugin looks for the marker in pieces of output of at most this many bytes.
inline constexpr size_t kMaxCheckBytes = 1023;

/// Reads FILE[,key=value...]. In the file name and the values "\," is a comma and "\\" a backslash. Throws BadInput for
/// an unknown or repeated key and for a value that the checks below refuse.
ScriptArgument ParseScriptArgument(const std::string& argument);

/// Fills what is not set from the general defaults.
ScriptAttributes WithDefaults(ScriptAttributes attributes, const ScriptAttributes& defaults);

/// Each throws BadInput that names the value and the rule. An identifier: 1 to 128 bytes of UTF-8, no '/', quote,
/// backslash or control character, since it becomes a file name and stands unescaped in a refusal.
void CheckId(const std::string& id, const std::string& what);
/// Letters and digits, since the type becomes the extension of a file.
void CheckType(const std::string& type);
/// UTF-8 text on one line, at most kMaxCheckBytes.
void CheckMarker(const std::string& marker);
/// Absolute, without "..", only letters, digits and /._+@=,- since the path reaches a shell.
void CheckScriptDirectory(const std::string& path);
uint32_t ParseTimeout(const std::string& text);
uint32_t ParseAction(const std::string& text);

}  // namespace qxpctl
