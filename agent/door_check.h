#pragma once

#include <cstddef>
#include <string>

#include "qxhost/json.h"

namespace qxpagent {

inline constexpr size_t kMaxIdBytes = 128;

/// Looks for what a command document could do harm with before any signature is looked at: its texts become file names,
/// and parts of a shell's command line. Read as the plugin reads them: the first of equal keys, each value up to its
/// first NUL, scripts that it would drop included. Returns what is wrong in one sentence that names the member and the
/// script; empty when the document may pass.
///
///   "ID"          1 to kMaxIdBytes bytes without '/' and control characters
///   "scriptinfo"  at most 63 scripts
///   "scriptpath"  empty, or absolute, without "..", of letters, digits and /._+@=,- alone
///   "scripttype"  sh, exe, bat, vbs or zip, without regard to case
std::string WhyUnacceptable(const qxtools::CPJsonParse& document);

}  // namespace qxpagent
