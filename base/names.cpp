#include "base/names.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <vector>

#include "base/startup_error.h"
#include "base/whole_number.h"

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

gid_t FindGroup(const std::string& group) {
    // The largest number means "no group" to the kernel.
    const std::optional<uint64_t> number = WholeNumber(group);
    if (number.has_value() && *number < UINT32_MAX) {
        return static_cast<gid_t>(*number);
    }
    std::vector<char> buffer(4096);
    struct group entry {};
    if (!Find(group.c_str(), getgrnam_r, buffer, entry)) {
        throw StartupError("There is no group \"" + group + "\": create it (groupadd --system " + group +
                           "), or name another with --socket-group.");
    }
    return entry.gr_gid;
}

}  // namespace qxpbase
