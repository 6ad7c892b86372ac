#pragma once

#include <string>
#include <vector>

#include "policy/document.h"
#include "policy/trusted_keys.h"

namespace qxppolicy {

enum class Verdict {
    kAccepted,  // runs
    kNotRun,    // accepted, but nothing of it would run
    kCutShort,  // accepted, but only a part of it would run
    kDropped,
};

struct ScriptForecast {
    std::string id;    // as in the document; may be empty
    std::string type;  // likewise
    Verdict verdict = Verdict::kDropped;
    std::string reason;  // in plain words; empty when accepted
    /// True when the plugin starts it, be it as an empty file, and so reports a result of it.
    bool reported = false;
};

struct PolicyForecast {
    std::string id;
    std::string command;
    /// Why the plugin will refuse the policy as a whole, whatever its scripts.
    std::vector<std::string> faults;
    /// In document order; empty when the document cannot be read down to its scripts.
    std::vector<ScriptForecast> scripts;

    /// True when nothing is refused and every script would be accepted and run.
    bool IsGood() const;
};

/// What the plugin would make of a policy. Checked in the plugin's own order and with its own code where that can be
/// shared, so that the two cannot disagree.
PolicyForecast Forecast(const PolicyDocument& document, const TrustedKeys& keys);

}  // namespace qxppolicy
