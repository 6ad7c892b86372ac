#pragma once

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "agent/api.h"
#include "agent/http_server.h"
#include "agent/unix_listener.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/agent_test_support.h"

namespace qxpagent {

/// An agent that answers as it is told, and notes what it was asked.
class FakeAgent : public AgentControl {
public:
    SubmitOutcome Submit(std::string document, const Peer& peer) override {
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
    std::optional<bool> RunOnce(const std::string& name, const Peer& peer) override {
        {
            const std::lock_guard lock(mutex_);
            submitter = peer;
        }
        if (name == "stopped.json") {
            return std::nullopt;
        }
        if (name == "slow.json") {
            running.Set();
            EXPECT_TRUE(finish.Wait());
        }
        if (name == "together.json") {
            if (++together == 64) {
                all_together.Set();
            }
            EXPECT_TRUE(finish.Wait());
        }
        return name == "good.json";
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
    Peer submitter;
    std::vector<CommandRecord> commands;
    CommandQuery command_query;
    std::vector<Report> reports;
    ReportQuery report_query;
    std::vector<uint64_t> acknowledged;
    uint64_t acknowledged_up_to = 0;
    AgentStatus status;
    std::string fault;  // what reading the store fails with; empty: it does not
    std::atomic<int> together{0};
    Happening all_together;
    Happening running;
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
    CURLcode transport = CURLE_OK;
    long status = 0;
    std::map<std::string, std::string> headers;
    std::string text;

    std::string Type() const { return Header("Content-Type"); }
    std::string Header(const std::string& name) const {
        const auto found = headers.find(name);
        return found != headers.end() ? found->second : "";
    }
    nlohmann::ordered_json Body() const { return nlohmann::ordered_json::parse(text, nullptr, false); }
    std::string Detail() const { return Type() == "application/problem+json" ? Body().value("detail", "") : ""; }
};

/// The API over a real Unix socket.
class HttpTest : public testing::Test {
protected:
    void Serve(const HttpLimits& limits = {}) {
        listener_ = std::make_unique<UnixListener>(socket_);
        server_ = std::make_unique<HttpServer>(*listener_, api_, limits);
    }

    Reply Request(const std::string& method, const std::string& target, const std::string& body = "",
                  const char* header = nullptr) const {
        Reply reply;
        const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
        const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
            header != nullptr ? curl_slist_append(nullptr, header) : nullptr, curl_slist_free_all);
        const std::string url = "http://agent" + target;
        curl_easy_setopt(curl.get(), CURLOPT_UNIX_SOCKET_PATH, socket_.c_str());
        curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl.get(), CURLOPT_PATH_AS_IS, 1L);
        curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 30L);
        curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, AppendBody);
        curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &reply);
        curl_easy_setopt(curl.get(), CURLOPT_HEADERFUNCTION, NoteHeader);
        curl_easy_setopt(curl.get(), CURLOPT_HEADERDATA, &reply);
        if (method != "GET") {
            curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
            curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.data());
            curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, method.c_str());
        }
        reply.transport = curl_easy_perform(curl.get());
        curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &reply.status);
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

    const TempDir directory_;
    const std::filesystem::path socket_ = directory_.Path() / "agent.sock";
    FakeAgent agent_;
    Api api_{agent_};
    std::unique_ptr<UnixListener> listener_;
    std::unique_ptr<HttpServer> server_;

private:
    static size_t AppendBody(char* data, size_t size, size_t count, void* reply) {
        static_cast<Reply*>(reply)->text.append(data, size * count);
        return size * count;
    }
    static size_t NoteHeader(char* data, size_t size, size_t count, void* reply) {
        const std::string line(data, size * count);
        if (const size_t colon = line.find(": "); colon != std::string::npos) {
            static_cast<Reply*>(reply)->headers[line.substr(0, colon)] =
                line.substr(colon + 2, line.find('\r') - colon - 2);
        }
        return size * count;
    }
};

}  // namespace qxpagent
