#include "ctl/client/socket_access.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "base/names.h"

namespace qxpctl {

namespace {

// The first directory on the way to a path that this user cannot enter; the path itself when there is none.
std::string Obstacle(const std::string& path) {
    std::filesystem::path way;
    for (const std::filesystem::path& part : std::filesystem::absolute(path).parent_path()) {
        way /= part;
        if (access(way.c_str(), X_OK) != 0) {
            return way.string();
        }
    }
    return path;
}

}  // namespace

std::string WhoMayUse(const std::string& socket_path) {
    const std::string obstacle = Obstacle(socket_path);
    const bool directory = obstacle != socket_path;
    const mode_t needed = directory ? S_IXGRP : S_IRGRP | S_IWGRP;
    struct stat status {};
    if (stat(obstacle.c_str(), &status) != 0) {
        return "try again as the user of the agent, which is root as a rule";
    }
    const std::string owner = qxpbase::UserName(status.st_uid);
    if ((status.st_mode & needed) != needed || status.st_gid == 0) {
        return (directory ? "the directory " + obstacle : "it") + " is for the user " + owner +
               " alone: try again as " + owner + ", or have socket-group set in the agent's configuration";
    }
    return (directory ? "the directory " + obstacle : "it") + " is for the user " + owner + " and the group " +
           qxpbase::GroupName(status.st_gid) + ": join that group, or try again as " + owner;
}

}  // namespace qxpctl
