#pragma once

#include <string>
#include <vector>

#include "ctl/terminal/command_setup.h"
#include "policy/policy_builder.h"
#include "policy/vocabulary.h"

namespace qxpctl {

/// The options that say what goes into a policy; shared by pack and run.
struct PackOptions {
    std::string key_file;
    std::string id;
    std::string command = qxppolicy::kRunNormal;
    std::string type;
    std::string timeout;
    std::string check;
    std::string path;
    std::string action;
    std::vector<std::string> scripts;
    OptionSetup id_option;  // set once the options have been added
};

/// Declares them. The options must outlive the parser.
void AddPackOptions(const CommandSetup& command, PackOptions& options);

/// What a footer says about script arguments.
extern const char* const kScriptArgumentHelp;

/// Checks the options, reads the key and the scripts, and builds the policy. Throws BadInput or InputError.
qxppolicy::PackedPolicy Pack(const PackOptions& options);

/// Warns about a private key that others can read.
void WarnOfOpenKeyFile(const std::string& path, const Console& console);

}  // namespace qxpctl
