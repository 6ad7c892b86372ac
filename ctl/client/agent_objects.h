#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/terminal/json.h"
#include "policy/vocabulary.h"

// What the agent's API answers, read into values. All texts come from the agent's machine and are not to be trusted.
// "document" members keep the answer as it came, for --json.
//
// Each reader throws std::invalid_argument that names what cannot be read when a member that this tool depends on is
// missing or of another type; the others may be missing.

namespace qxpctl {

using qxppolicy::CommandState;
using qxppolicy::IsFinal;
using qxppolicy::kPluginStarted;
using qxppolicy::PluginStateName;
using qxppolicy::StateName;

// A check in the JSON library's move constructor looks as if it could throw.
// NOLINTBEGIN(bugprone-exception-escape)

struct Command {
    std::string id;
    std::string command;
    CommandState state = CommandState::kReceived;
    std::string reason;  // empty when there is none
    uint64_t sequence = 0;
    uint64_t scripts = 0;
    uint64_t expected = 0;                // scripts that are to have a result
    std::vector<std::string> unreported;  // those that have none yet
    std::string submitter;                // user name
    std::string received;
    std::string finished;  // empty while it is not
    Json document;
};

struct Report {
    uint64_t cursor = 0;
    std::string id;
    std::string source;
    std::string file;  // empty but for source "file"
    std::string received;
    bool acknowledged = false;
    uint64_t bytes = 0;
    Json content;  // the plugin's document; null when it is not JSON
    Json document;
};

struct CommandPage {
    std::vector<Command> commands;
    uint64_t sequence = 0;  // where the next page begins
};

struct ReportPage {
    std::vector<Report> reports;
    uint64_t cursor = 0;  // where the next page begins
};

struct CommandDetail {
    Command command;
    std::vector<Report> reports;
    bool has_more = false;  // reports after these
    Json document;
};

struct AgentStatus {
    uint64_t last_cursor = 0;
    uint64_t last_sequence = 0;
    std::string version;
    uint64_t plugin_status = 0;
    std::string plugin_version;
    uint64_t reports_pending = 0;
    std::string oldest_pending;  // empty when there is none
    std::string store_fault;     // empty: none
    std::string policy_directory;
    std::string process_directory;
    Json document;
};

// NOLINTEND(bugprone-exception-escape)

struct Health {
    bool ok = false;
    std::vector<std::string> problems;
};

Command ReadCommand(Json json);
Report ReadReport(Json json);
CommandPage ReadCommandPage(Json json);
ReportPage ReadReportPage(Json json);
CommandDetail ReadCommandDetail(Json json);
AgentStatus ReadStatus(Json json);

}  // namespace qxpctl
