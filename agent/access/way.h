#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <string>

namespace qxpagent {

/// Where a path leads, and why it must not be followed.
struct WayEnd {
    std::filesystem::path place;  // without links; as far as there is anything
    std::string fault;            // empty: none
};

/// Says what is wrong with a part of the way, empty when nothing is. A link is shown with mode 0, since its mode says
/// nothing: what it says lies with its owner and with its directory. `is_last`: nothing comes after it.
using ExaminePart =
    std::function<std::string(const std::filesystem::path& part, const struct stat& status, bool is_last)>;

/// Follows an absolute path from / on, as the kernel does, and has each part examined but `base` and what is above it.
/// What is not there is passed over.
WayEnd FollowWay(const std::filesystem::path& path, const std::filesystem::path& base, const ExaminePart& examine);

/// Whether a path is a directory's or lies below it, by their names alone.
bool IsAtOrBelow(const std::filesystem::path& place, const std::filesystem::path& directory);

}  // namespace qxpagent
