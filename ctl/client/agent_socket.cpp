#include "ctl/client/agent_socket.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "base/names.h"
#include "ctl/terminal/error.h"
#include "qxhost/module.h"

namespace qxpctl {

namespace {

namespace fs = std::filesystem;

// The first directory on the way to a path that this user cannot enter; the path itself when there is none.
std::string Obstacle(const std::string& path) {
    fs::path way;
    for (const fs::path& part : fs::absolute(path).parent_path()) {
        way /= part;
        if (access(way.c_str(), X_OK) != 0) {
            return way.string();
        }
    }
    return path;
}

}  // namespace

std::string InstallationRoot() {
    // Any address in this program tells where it lies.
    static const char kHere = 0;
    constexpr unsigned int kMaxPath = 4096;
    std::string directory(kMaxPath + 1, '\0');
    if (!QxGetModuleFilePath(&kHere, directory.data(), kMaxPath)) {
        throw LocalFailure("cannot tell where this program lies; name the agent's socket with --socket");
    }
    return fs::path(directory.c_str()).parent_path().string();
}

std::string SocketOf(const std::string& root) {
    return fs::path(root) / "data/qxpagent/agent.sock";
}

std::string FindSocket(const std::string& option) {
    if (!option.empty()) {
        return option;
    }
    const char* const environment = std::getenv("QXPAGENT_SOCKET");
    return environment != nullptr && *environment != '\0' ? environment : SocketOf(InstallationRoot());
}

std::string WhoMayUse(const std::string& socket_path) {
    const std::string obstacle = Obstacle(socket_path);
    const bool directory = obstacle != socket_path;
    const mode_t needed = directory ? S_IXGRP : S_IRGRP | S_IWGRP;
    struct stat status {};
    if (stat(obstacle.c_str(), &status) != 0) {
        return "try again as the user of the agent, which is root as a rule";
    }
    const std::string owner = qxpbase::UserName(status.st_uid);
    const std::string what = directory ? "the directory " + obstacle : "it";
    if ((status.st_mode & needed) != needed || status.st_gid == 0) {
        return fmt::format(
            "{} is for the user {} alone: try again as {}, or have socket-group set in the agent's configuration", what,
            owner, owner);
    }
    return fmt::format("{} is for the user {} and the group {}: join that group, or try again as {}", what, owner,
                       qxpbase::GroupName(status.st_gid), owner);
}

}  // namespace qxpctl
