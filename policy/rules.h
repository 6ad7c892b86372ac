#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// What the texts of a policy may be, for all who make, send or take one. Each returns what is wrong as the end of a
// sentence, as in "is empty"; empty when nothing is.

namespace qxppolicy {

inline constexpr size_t kMaxIdBytes = 128;
/// Leaves room for the script's name below PATH_MAX.
inline constexpr size_t kMaxScriptDirectoryBytes = 3072;

/// The identifier of a policy or a script. It becomes part of file names, of log lines, and of reports that the plugin
/// does not escape: 1 to kMaxIdBytes bytes of UTF-8 without '/', '"', '\' and control or direction characters.
std::string ValidateId(std::string_view id);

/// The directory that a script is written to: empty for the plugin's own; else absolute, without "..", and of letters,
/// digits and /._+@=,- alone, since it becomes part of a shell's command line.
std::string ValidateScriptDirectory(std::string_view path);

}  // namespace qxppolicy
