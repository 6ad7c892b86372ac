#pragma once

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <future>
#include <nlohmann/json.hpp>

#include "agent/api/api.h"
#include "http/server.h"
#include "http/unix_listener.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/agent/test_support.h"

namespace qxpagent {

/// An agent that answers as it is told, and notes what it was asked.
class FakeAgent : public AgentControl {
public:
    SubmitOutcome Submit(std::string document, const qxpbase::Peer& peer) override {
        submitted = std::move(document);
        submitter = peer;
        return submit_outcome;
    }
    std::optional<CommandRecord> FindCommand(const std::string& id) override {
        ThrowFault();
        const auto found = std::ranges::find(commands, id, &CommandRecord::id);
        return found != commands.end() ? std::optional(*found) : std::nullopt;
    }
    std::vector<CommandRecord> ListCommands(const CommandQuery& query) override {
        ThrowFault();
        command_query = query;
        return commands;
    }
    std::vector<Report> ListReports(const ReportQuery& query) override {
        ThrowFault();
        report_query = query;
        if (query.wait.count() > 0) {
            waiting.Set();
            WaitUntil([this] { return changed.IsSet(); }, query.wait);
        }
        return reports;
    }
    std::optional<Report> FindReport(uint64_t cursor) override {
        const auto found = std::ranges::find(reports, cursor, &Report::cursor);
        return found != reports.end() ? std::optional(*found) : std::nullopt;
    }
    uint64_t Acknowledge(const std::vector<uint64_t>& cursors) override {
        acknowledged = cursors;
        return cursors.size();
    }
    uint64_t AcknowledgeUpTo(uint64_t cursor) override {
        acknowledged_up_to = cursor;
        return 4;
    }
    std::optional<bool> RunOnce(const std::string& name, const qxpbase::Peer& /*peer*/) override {
        if (name == "slow.json") {
            ++running;
            EXPECT_TRUE(finish.Wait());
        }
        return name == "stopped.json" ? std::nullopt : std::optional(name == "good.json");
    }
    AgentStatus Status() override {
        ThrowFault();
        return status;
    }

    /// Adds a report and ends what waits for one.
    void AddReport(Report report) {
        report.cursor = reports.size() + 1;
        reports.push_back(std::move(report));
        changed.Set();
    }

    SubmitOutcome submit_outcome;
    std::string submitted;
    qxpbase::Peer submitter;
    std::vector<CommandRecord> commands;
    CommandQuery command_query;
    std::vector<Report> reports;
    ReportQuery report_query;
    std::vector<uint64_t> acknowledged;
    uint64_t acknowledged_up_to = 0;
    AgentStatus status;
    std::string fault;            // what reading the store fails with; empty: it does not
    std::atomic<int> running{0};  // calls of RunOnce that wait for the finish
    Happening finish;
    Happening waiting;
    Happening changed;  // ends every wait for reports

private:
    void ThrowFault() const {
        if (!fault.empty()) {
            throw StoreError(fault);
        }
    }
};

struct Reply {
    explicit Reply(const std::string& answer) {
        const size_t end = answer.find("\r\n\r\n");
        if (end != std::string::npos) {
            status = std::stol(answer.substr(9));
            head = answer.substr(0, end + 2);
            text = answer.substr(end + 4);
        }
    }
    std::string Type() const { return Header("Content-Type"); }
    std::string Header(const std::string& name) const {
        const size_t at = head.find("\r\n" + name + ": ") + name.size() + 4;
        return head.find("\r\n" + name + ": ") == std::string::npos ? "" : head.substr(at, head.find('\r', at) - at);
    }
    nlohmann::ordered_json Body() const { return nlohmann::ordered_json::parse(text, nullptr, false); }
    std::string Detail() const { return Type() == "application/problem+json" ? Body().value("detail", "") : ""; }

    long status = 0;
    std::string head;
    std::string text;
};

inline void ExpectProblem(const Reply& reply, long status, const std::string& detail) {
    EXPECT_EQ(status, reply.status) << detail << ": " << reply.text;
    EXPECT_THAT(reply.Detail(), testing::HasSubstr(detail));
}

/// The API over a real Unix socket.
class HttpTest : public testing::Test {
protected:
    HttpTest() { Serve(); }

    void Serve(const qxphttp::Limits& limits = {}) { Serve(api_, limits); }

    void Serve(Api& api, const qxphttp::Limits& limits = {}) {
        StopServing();
        listener_ = std::make_unique<qxphttp::UnixListener>(socket_, "agent");
        server_ = std::make_unique<qxphttp::Server>(
            *listener_, api, [](qxphttp::Severity, const std::string&) {}, limits);
    }
    void StopServing() {
        server_.reset();
        listener_.reset();
    }
    Reply Request(const std::string& method, const std::string& target, const std::string& body = "") const {
        const std::string length = method == "GET" ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n";
        return Reply(
            Raw(method + " " + target + " HTTP/1.1\r\nHost: agent\r\nConnection: close\r\n" + length + "\r\n" + body));
    }
    Reply Get(const std::string& target) const { return Request("GET", target); }
    Reply Post(const std::string& target, const std::string& body) const { return Request("POST", target, body); }

    int Connect() const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socket_.string().copy(address.sun_path, sizeof(address.sun_path) - 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
        return fd;
    }

    // What a connection of its own answers to these bytes, at most so many.
    std::string Raw(const std::string& request, size_t most = SIZE_MAX) const {
        const int fd = Connect();
        send(fd, request.data(), request.size(), MSG_NOSIGNAL);  // a refused connection may be shut by now
        std::string answer;
        std::array<char, 65536> buffer{};
        for (ssize_t size = 1; size > 0 && answer.size() < most;) {
            size = recv(fd, buffer.data(), std::min(buffer.size(), most - answer.size()), 0);
            answer.append(buffer.data(), static_cast<size_t>(std::max<ssize_t>(size, 0)));
        }
        close(fd);
        return answer;
    }

    const TempDir directory_;
    const std::filesystem::path socket_ = directory_.Path() / "agent.sock";
    FakeAgent agent_;
    Api api_{agent_};
    std::unique_ptr<qxphttp::UnixListener> listener_;
    std::unique_ptr<qxphttp::Server> server_;
};

}  // namespace qxpagent
