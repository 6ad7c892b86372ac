#include "ctl/commands/ready_policy.h"

#include <list>

#include "ctl/terminal/error.h"
#include "ctl/terminal/files.h"
#include "policy/policy_builder.h"
#include "policy/rules.h"
#include "qxhost/json.h"

namespace qxpctl {

namespace {

using qxtools::CPJsonParse;

std::string Member(const CPJsonParse& json, const char* key) {
    return json.GetValue(json.GetNode(nullptr, key)).c_str();
}

size_t CountScripts(const CPJsonParse& json) {
    void* const param = json.GetNode(nullptr, "param");
    void* const scripts = param ? json.GetNode(param, "scriptinfo") : nullptr;
    std::list<void*> nodes;
    return scripts && json.GetAllNode(scripts, nodes) ? nodes.size() : 0;
}

// The agent's rule for an ID, which becomes part of a file name.
void CheckCommandId(const std::string& name, const std::string& id) {
    if (const std::string fault = qxppolicy::ValidateId(id); !fault.empty()) {
        throw BadInput(name + " has no usable \"ID\": it " + fault + "; pack the policy again with 'qxpctl pack --id'");
    }
}

}  // namespace

ReadyPolicy ReadReadyPolicy(const std::string& path, PolicyRoad road) {
    const std::string name = path == "-" ? "the standard input" : path;
    ReadyPolicy policy;
    policy.document = ReadDocument(path, kMaxPolicyBytes, "policy");
    if (policy.document.find('\0') != std::string::npos) {
        throw BadInput(name + " holds a NUL byte, so it is not a JSON document");
    }
    CPJsonParse json;
    if (!json.LoadBuffer(policy.document.c_str())) {
        throw BadInput(name + " is not a JSON document; make a policy with 'qxpctl pack'");
    }
    policy.id = Member(json, "ID");
    policy.command = Member(json, "Command");
    policy.scripts = CountScripts(json);
    if (road == PolicyRoad::kCommand) {
        CheckCommandId(name, policy.id);
    }
    return policy;
}

}  // namespace qxpctl
