#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace qxpagent {

/// What is wrong with a directory that a policy names for its script, as the end of a sentence; nothing when all is
/// well. It must be one of `allowed` or lie below one, after every symbolic link on the way is followed; and nobody but
/// root and the agent's own user may be able to change any part of the way, from / on: whoever could would replace the
/// script with a file of their own, or have the script written over somebody else's. What does not exist yet passes:
/// the plugin makes it. `base` and what is above it are not looked at.
std::optional<std::string> ValidateScriptDirectory(const std::filesystem::path& directory,
                                                   const std::vector<std::filesystem::path>& allowed,
                                                   const std::filesystem::path& base = {});

}  // namespace qxpagent
