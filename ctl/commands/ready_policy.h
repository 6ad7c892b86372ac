#pragma once

#include <string>

namespace qxpctl {

/// A policy document from a file, as far as it must be good to be handed on.
struct ReadyPolicy {
    std::string document;
    std::string id;       // empty when there is none
    std::string command;  // likewise
    size_t scripts = 0;
};

enum class PolicyRoad {
    kCommand,  // to the agent, or to the policy directory: needs an ID and a command
    kRunOnce,  // the process directory: its ID is the file's name
};

/// Reads a document as the plugin does and applies the agent's rules for it. The path "-" is the standard input. Throws
/// BadInput that names the file and what is wrong with it. Signatures are not looked at; see CheckPolicy.
ReadyPolicy ReadReadyPolicy(const std::string& path, PolicyRoad road);

}  // namespace qxpctl
