#pragma once

#include <string>

namespace qxpbase {

/// What an errno means, in words. Any thread.
std::string ErrnoText(int error);

}  // namespace qxpbase
