#include "ctl/client/socket_access.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <vector>

namespace qxpctl {

namespace {

constexpr size_t kMaxEntryBytes = 65536;

// The first directory on the way to a path that this user cannot enter; the path itself when there is none.
std::string Obstacle(const std::string& path) {
    std::filesystem::path way;
    for (const std::filesystem::path& part : std::filesystem::absolute(path).parent_path()) {
        way /= part;
        if (access(way.c_str(), X_OK) != 0)
            return way.string();
    }
    return path;
}

}  // namespace

std::string GroupName(unsigned int gid) {
    std::vector<char> buffer(kMaxEntryBytes);
    group entry{};
    group* found = nullptr;
    if (getgrgid_r(gid, &entry, buffer.data(), buffer.size(), &found) == 0 && found)
        return found->gr_name;
    return std::to_string(gid);
}

std::string UserName(unsigned int uid) {
    std::vector<char> buffer(kMaxEntryBytes);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found)
        return found->pw_name;
    return std::to_string(uid);
}

std::string WhoMayUse(const std::string& socket_path) {
    const std::string obstacle = Obstacle(socket_path);
    const bool directory = obstacle != socket_path;
    const mode_t needed = directory ? S_IXGRP : S_IRGRP | S_IWGRP;
    struct stat status {};
    if (stat(obstacle.c_str(), &status) != 0)
        return "try again as the user of the agent, which is root as a rule";
    const std::string owner = UserName(status.st_uid);
    if ((status.st_mode & needed) != needed || status.st_gid == 0)
        return (directory ? "the directory " + obstacle : "it") + " is for the user " + owner +
               " alone: try again as " + owner + ", or have socket-group set in the agent's configuration";
    return (directory ? "the directory " + obstacle : "it") + " is for the user " + owner + " and the group " +
           GroupName(status.st_gid) + ": join that group, or try again as " + owner;
}

}  // namespace qxpctl
