#pragma once

#include <cstddef>
#include <string_view>

// What the plugin's commands are called, and how much of them it takes.

namespace qxppolicy {

inline constexpr const char* kRunNormal = "RunScriptNormal";
inline constexpr const char* kRunFile = "RunScriptFile";
inline constexpr const char* kRunProcess = "RunScriptProcess";

/// True for the three commands that run scripts. Exact, with regard to case.
inline bool IsRunCommand(std::string_view command) {
    return command == kRunNormal || command == kRunFile || command == kRunProcess;
}

/// The plugin admits a policy while its scripts and the runs in progress are fewer than 64.
inline constexpr size_t kMaxScripts = 63;

}  // namespace qxppolicy
