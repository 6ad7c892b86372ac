#include "agent/access/access.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <system_error>

#include "agent/access/way.h"
#include "agent/config/init_param.h"
#include "base/errno_text.h"
#include "base/names.h"
#include "base/startup_error.h"
#include "qxhost/log.h"

namespace qxpagent {

namespace {

std::optional<struct stat> Examine(const std::filesystem::path& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) {
        return status;
    }
    const int error = errno;
    if (error != ENOENT && error != ENOTDIR) {
        throw qxpbase::StartupError("The access to " + path.string() +
                                    " cannot be examined: " + qxpbase::ErrnoText(error) + ".");
    }
    return std::nullopt;
}

bool IsTrustedGroup(gid_t group) {
    return group == 0 || group == getegid();
}

// The command that takes from others what they must not have; empty when they have nothing.
std::string Mend(const struct stat& status, const std::filesystem::path& path) {
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        const bool is_link = status.st_mode == 0;
        return (is_link ? "chown -h " : "chown ") + qxpbase::UserName(geteuid()) + " " + path.string();
    }
    const bool by_all = (status.st_mode & S_IWOTH) != 0;
    const bool by_group = (status.st_mode & S_IWGRP) != 0 && !IsTrustedGroup(status.st_gid);
    if (!by_all && !by_group) {
        return {};
    }
    return std::string("chmod ") + (by_group ? "g" : "") + (by_all ? "o" : "") + "-w " + path.string();
}

// Whether somebody else can put another thing in the place of a part of a way. Where it ends, others could add to it;
// further up, the sticky bit of a directory such as /tmp keeps them from what is not theirs.
std::string ValidatePart(const std::filesystem::path& part, const struct stat& status, bool is_last) {
    struct stat relevant = status;
    if (!is_last && S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0) {
        relevant.st_mode &= ~static_cast<mode_t>(S_IWGRP | S_IWOTH);
    }
    const std::string mend = Mend(relevant, part);
    return mend.empty() ? "" : "can be changed by others, who could so run anything as this agent: " + mend;
}

// All below a directory, also where links lead.
void AddTree(std::vector<std::filesystem::path>& paths, const std::filesystem::path& directory, int most_links = 8) {
    paths.push_back(directory);
    std::error_code error;
    const auto skip = std::filesystem::directory_options::skip_permission_denied;
    for (std::filesystem::recursive_directory_iterator entry(directory, skip, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code unknown;
        if (most_links > 0 && entry->is_symlink(unknown) && entry->is_directory(unknown)) {
            AddTree(paths, entry->path(), most_links - 1);
        } else {
            paths.push_back(entry->path());
        }
    }
}

void GiveToGroup(const std::filesystem::path& directory, const struct stat& status, gid_t group, mode_t mode) {
    const bool is_given = status.st_gid == group;
    const bool is_open = (status.st_mode & 07777) == mode;
    if ((!is_given && chown(directory.c_str(), static_cast<uid_t>(-1), group) != 0) ||
        (!(is_given && is_open) && chmod(directory.c_str(), mode) != 0)) {
        const int error = errno;
        throw qxpbase::StartupError("The directory " + directory.string() +
                                    " cannot be given to the socket's group: " + qxpbase::ErrnoText(error) +
                                    ". Start the agent as root, or name a group of its user.");
    }
}

// Others may have entries of their own there, as in /tmp, but cannot take away or replace ours.
void RequireEntriesSafe(const std::filesystem::path& directory) {
    const auto status = Examine(directory);
    if (status.has_value() && (status->st_mode & S_ISVTX) == 0) {
        RequireUnwritableByOthers(directory);
    }
}

std::filesystem::path HostLibrary() {
    Dl_info information{};
    return dladdr(reinterpret_cast<const void*>(&LogPrintC), &information) != 0 ? information.dli_fname : "";
}

}  // namespace

bool CanBeChangedByOthers(const struct stat& status) {
    return !Mend(status, {}).empty();
}

void RequireUnwritableByOthers(const std::filesystem::path& path) {
    const std::filesystem::path whole = std::filesystem::absolute(path);
    const WayEnd way = FollowWay(whole, whole.parent_path(), ValidatePart);
    if (!way.fault.empty()) {
        throw qxpbase::StartupError(path.string() + " " + way.fault);
    }
}

std::vector<std::filesystem::path> TrustedPaths(const Options& options, const Installation& installation,
                                                const std::filesystem::path& config_file) {
    const std::filesystem::path root = installation.bin.parent_path();
    const std::filesystem::path plugin_data = options.plugin.parent_path().parent_path() / "data" / "qxpmaint";
    std::vector<std::filesystem::path> paths = {root,
                                                installation.bin,
                                                installation.bin / "qxpagent",
                                                root / "lib",
                                                HostLibrary(),
                                                options.plugin.parent_path(),
                                                options.plugin,
                                                config_file,
                                                installation.agent_data.parent_path(),
                                                installation.agent_data,
                                                plugin_data,
                                                plugin_data / "policyfile",
                                                plugin_data / "policyprocess",
                                                plugin_data / "result"};
    const std::filesystem::path plugin_configuration = PluginConfigurationFile(options.init_param);
    if (!plugin_configuration.empty()) {
        paths.push_back(std::filesystem::absolute(plugin_configuration).parent_path());
        paths.push_back(std::filesystem::absolute(plugin_configuration));
    }
    paths.push_back(options.store.parent_path());
    for (const char* const part : {"", "-wal", "-shm"}) {
        paths.emplace_back(options.store.string() + part);
    }
    AddTree(paths, root / "etc");
    return paths;
}

void CheckAccess(const Options& options, const Installation& installation, const std::filesystem::path& config_file) {
    for (const std::filesystem::path& path : TrustedPaths(options, installation, config_file)) {
        if (!path.empty()) {
            RequireUnwritableByOthers(path);
        }
    }
}

void CheckLogFile(const Options& options) {
    const std::filesystem::path& file = options.log;
    if (file.is_absolute()) {
        RequireEntriesSafe(file.parent_path());
        RequireUnwritableByOthers(file);
    }
}

void PrepareSocketDirectory(const Options& options, const Installation& installation) {
    const std::filesystem::path directory = options.socket.parent_path();
    const auto status = Examine(directory);
    if (!status.has_value()) {
        return;
    }
    std::error_code error;
    if (!std::filesystem::equivalent(directory, installation.agent_data, error)) {
        return RequireEntriesSafe(directory);
    }
    const gid_t group = options.socket_group.empty() ? getegid() : qxpbase::FindGroup(options.socket_group);
    GiveToGroup(directory, *status, group, 0750);
    const std::filesystem::path data = installation.agent_data.parent_path();
    const auto above = Examine(data);
    if (!above.has_value() || (above->st_mode & S_IXOTH) != 0) {
        return;
    }
    if (!options.socket_group.empty()) {
        GiveToGroup(data, *above, group, (above->st_mode & 07755) | S_IXGRP);
    } else if (above->st_uid == geteuid()) {
        // An earlier socket-group must not keep its way to the results of scripts.
        GiveToGroup(data, *above, group, above->st_mode & 07777);
    }
}

}  // namespace qxpagent
