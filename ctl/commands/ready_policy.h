#pragma once

#include <string>

namespace qxpctl {

/// A policy from a file, as far as it must be good to be handed on.
struct ReadyPolicy {
    std::string document;
    std::string id;  // empty when there is none
    size_t scripts = 0;
};

enum class PolicyRoad {
    kCommand,  // to the agent, or to the policy directory: needs an ID
    kRunOnce,  // the process directory: its ID is the file's name
};

/// Reads a document as the plugin does and applies the agent's rule for its ID. The path "-" is the standard input.
/// Throws BadInput that names the file and what is wrong with it. Signatures are not looked at; see Forecast.
ReadyPolicy ReadReadyPolicy(const std::string& path, PolicyRoad road);

}  // namespace qxpctl
