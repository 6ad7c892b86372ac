#include "policy/rules.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "base/whole_number.h"
#include "policy/text.h"
#include "qxhost/cpstring.h"

namespace qxppolicy {

namespace {

using KnownType = std::pair<const char*, TypeHandling>;

constexpr std::array<KnownType, 5> kTypes{{{"sh", TypeHandling::kShell},
                                           {"exe", TypeHandling::kProgram},
                                           {"bat", TypeHandling::kUnsupported},
                                           {"vbs", TypeHandling::kUnsupported},
                                           {"zip", TypeHandling::kNeverRun}}};

// With the plugin's own comparison, so that it is the same for any text. Null for an unknown type.
const KnownType* FindType(const std::string& type) {
    const CPString text(type);
    const auto* const found = std::find_if(
        kTypes.begin(), kTypes.end(), [&text](const KnownType& known) { return text.CompareNoCase(known.first) == 0; });
    return found != kTypes.end() ? found : nullptr;
}

}  // namespace

Fault ValidateId(std::string_view id) {
    if (id.empty()) {
        return "is empty";
    }
    if (id.size() > kMaxIdBytes) {
        return fmt::format("is longer than {} bytes", kMaxIdBytes);
    }
    if (!IsValidUtf8(id)) {
        return "is not UTF-8 text";
    }
    if (id.find_first_of("/\"\\") != std::string_view::npos || HasControlCharacter(id)) {
        return "holds '/', '\"', '\\' or a control character";
    }
    return std::nullopt;
}

Fault ValidateRunOnceName(std::string_view name) {
    return name == "." || name == ".." ? Fault("names a directory") : ValidateId(name);
}

Fault ValidateScriptDirectory(std::string_view path) {
    constexpr std::string_view kAllowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._+@=,-";
    if (path.empty()) {
        return std::nullopt;
    }
    if (path.front() != '/') {
        return "is not an absolute path";
    }
    if (path.ends_with("/..") || path.find("/../") != std::string_view::npos) {
        return "holds '..'";
    }
    if (path.find_first_not_of(kAllowed) != std::string_view::npos) {
        return "holds other characters than letters, digits and /._+@=,- (it becomes part of a shell command)";
    }
    if (path.size() > kMaxScriptDirectoryBytes) {
        return fmt::format("is longer than {} bytes", kMaxScriptDirectoryBytes);
    }
    return std::nullopt;
}

Fault ValidateType(const std::string& type) {
    return FindType(type) == nullptr ? Fault("is none of sh, exe, bat, vbs and zip") : std::nullopt;
}

Fault ValidateMarker(std::string_view marker) {
    if (!IsValidUtf8(marker) || marker.size() > kMaxMarkerBytes ||
        marker.find_first_of(std::string_view("\n\0", 2)) != std::string_view::npos) {
        return fmt::format(
            "is not a line of UTF-8 text of at most {} bytes; it is looked for in one line of the output",
            kMaxMarkerBytes);
    }
    return std::nullopt;
}

std::optional<uint32_t> ParseTimeout(std::string_view text) {
    return qxpbase::ParseNumber(text, kMaxTimeoutSeconds);
}

TypeHandling HandlingOf(const std::string& type) {
    const KnownType* const known = FindType(type);
    return known != nullptr ? known->second : TypeHandling::kNeverRun;
}

}  // namespace qxppolicy
