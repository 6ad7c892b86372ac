#pragma once

#include <map>
#include <string>
#include <vector>

#include "ctl/client/agent_objects.h"

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

/// What a report's document is.
struct ReportContent {
    enum class Kind { kUnknown, kResults, kRefusal, kInterruption };
    Kind kind = Kind::kUnknown;
    std::string id;
    std::vector<RunResult> runs;  // of kResults
    std::string reason;           // of kInterruption; may be empty
};

/// Reads any document; what it cannot read is kUnknown, or a run that is left out.
ReportContent ReadReportContent(const Json& document);

/// Gathers the results of one policy from its reports, of which there can be several: scripts that end at different
/// times are reported separately.
class ResultCollector {
public:
    ResultCollector(std::string policy_id, std::vector<std::string> script_ids);

    /// Takes one report. Returns the results that are new, in the report's order; the pointers live as long as the
    /// collector. A report whose cursor was taken before, documents of other policies, scripts that the policy does not
    /// hold and results that were reported before are passed over.
    std::vector<const RunResult*> Add(const Report& report);

    /// The cursors of the reports that were understood, in the order in which they came.
    const std::vector<uint64_t>& Cursors() const { return cursors_; }

    /// True when the plugin has refused the whole policy.
    bool Refused() const { return refused_; }
    /// True when the agent has said that the rest of the results will never come.
    bool Interrupted() const { return interrupted_; }
    const std::string& InterruptionReason() const { return reason_; }
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
    const std::vector<std::string> script_ids_;
    std::map<std::string, RunResult> results_;
    std::vector<uint64_t> cursors_;
    uint64_t last_cursor_ = 0;
    bool refused_ = false;
    bool interrupted_ = false;
    std::string reason_;
};

}  // namespace qxpctl
