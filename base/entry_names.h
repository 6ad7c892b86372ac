#pragma once

#include <string>
#include <vector>

namespace qxpbase {

/// The names in an open directory, "." and ".." too, in no order; as far as they can be read.
std::vector<std::string> EntryNames(int directory);

}  // namespace qxpbase
