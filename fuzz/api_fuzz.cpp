// A request to the agent's API from anybody who may use its socket: "METHOD PATH?QUERY", a line feed, the body. The
// agent behind it repeats what it is given, as a hostile script's output would.

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "agent/api/api.h"

namespace {

using namespace qxpagent;

class Echo : public AgentControl {
public:
    SubmitOutcome Submit(std::string document, const qxpbase::Peer& peer) override {
        CommandRecord command;
        command.id = command.reason = std::move(document);
        command.submitter = peer;
        return {SubmitStatus::kTaken, "", std::move(command)};
    }
    std::optional<CommandRecord> FindCommand(const std::string& id) override {
        CommandRecord command;
        command.id = id;
        command.unreported = {text};
        return command;
    }
    std::vector<CommandRecord> ListCommands(const CommandQuery& query) override {
        return {FindCommand(std::to_string(query.after)).value()};
    }
    std::vector<Report> ListReports(const ReportQuery& query) override {
        return {FindReport(query.after).value(), FindReport(query.limit).value()};
    }
    std::optional<Report> FindReport(uint64_t cursor) override {
        Report report;
        report.cursor = cursor;
        report.id = report.file = report.text = text;
        return report;
    }
    uint64_t Acknowledge(const std::vector<uint64_t>& cursors) override { return cursors.size(); }
    uint64_t AcknowledgeUpTo(uint64_t cursor) override { return cursor; }
    std::optional<bool> RunOnce(const std::string& name, const qxpbase::Peer& /*peer*/) override {
        if (name.empty() || name.find('/') != std::string::npos)
            abort();
        return true;
    }
    AgentStatus Status() override {
        AgentStatus status;
        status.store.fault = text;
        status.version = text;
        return status;
    }

    std::string text;
};

std::string Joined(const qxphttp::Body& body) {
    std::string text;
    for (const std::string& piece : body.Pieces())
        text += piece;
    return text;
}

qxphttp::Request ReadRequest(std::string text) {
    const auto cut = [&text](char end) {
        const size_t at = std::min(text.find(end), text.size());
        std::string head = text.substr(0, at);
        text.erase(0, at + 1);
        return head;
    };
    qxphttp::Request request;
    std::string line = cut('\n');
    std::swap(line, text);
    request.body = std::move(line);
    request.method = cut(' ');
    request.path = cut('?');
    while (!text.empty()) {
        std::string name = cut('=');
        request.query.emplace_back(std::move(name), cut('&'));
    }
    return request;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    static Echo echo;
    static Api api(echo);
    setenv("QXHOST_LOG_LEVEL", "off", 1);
    qxphttp::Request request = ReadRequest(std::string(reinterpret_cast<const char*>(data), size));
    echo.text = request.body;
    const bool is_file = request.path.starts_with("/v1/results/");
    const qxphttp::Response response = api.Handle(std::move(request));
    // Whatever it is made of, an answer can be read.
    const bool is_json = response.content_type.find("json") != std::string::npos;
    if (response.status < 200 || response.status > 599 ||
        (is_json && !(is_file && response.status == 200) && !nlohmann::json::accept(Joined(response.body))))
        abort();
    return 0;
}
