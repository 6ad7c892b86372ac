#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "agent/config/installation.h"
#include "agent/config/options.h"

namespace qxpagent {

// Who may change what the agent trusts, and who may reach its socket (docs/decisions/010). What is not there is passed
// over: whoever needs it says so. All but ValidateScriptDirectory throw StartupError, which names the path and the
// command that mends it.

/// Refuses a file or directory that somebody else can change: it belongs to a user other than root and the agent's own,
/// everybody may write it, or a group may that is neither root's nor the agent's own. Where symbolic links lead to it,
/// nobody else may be able to change a link or a part of the way that it leads, but for directories with the sticky
/// bit.
void RequireUnwritableByOthers(const std::filesystem::path& path);

/// Before a plugin is loaded and scripts are run: RequireUnwritableByOthers for bin/ and lib/ and in them this program
/// and the host library, the plugin and its directory, everything under etc/, the configuration files of agent and
/// plugin, and the data directories of agent and plugin with the store's.
void CheckAccess(const Options& options, const Installation& installation, const std::filesystem::path& config_file);

/// A log file must not lead where others say: they must be able to change neither it nor its directory, unless that has
/// the sticky bit. Before the first record.
void CheckLogFile(const Options& options);

/// Makes the socket's directory fit for it. The agent's own data directory is given to the socket's group with mode
/// 0750, and so is data/ above it, in its own mode, where not everybody may pass; without a named group the agent takes
/// both back for its own, as far as they belong to it. Any other directory is left as it is, and refused when others
/// can write it, unless it has the sticky bit as /tmp has, where nobody can take another's files away.
void PrepareSocketDirectory(const Options& options, const Installation& installation);

/// What is wrong with a directory that a policy names for its script, as the end of a sentence; nothing when all is
/// well. It must be one of `allowed` or lie below one, after every symbolic link on the way is followed; and nobody but
/// root and the agent's own user may be able to change any part of the way, from / on: whoever could would put a file
/// of theirs in the place of the script, or lead the script into a file of somebody else's. What is not there yet is
/// made by the plugin, and passes. `base` and what is above it are not looked at.
std::optional<std::string> ValidateScriptDirectory(const std::filesystem::path& directory,
                                                   const std::vector<std::filesystem::path>& allowed,
                                                   const std::filesystem::path& base = {});

}  // namespace qxpagent
