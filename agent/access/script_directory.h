#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace qxpagent {

/// What is wrong with a directory that a policy names for its script, as the end of a sentence; empty when nothing is.
/// It must be one of `allowed` or lie below one, after every symbolic link on the way is followed; and nobody but root
/// and the agent's own user may be able to change any part of the way, from / on: whoever could would put a file of
/// theirs in the place of the script, or lead the script into a file of somebody else's. What is not there yet is made
/// by the plugin, and passes. `base` and what is above it are not looked at.
std::string ValidateScriptDirectory(const std::filesystem::path& directory,
                                    const std::vector<std::filesystem::path>& allowed,
                                    const std::filesystem::path& base = {});

}  // namespace qxpagent
