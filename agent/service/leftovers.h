#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "agent/store/store.h"
#include "policy/trusted_keys.h"

namespace qxpagent {

/// How many files were removed.
struct Tidied {
    uint64_t scripts = 0;
    uint64_t results = 0;
    uint64_t policies = 0;
};

/// Where things are that are left behind.
struct Places {
    std::filesystem::path scripts;   // the plugin's script files
    std::filesystem::path results;   // its result files
    std::filesystem::path policies;  // the policy files that it scans
    std::filesystem::path aside;     // policy files that were moved away
};

/// True for the names that the plugin gives its script files: 14 digits, 4 or more lower-case hexadecimal digits, and
/// for most types an extension.
bool IsScriptFileName(const std::string& name);

/// True for the names that the plugin gives its result files: anything, a number, ".json".
bool IsResultFileName(const std::string& name);

/// Removes what was left behind and nobody needs: the plugin's script files, its result files that are in the store
/// already, and policy files that were moved aside, all only when last changed before `before`. Of the plugin's own
/// files only regular ones of its naming are touched, and no link is followed. Throws StoreError.
Tidied RemoveLeftovers(Store& store, const Places& places, WallTime before);

/// Moves policy files that the plugin cannot take out of the directory that it scans, when there are many: with each
/// scan it reads them all again, and logs each whole. Which those are is forecast as for commands. Files that were
/// changed within the last two seconds are left alone. The place aside is made if need be, for root alone; a file of
/// the same name there is replaced. Ends after about three seconds; the next call goes on. Returns how many were moved.
uint64_t MoveUnusablePolicies(const Places& places, const qxppolicy::TrustedKeys& keys);
/// So many lie there without being looked at.
inline constexpr size_t kFewPolicies = 100;

}  // namespace qxpagent
