#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "policy/rules.h"
#include "qxhost/json.h"

namespace qxppolicy {

/// A policy's text, read once and as the plugin reads it: by the same reader, the first of equal keys, each value up to
/// its first NUL. One thread at a time.
class PolicyDocument {
public:
    using Node = void*;  // opaque; lives as long as the document

    explicit PolicyDocument(const std::string& text);

    /// False when the plugin cannot read the text as JSON; there are then no members.
    bool IsReadable() const { return readable_; }
    /// A member of a script, or of the whole when it is null; nothing when there is none.
    std::optional<std::string> Member(const char* key, Node script = nullptr) const;
    /// The scripts in their order.
    const std::vector<Node>& Scripts() const { return scripts_; }
    /// Why there is no list of scripts.
    const Fault& ScriptsFault() const { return scripts_fault_; }

    /// Says what is wrong with a directory for scripts on this machine, as the end of a sentence.
    using DirectoryRule = std::function<Fault(const std::string& directory)>;

    /// The admission check: looks for what the document could do harm with before any signature is looked at. Its texts
    /// become file names, parts of a shell's command line, and parts of reports. Scripts that the plugin would drop are
    /// looked at too.
    ///
    ///   the whole     UTF-8 text without NUL: one JSON object of at most 512 levels
    ///   "ID"          a string, by ValidateId
    ///   "Command"     without '"', '\' and control characters
    ///   "scriptinfo"  at most kMaxScripts scripts
    ///   "scriptid"    UTF-8 text; a report would name another one
    ///   "scriptpath"  by ValidateScriptDirectory, and by `directory_rule` if there is one and the path is not empty
    ///   "scripttype"  by ValidateType
    ///
    /// @return what is wrong in one sentence that names the member and the script; nothing when it may pass.
    Fault ValidateForAdmission(const DirectoryRule& directory_rule = nullptr) const;

private:
    Fault ValidateHead() const;
    Fault ValidateScript(Node script, const DirectoryRule& directory_rule) const;
    void ReadScripts();

    qxtools::CPJsonParse json_;
    bool readable_ = false;
    Fault text_fault_;
    std::vector<Node> scripts_;
    Fault scripts_fault_;
};

}  // namespace qxppolicy
