#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

#include "agent/store.h"

namespace qxpagent {

/// How many files were removed.
struct Tidied {
    uint64_t scripts = 0;
    uint64_t results = 0;
};

/// True for the names that the plugin gives its script files: 14 digits, 4 or more lower-case hexadecimal digits, and
/// for most types an extension.
bool IsScriptFileName(const std::string& name);

/// True for the names that the plugin gives its result files: anything, a number, ".json".
bool IsResultFileName(const std::string& name);

/// Removes what the plugin has left behind and nobody needs: script files in its data directory, and result files that
/// are in the store already, both only when last changed before `before`. Only regular files of the plugin's own naming
/// are touched, and no link is followed. Throws StoreError.
Tidied RemoveLeftovers(Store& store, const std::filesystem::path& data_directory,
                       const std::filesystem::path& result_directory, WallTime before);

}  // namespace qxpagent
