#pragma once

#include <string>
#include <vector>

namespace qxpagent {

/// The names in an open directory, "." and ".." too, in no order; as far as they can be read.
std::vector<std::string> EntryNames(int directory);

}  // namespace qxpagent
