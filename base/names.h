#pragma once

#include <sys/types.h>

#include <string>

namespace qxpbase {

/// The name of a user or a group, or the number where it has none. Any thread.
std::string UserName(uid_t user);
std::string GroupName(gid_t group);

/// The number of a group that is given by its name or its number. Throws StartupError when there is none. Any thread.
gid_t FindGroup(const std::string& group);

}  // namespace qxpbase
