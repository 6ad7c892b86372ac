#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "agent/config/options.h"

namespace qxpagent {

/// The agent's configuration file: an INI file with the one section [qxpagent], whose keys are the settings.
///
/// Comments are whole lines that begin with ';' or '#', and what follows a ';' after white space. White space around
/// keys and values does not count. What is longer than a line may be goes on the command line.
inline constexpr size_t kMostConfigLineBytes = 196;

/// Sets what the file says in `options`, with relative paths taken from `directory`. A file that is not there says
/// nothing, and is a mistake when it is `required`. Returns every mistake as "FILE:LINE: TEXT", or "FILE: TEXT" for one
/// of the file as a whole, by line; values without a mistake are set all the same.
std::vector<std::string> ReadConfigFile(const std::filesystem::path& file, bool required,
                                        const std::filesystem::path& directory, Options& options);

}  // namespace qxpagent
