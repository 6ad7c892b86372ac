#pragma once

#include <string>
#include <vector>

#include "policy/trusted_keys.h"
#include "qxhost/json.h"

namespace qxppolicy {

enum class Verdict {
    kAccepted,  // runs
    kNotRun,    // accepted, but nothing of it would run
    kCutShort,  // accepted, but only a part of it would run
    kDropped,
};

struct ScriptVerdict {
    std::string id;    // as in the document; may be empty
    std::string type;  // likewise
    Verdict verdict = Verdict::kDropped;
    std::string reason;  // in plain words; empty when accepted
    /// True when the plugin starts it, be it as an empty file, and so reports a result of it.
    bool reported = false;
};

struct PolicyVerdict {
    /// False when the plugin cannot read the text as JSON; nothing else is then set.
    bool readable = false;
    std::string id;
    std::string command;
    /// Why the policy is refused as a whole, whatever its scripts.
    std::vector<std::string> faults;
    /// In document order; empty when the document cannot be read down to its scripts.
    std::vector<ScriptVerdict> scripts;

    /// True when nothing is refused and every script would be accepted and run.
    bool Good() const;
};

/// What the plugin would make of a command document. Read with the plugin's own JSON reader, and checked in the
/// plugin's own order, so that the two cannot disagree.
PolicyVerdict CheckPolicy(const std::string& document, const TrustedKeys& keys);
/// The same for a document that has been read.
PolicyVerdict CheckPolicy(const qxtools::CPJsonParse& document, const TrustedKeys& keys);

}  // namespace qxppolicy
