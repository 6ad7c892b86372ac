#include "agent/config/installation.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
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
        throw qxpbase::StartupError(
            fmt::format("The directory {} cannot be created: {}. Create it, or start the agent as a user who may.",
                        directory.string(), qxpbase::ErrnoText(error)));
    }
}

}  // namespace

Installation FindInstallation() {
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        throw qxpbase::StartupError(fmt::format("/proc/self/exe cannot be read ({}): mount /proc.", error.message()));
    }
    const std::filesystem::path bin = program.parent_path();
    return {bin, bin.parent_path() / "data" / "qxpagent"};
}

void EnterInstallation(const Installation& installation) {
    CreateDirectory(installation.agent_data.parent_path(), 0755);
    CreateDirectory(installation.agent_data, 0750);
    if (chdir(installation.bin.c_str()) != 0) {
        throw qxpbase::StartupError(fmt::format("The working directory cannot be changed to {}: {}.",
                                                installation.bin.string(), qxpbase::ErrnoText(errno)));
    }
}

// Read as the plugin does: items are separated by ':', an empty item ends the list, the last conf_path counts.
std::filesystem::path PluginConfigurationFile(std::string_view init_param) {
    if (init_param.empty()) {
        return "../etc/plugins/qxpmaint/qxpmaint.conf";
    }
    constexpr std::string_view kKey = "conf_path=";
    std::string_view file;
    while (!init_param.empty() && !init_param.starts_with(':')) {
        const std::string_view item = init_param.substr(0, init_param.find(':'));
        if (item.starts_with(kKey) && item.size() > kKey.size()) {
            file = item.substr(kKey.size());
        }
        init_param.remove_prefix(std::min(item.size() + 1, init_param.size()));
    }
    return file;
}

}  // namespace qxpagent
