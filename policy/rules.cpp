#include "policy/rules.h"

#include "policy/text.h"

namespace qxppolicy {

std::string ValidateId(std::string_view id) {
    if (id.empty()) {
        return "is empty";
    }
    if (id.size() > kMaxIdBytes) {
        return "is longer than " + std::to_string(kMaxIdBytes) + " bytes";
    }
    if (!IsValidUtf8(id)) {
        return "is not UTF-8 text";
    }
    if (id.find_first_of("/\"\\") != std::string_view::npos || HasControlCharacter(id)) {
        return "holds '/', '\"', '\\' or a control character";
    }
    return {};
}

std::string ValidateScriptDirectory(std::string_view path) {
    constexpr std::string_view kAllowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._+@=,-";
    if (path.empty()) {
        return {};
    }
    if (path.front() != '/') {
        return "is not an absolute path";
    }
    if ((std::string(path) + "/").find("/../") != std::string::npos) {
        return "holds '..'";
    }
    if (path.find_first_not_of(kAllowed) != std::string_view::npos) {
        return "holds other characters than letters, digits and /._+@=,- (it becomes part of a shell command)";
    }
    if (path.size() > kMaxScriptDirectoryBytes) {
        return "is longer than " + std::to_string(kMaxScriptDirectoryBytes) + " bytes";
    }
    return {};
}

}  // namespace qxppolicy
