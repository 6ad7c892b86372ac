#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// What the texts of a policy may be, for all who make, send or accept one. Each Validate… returns what is wrong as the
// end of a sentence, as in "is empty"; nothing when all is well.

namespace qxppolicy {

using Fault = std::optional<std::string>;

inline constexpr size_t kMaxIdBytes = 128;
/// Leaves room for the script's name below PATH_MAX.
inline constexpr size_t kMaxScriptDirectoryBytes = 3072;
/// The plugin admits a policy while its scripts and the runs in progress are fewer than 64.
inline constexpr size_t kMaxScripts = 63;
/// The agent accepts no larger document.
inline constexpr size_t kMaxPolicyBytes = 104857600;
/// The plugin multiplies the seconds by 1000 in 32 bits: a longer time-out would wrap round to a short one.
inline constexpr uint32_t kMaxTimeoutSeconds = 4294967;
/// The plugin looks for the check marker in pieces of output of at most this many bytes.
inline constexpr size_t kMaxMarkerBytes = 1023;

/// The identifier of a policy or a script. It becomes part of file names, of log lines, and of reports that the plugin
/// does not escape: 1 to kMaxIdBytes bytes of UTF-8 without '/', '"', '\' and control or direction characters.
Fault ValidateId(std::string_view id);

/// The name of a run-once policy's file, which is the ID of its results: an ID, and neither "." nor "..".
Fault ValidateRunOnceName(std::string_view name);

/// The directory that a script is written to: empty for the plugin's own; else absolute, without a part "..", and of
/// letters, digits and /._+@=,- alone, since it becomes part of a shell's command line.
Fault ValidateScriptDirectory(std::string_view path);

/// The type of a script, which becomes the extension of its file: one that is known, without regard to case.
Fault ValidateType(const std::string& type);

/// The text that output must contain for a run to have succeeded: UTF-8 on one line, at most kMaxMarkerBytes.
Fault ValidateMarker(std::string_view marker);

/// A time-out in whole seconds, 0 (none) to kMaxTimeoutSeconds, digits only; nothing for any other text.
std::optional<uint32_t> ParseTimeout(std::string_view text);

/// What the plugin does with a script of a type.
enum class TypeHandling {
    kShell,       // "sh": run by bash
    kProgram,     // "exe": run as it is
    kNeverRun,    // "zip" and unknown types: accepted, and then nothing happens
    kUnsupported  // "bat", "vbs": dropped
};

TypeHandling HandlingOf(const std::string& type);

}  // namespace qxppolicy
