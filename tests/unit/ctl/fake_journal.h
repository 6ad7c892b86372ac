#pragma once

#include <deque>
#include <utility>

#include "tests/unit/ctl/support.h"

namespace qxpctl {

/// The documents that each poll for reports brings.
using Pages = std::vector<std::vector<Json>>;

/// How a FakeJournal tells of its command.
struct Telling {
    std::string state = "delivered";  // once the last page has been brought
    Json reason = nullptr;            // of that state
    int status = 202;                 // to POST /v1/commands: 202 taken, 200 known
    std::string source = "plugin";
};

/// The answers of an agent that takes one command and then brings its reports, a page a poll.
class FakeJournal {
public:
    explicit FakeJournal(Pages pages = {}, Telling telling = {})
        : pages_(pages.begin(), pages.end()), telling_(std::move(telling)) {}

    std::optional<std::string> operator()(const FakeAgent::Request& request) {
        if (request.target == "/v1/status") {
            return FakeAgent::Answer(200, Status().dump());
        }
        if (request.target == "/v1/health") {
            return FakeAgent::Answer(200, R"({"status":"ok"})");
        }
        if (request.target == "/v1/reports/acknowledge") {
            return Acknowledge(Json::parse(request.body));
        }
        if (request.method == "POST") {
            id_ = Json::parse(request.body)["ID"];
            return FakeAgent::Answer(telling_.status, Command().dump());
        }
        if (request.target.starts_with("/v1/commands?")) {
            return FakeAgent::Answer(200, Json{{"commands", {Command()}}, {"sequence", sequence_}}.dump());
        }
        if (request.target.starts_with("/v1/commands/")) {
            return FakeAgent::Answer(200, Json{{"command", Command()}, {"reports", Json::array()}}.dump());
        }
        return NextPage();
    }

    static Json CommandObject(const std::string& id, const std::string& state, uint64_t sequence) {
        Json command = Json::parse(R"({"command": "RunScriptNormal", "reason": null, "scripts": 2, "expected": 2,
            "unreported": ["b"], "submitter": {"uid": 0, "user": "root"}, "finished": null,
            "received": "2026-11-21T09:21:30.123+08:00"})");
        command.update({{"id", id}, {"state", state}, {"sequence", sequence}});
        return command;
    }
    static Json StatusObject(uint64_t cursor, uint64_t sequence) {
        Json status = Json::parse(R"({"version": "1", "plugin_status": 2, "plugin_version": "1", "uptime_seconds": 60,
            "commands": {"reported": 3}, "reports": {"stored": 7, "pending": 0, "oldest_pending": null},
            "store": {"bytes": 1, "fault": null}})");
        status["last_sequence"] = sequence;
        status["reports"]["last_cursor"] = cursor;
        return status;
    }

    /// All that has been acknowledged.
    std::vector<uint64_t> acknowledged;

private:
    Json Status() const { return StatusObject(cursor_, sequence_); }
    Json Command() const {
        Json command = CommandObject(id_, pages_.empty() ? telling_.state : "delivered", sequence_);
        if (pages_.empty()) {
            command["reason"] = telling_.reason;
        }
        return command;
    }
    std::string NextPage() {
        Json reports = Json::array();
        if (!pages_.empty()) {
            for (const Json& document : pages_.front()) {
                reports.push_back(
                    {{"cursor", ++cursor_}, {"id", id_}, {"source", telling_.source}, {"document", document}});
            }
            pages_.pop_front();
            ++sequence_;
        }
        return FakeAgent::Answer(200, Json{{"reports", reports}, {"cursor", cursor_}}.dump());
    }
    std::string Acknowledge(const Json& body) {
        for (const Json& cursor : body["cursors"]) {
            acknowledged.push_back(cursor);
        }
        return FakeAgent::Answer(200, Json{{"acknowledged", body["cursors"].size()}}.dump());
    }

    std::deque<std::vector<Json>> pages_;
    const Telling telling_;
    std::string id_;
    uint64_t cursor_ = 7;
    uint64_t sequence_ = 3;
};

inline Json RunEntry(const std::string& script, const std::string& result, const std::string& output,
                     const std::string& end = "2026-11-21 09:21:31") {
    return {{"scriptid", script},
            {"filepath", "/x"},
            {"run_result", result},
            {"run_outdata", output},
            {"run_starttime", "2026-11-21 09:21:30"},
            {"run_runningtime", end.empty() ? "0" : "1"},
            {"run_endtime", end}};
}

inline Json ResultDocument(const std::string& id, const std::vector<Json>& runs) {
    return {{"ID", id},
            {"msg_type", "1"},
            {"data_type", "RunScriptData"},
            {"data", {{"handler_type", "1"}, {"result", runs}}}};
}

inline Json Refusal(const std::string& id) {
    return {{"ID", id}, {"msg_type", "4"}, {"data_type", "RunScriptNormal"}};
}

inline Json Interruption(const std::string& id, const std::string& reason) {
    return {{"ID", id},
            {"msg_type", "5"},
            {"data_type", "CommandInterrupted"},
            {"data", {{"reason", reason}, {"unreported", {"a.sh"}}}}};
}

/// A temporary directory with the socket that the tool asks, and policies to send.
class AgentTest : public testing::Test {
protected:
    AgentTest() { setenv("QXPAGENT_SOCKET", Socket().c_str(), 1); }
    ~AgentTest() override { unsetenv("QXPAGENT_SOCKET"); }

    std::string Socket() const { return directory_ / "agent.sock"; }
    /// The file of a policy "p" that is fit to be sent.
    std::string PolicyFile() const { return directory_.Write("p.json", R"({"ID":"p"})"); }

    /// The arguments that run a script through the whole command.
    std::vector<std::string> RunCommand(std::vector<std::string> more) const {
        if (!std::filesystem::exists(directory_ / "k.key.pem")) {
            EXPECT_EQ(RunTool({"keygen", "--out", directory_ / "k"}).code, 0);
        }
        more.insert(more.begin(), {"run", "--key", directory_ / "k.key.pem"});
        return more;
    }
    /// Runs a sub-command against a fake agent of its own.
    ToolResult Run(const FakeAgent::Handler& handler, const std::vector<std::string>& arguments,
                   int output = MemoryFile()) const {
        const FakeAgent agent(Socket(), handler);
        return RunTool(arguments, output);
    }
    /// An agent that says this of itself, as it is when it is asked.
    static FakeAgent::Handler Saying(const Json& status, const Json& health) {
        return [&](const FakeAgent::Request& request) {
            return request.target == "/v1/health"
                       ? FakeAgent::Answer(health.contains("problems") ? 503 : 200, health.dump())
                       : FakeAgent::Answer(200, status.dump());
        };
    }

    const TempDir directory_;
};

}  // namespace qxpctl
