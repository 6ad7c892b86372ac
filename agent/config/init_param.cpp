#include "agent/config/init_param.h"

#include <algorithm>
#include <string>

namespace qxpagent {

// Items are separated by ':', an empty item ends the list, the last conf_path counts.
std::filesystem::path PluginConfigurationFile(std::string_view init_param) {
    constexpr char kDefault[] = "../etc/plugins/qxpmaint/qxpmaint.conf";
    if (init_param.empty()) {
        return kDefault;
    }
    constexpr std::string_view kKey = "conf_path=";
    std::string file;
    while (!init_param.empty()) {
        const std::string_view item = init_param.substr(0, init_param.find(':'));
        if (item.empty()) {
            break;
        }
        if (item.starts_with(kKey) && item.size() > kKey.size()) {
            file = item.substr(kKey.size());
        }
        init_param.remove_prefix(std::min(item.size() + 1, init_param.size()));
    }
    return file;
}

}  // namespace qxpagent
