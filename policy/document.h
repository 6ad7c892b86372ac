#pragma once

#include <functional>
#include <string>

#include "qxhost/json.h"

namespace qxppolicy {

/// What is wrong with a directory for scripts on this machine, as the end of a sentence; empty when nothing is.
using DirectoryRule = std::function<std::string(const std::string& directory)>;

/// Reads a command document, and looks for what it could do harm with before any signature is looked at: its texts
/// become file names, parts of a shell's command line, and parts of reports. Read as the plugin reads them: by the same
/// reader, the first of equal keys, each value up to its first NUL, scripts that it would drop included.
///
///   the whole     UTF-8 text without NUL: one JSON object of at most 512 levels
///   "ID"          a string, by ValidateId
///   "Command"     without '"', '\' and control characters
///   "scriptinfo"  at most kMaxScripts scripts
///   "scriptid"    UTF-8 text; a report would name another one
///   "scriptpath"  by ValidateScriptDirectory, and by `directory_rule` if there is one and the path is not empty
///   "scripttype"  sh, exe, bat, vbs or zip, without regard to case
///
/// @return what is wrong in one sentence that names the member and the script; empty when the document may pass. Then
/// `document` holds it.
std::string ValidateForAdmission(const std::string& text, qxtools::CPJsonParse& document,
                                 const DirectoryRule& directory_rule = nullptr);

}  // namespace qxppolicy
