#include <memory>

#include "ctl/commands/commands.h"
#include "ctl/commands/pack_options.h"
#include "ctl/terminal/files.h"
#include "ctl/terminal/json.h"
#include "ctl/terminal/text.h"
#include "policy/rules.h"

namespace qxpctl {

namespace {

struct PackCommandOptions {
    PackOptions pack;
    std::string output;
};

constexpr const char* kFooter = R"(Examples:
  qxpctl pack --key ops.key.pem disk-check.sh >policy.json
  qxpctl pack --key ops.key.pem --output policy.json \
      'disk-check.sh,check=DISK CHECKED,timeout=60' collect-logs,id=logs
  qxpctl pack --key ops.key.pem --timeout 300 --command RunScriptFile nightly/*.sh | qxpctl submit -

A policy for an agent's policy directory or for run-once is the same document in a file named *.json.)";

void WarnOfTypesThatDoNotRun(const qxppolicy::PackedPolicy& policy, const Console& console) {
    for (const qxppolicy::PackedScript& script : policy.scripts) {
        const qxppolicy::TypeHandling handling = qxppolicy::HandlingOf(script.type);
        if (handling == qxppolicy::TypeHandling::kUnsupported) {
            console.Warn(script.id + ": the plugin drops scripts of the type " + script.type);
        }
        if (handling == qxppolicy::TypeHandling::kNeverRun) {
            console.Warn(script.id + ": the plugin accepts scripts of the type " + script.type + ", but runs none");
        }
    }
}

std::string Summary(const qxppolicy::PackedPolicy& policy, const std::string& output) {
    Json summary = {{"id", policy.id},
                    {"command", policy.command},
                    {"scheme", qxppolicy::SchemeName(policy.scheme)},
                    {"output", output},
                    {"scripts", Json::array()}};
    for (const qxppolicy::PackedScript& script : policy.scripts) {
        summary["scripts"].push_back(
            {{"scriptid", script.id}, {"scripttype", script.type}, {"file", script.file}, {"bytes", script.bytes}});
    }
    return ToLine(summary);
}

ExitCode WritePolicy(const PackCommandOptions& options, const Console& console, bool json) {
    const qxppolicy::PackedPolicy policy = Pack(options.pack);
    WarnOfOpenKeyFile(options.pack.key_file, console);
    WarnOfTypesThatDoNotRun(policy, console);
    if (options.output.empty() || options.output == "-") {
        console.Print(policy.document + "\n");
        return ExitCode::kSuccess;
    }
    WriteOutputFile(options.output, policy.document + "\n");
    if (json) {
        console.Print(Summary(policy, options.output));
    } else {
        console.Remark(options.output + ": policy " + policy.id + ", " + std::to_string(policy.scripts.size()) +
                       " signed (" + qxppolicy::SchemeName(policy.scheme) + ")");
    }
    return ExitCode::kSuccess;
}

}  // namespace

void AddPackCommand(const CommandSetup& program) {
    const auto options = std::make_shared<PackCommandOptions>();
    const CommandSetup command = program.SubCommand("pack", "Sign scripts into a policy document");
    AddPackOptions(command, options->pack);
    command.Value("--output,-o", "FILE", options->output,
                  "Where to write the policy, in one step; '-' or not given: the standard output");
    command.JsonOption();
    command.Footer(std::string(kScriptArgumentHelp) + "\n\n" + kFooter);
    command.Action([options](const Console& console, const CommonOptions& common) {
        return WritePolicy(*options, console, common.json);
    });
}

}  // namespace qxpctl
