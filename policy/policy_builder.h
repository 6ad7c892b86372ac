#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/commands/script_argument.h"
#include "policy/command.h"
#include "policy/key_file.h"

namespace qxpctl {

using qxppolicy::IsRunCommand;
using qxppolicy::kMaxScripts;
using qxppolicy::kRunFile;
using qxppolicy::kRunNormal;
using qxppolicy::kRunProcess;

/// The agent takes no larger command document.
inline constexpr size_t kMaxPolicyBytes = 104857600;

/// What a policy is made of.
struct PolicyRequest {
    std::optional<std::string> id;  // not set: a random UUID (RFC 4122 version 4)
    std::string command = kRunNormal;
    ScriptAttributes defaults;
    std::vector<std::string> scripts;  // as given on the command line
};

struct PackedScript {
    std::string id;
    std::string type;
    std::string file;
    size_t bytes = 0;
    uint32_t timeout = 0;  // seconds; 0 is none
};

struct Policy {
    std::string id;
    std::string command;
    std::vector<PackedScript> scripts;
    std::string document;  // one line of JSON without a line break
};

/// Reads the scripts, signs each and builds the document. Throws BadInput for whatever cannot be used.
Policy BuildPolicy(const PolicyRequest& request, const Key& private_key);

}  // namespace qxpctl
