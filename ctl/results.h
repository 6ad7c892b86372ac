#pragma once

#include <map>
#include <string>
#include <vector>

#include "ctl/json.h"
#include "ctl/policy.h"

namespace qxpctl {

/// One run as the plugin reports it. All texts come from the agent's machine and are not to be trusted.
struct RunResult {
    std::string script_id;
    bool succeeded = false;
    /// The plugin ended the run at its time-out; it then reports no end time.
    bool timed_out = false;
    std::string seconds;
    std::string start_time;
    std::string end_time;
    std::string file;
    std::string output;
};

/// Gathers the results of one policy from its reports, of which there can be several: scripts that end at different
/// times are reported separately.
class ResultCollector {
public:
    explicit ResultCollector(const Policy& policy);

    /// Takes the document of one report. Returns the results that are new, in the report's order; the pointers live as
    /// long as the collector. Documents of other policies, scripts that the policy does not hold and results that were
    /// reported before are passed over.
    std::vector<const RunResult*> Add(const Json& document);

    /// True when the plugin has refused the whole policy.
    bool Refused() const { return refused_; }
    /// True when every script has its result.
    bool Complete() const { return results_.size() == script_ids_.size(); }
    bool AllSucceeded() const;
    size_t PendingCount() const { return script_ids_.size() - results_.size(); }

    /// In the order of the policy.
    const std::vector<std::string>& ScriptIds() const { return script_ids_; }
    /// Null while there is none.
    const RunResult* Find(const std::string& script_id) const;

private:
    const std::string policy_id_;
    std::vector<std::string> script_ids_;
    std::map<std::string, RunResult> results_;
    bool refused_ = false;
};

}  // namespace qxpctl
