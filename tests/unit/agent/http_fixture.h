#pragma once

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>

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
        std::unique_lock lock(mutex_);
        report_query = query;
        if (query.wait.count() > 0) {
            waiting.Set();
            changed_.wait_for(lock, query.wait, [this] { return ended_ || !reports.empty(); });
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

    /// Adds a report and wakes who waits for one.
    void AddReport(Report report) {
        const std::lock_guard lock(mutex_);
        report.cursor = reports.size() + 1;
        reports.push_back(std::move(report));
        changed_.notify_all();
    }
    void EndWaits() {
        const std::lock_guard lock(mutex_);
        ended_ = true;
        changed_.notify_all();
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

private:
    void ThrowFault() const {
        if (!fault.empty()) {
            throw StoreError(fault);
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    bool ended_ = false;
};

struct Reply {
    std::shared_ptr<CURL> curl{curl_easy_init(), curl_easy_cleanup};
    long status = 0;
    std::string text;

    std::string Type() const { return Header("Content-Type"); }
    std::string Header(const std::string& name) const {
        curl_header* header = nullptr;
        return curl_easy_header(curl.get(), name.c_str(), 0, CURLH_HEADER, -1, &header) == CURLHE_OK ? header->value
                                                                                                     : "";
    }
    nlohmann::ordered_json Body() const { return nlohmann::ordered_json::parse(text, nullptr, false); }
    std::string Detail() const { return Type() == "application/problem+json" ? Body().value("detail", "") : ""; }
};

/// The API over a real Unix socket.
class HttpTest : public testing::Test {
protected:
    void Serve(const qxphttp::Limits& limits = {}) {
        listener_ = std::make_unique<qxphttp::UnixListener>(socket_, "agent");
        server_ = std::make_unique<qxphttp::Server>(
            *listener_, api_, [](qxphttp::Severity, const std::string&) {}, limits);
    }

    Reply Request(const std::string& method, const std::string& target, const std::string& body = "",
                  const char* header = nullptr) const {
        Reply reply;
        CURL* const curl = reply.curl.get();
        const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
            header != nullptr ? curl_slist_append(nullptr, header) : nullptr, curl_slist_free_all);
        curl_easy_setopt(curl, CURLOPT_UNIX_SOCKET_PATH, socket_.c_str());
        curl_easy_setopt(curl, CURLOPT_URL, ("http://agent" + target).c_str());
        curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_FORBID_REUSE, 1L);
        curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, AppendBody);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
        if (method != "GET") {
            curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
            curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
            curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
        }
        curl_easy_perform(curl);
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply.status);
        return reply;
    }
    Reply Get(const std::string& target) const { return Request("GET", target); }
    Reply Post(const std::string& target, const std::string& body) const { return Request("POST", target, body); }
    std::future<Reply> GetLater(const std::string& target) const {
        return std::async(std::launch::async, [this, target] { return Get(target); });
    }

    int Connect() const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socket_.string().copy(address.sun_path, sizeof(address.sun_path) - 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
        return fd;
    }

    // What a connection of its own answers to these bytes, at most so many.
    std::string Raw(const std::string& request, size_t most = 100000) const {
        const int fd = Connect();
        if (!request.empty()) {  // a refused connection may be shut by now
            EXPECT_EQ(static_cast<ssize_t>(request.size()), send(fd, request.data(), request.size(), MSG_NOSIGNAL));
        }
        std::string answer(most, '\0');
        answer.resize(static_cast<size_t>(std::max<ssize_t>(0, recv(fd, answer.data(), most, MSG_WAITALL))));
        close(fd);
        return answer;
    }

    const TempDir directory_;
    const std::filesystem::path socket_ = directory_.Path() / "agent.sock";
    FakeAgent agent_;
    Api api_{agent_};
    std::unique_ptr<qxphttp::UnixListener> listener_;
    std::unique_ptr<qxphttp::Server> server_;

private:
    static size_t AppendBody(char* data, size_t size, size_t count, void* reply) {
        static_cast<Reply*>(reply)->text.append(data, size * count);
        return size * count;
    }
};

}  // namespace qxpagent
