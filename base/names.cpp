#include "base/names.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <vector>

namespace qxpbase {

namespace {

constexpr size_t kMostBytes = size_t{1} << 24;  // a group with very many members

// Looks an entry up with a buffer that grows until the entry fits.
template <typename Entry, typename Id, typename LookUp>
bool Find(Id id, LookUp look_up, std::vector<char>& buffer, Entry& entry) {
    Entry* found = nullptr;
    while (look_up(id, &entry, buffer.data(), buffer.size(), &found) == ERANGE && buffer.size() < kMostBytes) {
        buffer.resize(buffer.size() * 2);
    }
    return found != nullptr;
}

}  // namespace

std::string UserName(uid_t user) {
    std::vector<char> buffer(1024);
    passwd entry{};
    return Find(user, getpwuid_r, buffer, entry) ? entry.pw_name : std::to_string(user);
}

std::string GroupName(gid_t number) {
    std::vector<char> buffer(4096);
    struct group entry {};
    return Find(number, getgrgid_r, buffer, entry) ? entry.gr_name : std::to_string(number);
}

}  // namespace qxpbase
