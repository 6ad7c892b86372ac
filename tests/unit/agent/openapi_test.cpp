#include <gmock/gmock.h>

#include <fstream>
#include <map>
#include <set>

#include "tests/unit/agent/http_fixture.h"

namespace qxpagent {
namespace {

using Operations = std::map<std::string, std::set<std::string>>;  // "GET /path" and its query parameters

Operations OfTheCode() {
    Operations operations;
    for (const Api::Route& route : Api::Routes()) {
        auto& parameters = operations[std::string(route.method) + " " + std::string(route.path)];
        parameters.insert(route.parameters.begin(), route.parameters.end());
    }
    return operations;
}

// The document keeps to a form that is read line by line: paths at two spaces, methods at four, one parameter a line.
Operations OfTheDocument() {
    Operations operations;
    std::ifstream document(QXPAGENT_OPENAPI);
    bool in_paths = false;
    std::string path;
    std::string operation;
    for (std::string line; std::getline(document, line);) {
        if (!line.empty() && line[0] != ' ') {
            in_paths = line == "paths:";
        } else if (in_paths && line.starts_with("  /")) {
            path = line.substr(2, line.rfind(':') - 2);
        } else if (in_paths && line.starts_with("    ") && line[4] != ' ') {
            operation = line.substr(4, line.find(':') - 4);
            std::transform(operation.begin(), operation.end(), operation.begin(), ::toupper);
            operation += " " + path;
            operations[operation];
        } else if (in_paths && line.find("in: query") != std::string::npos) {
            const size_t name = line.find("name: ") + 6;
            operations[operation].insert(line.substr(name, line.find(',', name) - name));
        }
    }
    return operations;
}

TEST(OpenApiTest, DocumentAndRoutesAreOfOneMind) {
    ASSERT_GT(OfTheCode().size(), 10U);
    EXPECT_EQ(OfTheCode(), OfTheDocument());
}

// The members that the document requires of a schema, from the first such line behind its name.
std::string RequiredMembers(const std::string& schema) {
    const std::string document = ReadFile(QXPAGENT_OPENAPI);
    const size_t list = document.find("required: [", document.find("\n    " + schema + ":\n")) + 11;
    return document.substr(list, document.find(']', list) - list);
}

std::string Members(const nlohmann::ordered_json& object) {
    std::string members;
    for (const auto& [name, value] : object.items()) {
        members += (members.empty() ? "" : ", ") + name;
    }
    return members;
}

TEST_F(HttpTest, AnswersHaveTheMembersThatTheDocumentPromises) {
    Serve();
    agent_.commands.emplace_back();
    agent_.commands[0].id = "c";
    Report report;
    report.source = ReportSource::kFile;
    report.text = "{}";
    agent_.AddReport(report);
    const auto shown = Get("/v1/commands/c").Body();
    EXPECT_EQ(RequiredMembers("Command"), Members(shown["command"]));
    EXPECT_EQ(RequiredMembers("Report"), Members(shown["reports"][0]));
    EXPECT_EQ(RequiredMembers("Result"), Members(Get("/v1/results").Body()["results"][0]));
    EXPECT_EQ(RequiredMembers("Status"), Members(Get("/v1/status").Body()));
    EXPECT_EQ(RequiredMembers("Problem"), Members(Get("/none").Body()));
}

}  // namespace
}  // namespace qxpagent
