#include "agent/access/way.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <system_error>

#include "base/errno_text.h"

namespace qxpagent {

namespace {

namespace fs = std::filesystem;

constexpr int kMostLinks = 40;  // as in the kernel

class Way {
public:
    Way(const fs::path& path, const fs::path& base, const ExaminePart& examine)
        : base_(base), examine_(examine), ahead_(path.begin(), path.end()) {}

    WayEnd Walk() {
        std::string fault;
        while (fault.empty() && !ahead_.empty()) {
            const fs::path name = ahead_.front();
            ahead_.pop_front();
            fault = name.is_absolute() ? Enter("/") : Step(name);
        }
        return {place_, fault};
    }

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
            return errno == ENOENT || errno == ENOTDIR ? "" : "cannot be examined: " + qxpbase::ErrnoText(errno);
        }
        if (S_ISLNK(status.st_mode)) {
            return FollowLink(next, status);
        }
        place_ = next;
        return IsAtOrBelow(base_, next) ? "" : examine_(next, status, ahead_.empty());
    }

    std::string FollowLink(const fs::path& link, struct stat status) {
        std::error_code error;
        const fs::path target = fs::read_symlink(link, error);
        if (error || ++links_ > kMostLinks) {
            return "leads through the link " + link.string() + ", which cannot be followed";
        }
        ahead_.insert(ahead_.begin(), target.begin(), target.end());
        status.st_mode = 0;
        return examine_(link, status, false);
    }

    const fs::path& base_;
    const ExaminePart& examine_;
    std::deque<fs::path> ahead_;
    fs::path place_;
    int links_ = 0;
};

}  // namespace

WayEnd FollowWay(const fs::path& path, const fs::path& base, const ExaminePart& examine) {
    return Way(path, base, examine).Walk();
}

bool IsAtOrBelow(const fs::path& place, const fs::path& directory) {
    const auto [rest, unused] = std::mismatch(directory.begin(), directory.end(), place.begin(), place.end());
    return rest == directory.end();
}

}  // namespace qxpagent
