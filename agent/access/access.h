#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

#include "agent/config/installation.h"
#include "agent/config/options.h"

namespace qxpagent {

// Who may change what the agent trusts, and who may reach its socket. What is not there is passed over: whoever needs
// it says so. All look at what is there and throw StartupError, which names the path and the command that
// mends it.

/// True when somebody else can change a file or directory: it belongs to a user other than root and the agent's own,
/// everybody may write it, or a group may that is neither root's nor the agent's own.
bool CanBeChangedByOthers(const struct stat& status);

/// Refuses a file or directory of which CanBeChangedByOthers is true. Where symbolic links lead to it, nobody else may
/// be able to change a link or a part of the way that it leads, but for directories with the sticky bit.
void RequireUnwritableByOthers(const std::filesystem::path& path);

/// What RequireUnwritableByOthers has to hold for before a plugin is loaded and scripts are run: bin/ and lib/ and in
/// them this program and the host library, the plugin and its directory, everything under etc/, the configuration files
/// of agent and plugin, and the data directories of agent and plugin with the store's.
std::vector<std::filesystem::path> TrustedPaths(const Options& options, const Installation& installation,
                                                const std::filesystem::path& config_file);
void CheckAccess(const Options& options, const Installation& installation, const std::filesystem::path& config_file);

/// A log file must not lead where others say: they must be able to change neither it nor its directory, unless that has
/// the sticky bit. Before the first record.
void CheckLogFile(const Options& options);

/// Makes the socket's directory fit for it. The agent's own data directory is given to the socket's group with mode
/// 0750, and so is data/ above it, in its own mode, where not everybody may pass; without a named group the agent takes
/// both back for its own, as far as they belong to it. Any other directory is left as it is, and refused when others
/// can write it, unless it has the sticky bit as /tmp has, where nobody can take another's files away.
void PrepareSocketDirectory(const Options& options, const Installation& installation);

}  // namespace qxpagent
