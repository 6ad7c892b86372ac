#include "ctl/commands/ready_policy.h"

#include <fmt/format.h>

#include "base/input_file.h"
#include "ctl/terminal/error.h"
#include "policy/document.h"

namespace qxpctl {

ReadyPolicy ReadReadyPolicy(const std::string& path, PolicyRoad road) {
    const std::string name = path == "-" ? "the standard input" : path;
    ReadyPolicy policy;
    policy.document = qxpbase::ReadDocument(path, qxppolicy::kMaxPolicyBytes, "policy");
    if (policy.document.find('\0') != std::string::npos) {
        throw BadInput(name + " holds a NUL byte, so it is not a JSON document");
    }
    const qxppolicy::PolicyDocument document(policy.document);
    if (!document.IsReadable()) {
        throw BadInput(name + " is not a JSON document; make a policy with 'qxpctl pack'");
    }
    policy.id = document.Member("ID").value_or("");
    policy.scripts = document.Scripts().size();
    const qxppolicy::Fault fault = qxppolicy::ValidateId(policy.id);
    if (road == PolicyRoad::kCommand && fault) {
        throw BadInput(
            fmt::format("{} has no usable \"ID\": it {}; pack the policy again with 'qxpctl pack --id'", name, *fault));
    }
    return policy;
}

}  // namespace qxpctl
