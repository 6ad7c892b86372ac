#include "agent/config/installation.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "base/errno_text.h"
#include "base/startup_error.h"

namespace qxpagent {

namespace {

void CreateDirectory(const std::filesystem::path& directory, mode_t mode) {
    if (mkdir(directory.c_str(), mode) == 0) {
        return;
    }
    const int error = errno;
    struct stat status {};
    if (error != EEXIST || stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        throw qxpbase::StartupError("The directory " + directory.string() + " cannot be created: " +
                                    qxpbase::ErrnoText(error) + ". Create it, or start the agent as a user who may.");
    }
}

}  // namespace

Installation FindInstallation() {
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        throw qxpbase::StartupError("/proc/self/exe cannot be read (" + error.message() + "): mount /proc.");
    }
    Installation installation;
    installation.bin = program.parent_path();
    const std::filesystem::path root = installation.bin.parent_path();
    installation.agent_data = root / "data" / "qxpagent";
    installation.socket = installation.agent_data / "agent.sock";
    installation.plugin = root / "lib" / "libqxpmaint.so";
    installation.store = installation.agent_data / "agent.db";
    return installation;
}

void EnterInstallation(const Installation& installation) {
    CreateDirectory(installation.agent_data.parent_path(), 0755);
    CreateDirectory(installation.agent_data, 0750);
    if (chdir(installation.bin.c_str()) != 0) {
        const int error = errno;
        throw qxpbase::StartupError("The working directory cannot be changed to " + installation.bin.string() + ": " +
                                    qxpbase::ErrnoText(error) + ".");
    }
}

}  // namespace qxpagent
