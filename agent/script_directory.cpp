#include "agent/script_directory.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <optional>
#include <system_error>

#include "agent/access.h"

namespace qxpagent {

namespace {

namespace fs = std::filesystem;

constexpr int kMostLinks = 40;  // as in the kernel

bool IsAtOrBelow(const fs::path& place, const fs::path& directory) {
    const auto [rest, unused] = std::mismatch(directory.begin(), directory.end(), place.begin(), place.end());
    return rest == directory.end();
}

// Follows a path as the kernel does, and looks at who may change each part of it.
class Way {
public:
    Way(const fs::path& path, const fs::path& base) : base_(base), ahead_(path.begin(), path.end()) {}

    // What is wrong, as WhyBadScriptDirectory; empty when Place() is where the path leads.
    std::string Walk() {
        std::string fault;
        while (fault.empty() && !ahead_.empty()) {
            const fs::path name = ahead_.front();
            ahead_.pop_front();
            fault = name.is_absolute() ? Enter("/") : Step(name);
        }
        return fault;
    }
    const fs::path& Place() const { return place_; }

private:
    std::string Step(const fs::path& name) {
        if (name.empty() || name == ".") {
            return {};
        }
        return Enter(name == ".." ? place_.parent_path() : place_ / name);
    }

    std::string Enter(const fs::path& next) {
        struct stat status {};
        if (lstat(next.c_str(), &status) != 0) {
            place_ = next;  // below what is not there, nothing is
            return errno == ENOENT ? "" : "cannot be examined: " + std::generic_category().message(errno);
        }
        if (S_ISLNK(status.st_mode)) {
            return Follow(next, status);
        }
        place_ = next;
        if (!S_ISDIR(status.st_mode)) {
            return "leads to " + next.string() + ", which is no directory";
        }
        return !IsAtOrBelow(base_, next) && CanBeChangedByOthers(status)
                   ? "leads through " + next.string() + ", which others can change"
                   : "";
    }

    // The mode of a link says nothing; what it says lies with its owner and with its directory, which was looked at.
    std::string Follow(const fs::path& link, struct stat status) {
        std::error_code error;
        const fs::path target = fs::read_symlink(link, error);
        status.st_mode = 0;
        if (error || ++links_ > kMostLinks || CanBeChangedByOthers(status)) {
            return "leads through the link " + link.string() + ", which cannot be followed or belongs to another user";
        }
        ahead_.insert(ahead_.begin(), target.begin(), target.end());
        return {};
    }

    const fs::path& base_;
    std::deque<fs::path> ahead_;
    fs::path place_;
    int links_ = 0;
};

}  // namespace

std::string WhyBadScriptDirectory(const fs::path& directory, const std::vector<fs::path>& allowed,
                                  const fs::path& base) {
    Way way(directory, base);
    if (std::string fault = way.Walk(); !fault.empty()) {
        return fault;
    }
    const bool is_allowed = std::any_of(allowed.begin(), allowed.end(), [&](const fs::path& each) {
        Way root(each, base);
        return root.Walk().empty() && IsAtOrBelow(way.Place(), root.Place());
    });
    return is_allowed ? "" : "lies in none of the agent's script-directories";
}

}  // namespace qxpagent
