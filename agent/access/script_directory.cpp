#include "agent/access/script_directory.h"

#include <algorithm>

#include "agent/access/access.h"
#include "agent/access/way.h"

namespace qxpagent {

namespace {

namespace fs = std::filesystem;

std::string ValidatePart(const fs::path& part, const struct stat& status, bool /*is_last*/) {
    const bool is_link = status.st_mode == 0;
    if (!is_link && !S_ISDIR(status.st_mode)) {
        return "leads to " + part.string() + ", which is no directory";
    }
    if (!CanBeChangedByOthers(status)) {
        return {};
    }
    return is_link ? "leads through the link " + part.string() + ", which belongs to another user"
                   : "leads through " + part.string() + ", which others can change";
}

}  // namespace

std::optional<std::string> ValidateScriptDirectory(const fs::path& directory, const std::vector<fs::path>& allowed,
                                                   const fs::path& base) {
    const WayEnd way = FollowWay(directory, base, ValidatePart);
    if (!way.fault.empty()) {
        return way.fault;
    }
    const bool is_allowed = std::any_of(allowed.begin(), allowed.end(), [&](const fs::path& each) {
        const WayEnd root = FollowWay(each, base, ValidatePart);
        return root.fault.empty() && IsAtOrBelow(way.place, root.place);
    });
    if (!is_allowed) {
        return "lies in none of the agent's script-directories";
    }
    return std::nullopt;
}

}  // namespace qxpagent
