#include "agent/access/access.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <optional>
#include <string_view>
#include <system_error>

#include "base/errno_text.h"
#include "base/names.h"
#include "base/startup_error.h"
#include "qxhost/log.h"

namespace qxpagent {

namespace {

namespace fs = std::filesystem;

constexpr int kMostLinks = 40;  // on one way, as in the kernel

// Says what is wrong with a part of the way, empty when nothing is. A link is shown with mode 0, since its mode says
// nothing: what it says lies with its owner and with its directory. `is_last`: nothing comes after it.
using ValidatePart = std::string (*)(const fs::path& part, const struct stat& status, bool is_last);

/// Where a path leads, and why it must not be followed.
struct WayEnd {
    fs::path place;     // without links; as far as there is anything
    std::string fault;  // empty: none
};

bool IsAtOrBelow(const fs::path& place, const fs::path& directory) {
    return std::mismatch(directory.begin(), directory.end(), place.begin(), place.end()).first == directory.end();
}

/// Follows an absolute path from / on, as the kernel does, and has each part examined but `base` and what is above it.
/// What is not there is passed over.
class Way {
public:
    Way(const fs::path& path, const fs::path& base, ValidatePart validate)
        : base_(base), validate_(validate), ahead_(path.begin(), path.end()) {}

    WayEnd Follow() {
        std::string fault;
        while (fault.empty() && !ahead_.empty()) {
            const fs::path name = ahead_.front();
            ahead_.pop_front();
            if (name == "..") {
                fault = Enter(place_.parent_path());
            } else if (!name.empty() && name != ".") {
                fault = Enter(name.is_absolute() ? fs::path("/") : place_ / name);
            }
        }
        return {place_, fault};
    }

private:
    std::string Enter(const fs::path& next) {
        struct stat status {};
        if (lstat(next.c_str(), &status) != 0) {
            place_ = next;  // below what is not there, nothing is
            return errno == ENOENT || errno == ENOTDIR ? "" : "cannot be examined: " + qxpbase::ErrnoText(errno);
        }
        if (S_ISLNK(status.st_mode)) {
            return FollowLink(next, status);
        }
        place_ = next;
        return IsAtOrBelow(base_, next) ? "" : validate_(next, status, ahead_.empty());
    }

    std::string FollowLink(const fs::path& link, struct stat status) {
        std::error_code error;
        const fs::path target = fs::read_symlink(link, error);
        if (error || ++links_ > kMostLinks) {
            return fmt::format("leads through the link {}, which cannot be followed", link.string());
        }
        ahead_.insert(ahead_.begin(), target.begin(), target.end());
        status.st_mode = 0;
        return validate_(link, status, false);
    }

    const fs::path& base_;
    const ValidatePart validate_;
    std::deque<fs::path> ahead_;
    fs::path place_;
    int links_ = 0;
};

std::optional<struct stat> Examine(const fs::path& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) {
        return status;
    }
    if (errno != ENOENT && errno != ENOTDIR) {
        throw qxpbase::StartupError(
            fmt::format("The access to {} cannot be examined: {}.", path.c_str(), qxpbase::ErrnoText(errno)));
    }
    return std::nullopt;
}

// The command that takes from others what they must not have; empty when they have nothing. Others are any user but
// root and the agent's own, and any group but root's and the agent's own.
std::string Mend(const struct stat& status, const fs::path& path) {
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        const bool is_link = status.st_mode == 0;
        return fmt::format("chown {}{} {}", is_link ? "-h " : "", qxpbase::UserName(geteuid()), path.string());
    }
    const bool is_trusted_group = status.st_gid == 0 || status.st_gid == getegid();
    const bool by_all = (status.st_mode & S_IWOTH) != 0;
    const bool by_group = (status.st_mode & S_IWGRP) != 0 && !is_trusted_group;
    if (!by_all && !by_group) {
        return {};
    }
    return fmt::format("chmod {}{}-w {}", by_group ? "g" : "", by_all ? "o" : "", path.string());
}

// Whether somebody else can put another thing in the place of a part of a way. Where it ends, others could add to it;
// further up, the sticky bit of a directory such as /tmp keeps them from what is not theirs.
std::string ValidateTrusted(const fs::path& part, const struct stat& status, bool is_last) {
    struct stat relevant = status;
    if (!is_last && S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0) {
        relevant.st_mode &= ~static_cast<mode_t>(S_IWGRP | S_IWOTH);
    }
    const std::string mend = Mend(relevant, part);
    return mend.empty() ? "" : "can be changed by others, who could so run anything as this agent: " + mend;
}

// For a script's directory the sticky bit is no excuse: the plugin makes what is missing on the way, and would find
// what another user has made before.
std::string ValidateForScripts(const fs::path& part, const struct stat& status, bool /*is_last*/) {
    const bool is_link = status.st_mode == 0;
    if (!is_link && !S_ISDIR(status.st_mode)) {
        return fmt::format("leads to {}, which is no directory", part.string());
    }
    if (Mend(status, part).empty()) {
        return {};
    }
    return is_link ? fmt::format("leads through the link {}, which belongs to another user", part.string())
                   : fmt::format("leads through {}, which others can change", part.string());
}

// All below a directory, also where links lead.
void AddTree(std::vector<fs::path>& paths, const fs::path& directory, int most_links = 8) {
    paths.push_back(directory);
    std::error_code error;
    const auto skip = fs::directory_options::skip_permission_denied;
    for (fs::recursive_directory_iterator entry(directory, skip, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code unknown;
        if (most_links > 0 && entry->is_symlink(unknown) && entry->is_directory(unknown)) {
            AddTree(paths, entry->path(), most_links - 1);
        } else {
            paths.push_back(entry->path());
        }
    }
}

void GiveToGroup(const fs::path& directory, const struct stat& status, gid_t group, mode_t mode) {
    const bool is_given = status.st_gid == group;
    const bool is_open = (status.st_mode & 07777) == mode;
    if ((!is_given && chown(directory.c_str(), static_cast<uid_t>(-1), group) != 0) ||
        (!(is_given && is_open) && chmod(directory.c_str(), mode) != 0)) {
        throw qxpbase::StartupError(
            fmt::format("The directory {} cannot be given to the socket's group: {}. Start the agent as root, or name "
                        "a group of its user.",
                        directory.c_str(), qxpbase::ErrnoText(errno)));
    }
}

// Others may have entries of their own there, as in /tmp, but cannot take away or replace ours.
void RequireEntriesSafe(const fs::path& directory) {
    const auto status = Examine(directory);
    if (status.has_value() && (status->st_mode & S_ISVTX) == 0) {
        RequireUnwritableByOthers(directory);
    }
}

fs::path HostLibrary() {
    Dl_info information{};
    return dladdr(reinterpret_cast<const void*>(&LogPrintC), &information) != 0 ? information.dli_fname : "";
}

}  // namespace

void RequireUnwritableByOthers(const fs::path& path) {
    const fs::path whole = fs::absolute(path);
    const std::string fault = Way(whole, whole.parent_path(), ValidateTrusted).Follow().fault;
    if (!fault.empty()) {
        throw qxpbase::StartupError(fmt::format("{} {}", path.string(), fault));
    }
}

void CheckAccess(const Options& options, const Installation& installation, const fs::path& config_file) {
    const fs::path root = installation.bin.parent_path();
    const fs::path plugin_data = options.plugin.parent_path().parent_path() / "data" / "qxpmaint";
    std::vector<fs::path> paths = {root,
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
                                   plugin_data / "result",
                                   options.store.parent_path(),
                                   options.store,
                                   options.store.string() + "-wal",
                                   options.store.string() + "-shm"};
    if (const fs::path file = PluginConfigurationFile(options.init_param); !file.empty()) {
        paths.push_back(fs::absolute(file).parent_path());
        paths.push_back(fs::absolute(file));
    }
    AddTree(paths, root / "etc");
    for (const fs::path& path : paths) {
        if (!path.empty()) {
            RequireUnwritableByOthers(path);
        }
    }
}

std::optional<std::string> ValidateScriptDirectory(const fs::path& directory, const std::vector<fs::path>& allowed,
                                                   const fs::path& base) {
    const WayEnd way = Way(directory, base, ValidateForScripts).Follow();
    if (!way.fault.empty()) {
        return way.fault;
    }
    const bool is_allowed = std::any_of(allowed.begin(), allowed.end(), [&](const fs::path& each) {
        const WayEnd root = Way(each, base, ValidateForScripts).Follow();
        return root.fault.empty() && IsAtOrBelow(way.place, root.place);
    });
    if (!is_allowed) {
        return "lies in none of the agent's script-directories";
    }
    return std::nullopt;
}

void CheckLogFile(const Options& options) {
    const fs::path& file = options.log;
    if (file.is_absolute()) {
        RequireEntriesSafe(file.parent_path());
        RequireUnwritableByOthers(file);
    }
}

void PrepareSocketDirectory(const Options& options, const Installation& installation) {
    const fs::path directory = options.socket.parent_path();
    const auto status = Examine(directory);
    if (!status.has_value()) {
        return;
    }
    std::error_code error;
    if (!fs::equivalent(directory, installation.agent_data, error)) {
        return RequireEntriesSafe(directory);
    }
    const gid_t group = options.socket_group.empty() ? getegid() : qxpbase::FindGroup(options.socket_group);
    GiveToGroup(directory, *status, group, 0750);
    const fs::path data = installation.agent_data.parent_path();
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
