#include "ctl/commands/commands.h"
#include "ctl/commands/pack_options.h"
#include "ctl/terminal/files.h"
#include "ctl/terminal/json.h"
#include "ctl/terminal/text.h"
#include "policy/rules.h"

namespace qxpctl {

namespace {

using qxppolicy::HandlingOf;
using qxppolicy::PackedPolicy;
using qxppolicy::PackedScript;
using qxppolicy::SchemeName;
using qxppolicy::TypeHandling;

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

void WarnOfTypesThatDoNotRun(const PackedPolicy& policy, const Console& console) {
    for (const PackedScript& script : policy.scripts) {
        const TypeHandling handling = HandlingOf(script.type);
        if (handling == TypeHandling::kUnsupported) {
            console.Warn(fmt::format("{}: the plugin drops scripts of the type {}", script.id, script.type));
        }
        if (handling == TypeHandling::kNeverRun) {
            console.Warn(
                fmt::format("{}: the plugin accepts scripts of the type {}, but runs none", script.id, script.type));
        }
    }
}

std::string Summary(const PackedPolicy& packed, const std::string& output) {
    Json summary = {{"id", packed.id},
                    {"command", packed.command},
                    {"scheme", SchemeName(packed.scheme)},
                    {"output", output},
                    {"scripts", Json::array()}};
    for (const PackedScript& script : packed.scripts) {
        summary["scripts"].push_back(
            {{"scriptid", script.id}, {"scripttype", script.type}, {"file", script.file}, {"bytes", script.bytes}});
    }
    return ToLine(summary);
}

ExitCode WritePolicy(const PackCommandOptions& options, const Console& console, const CommonOptions& common) {
    const PackedPolicy packed = Pack(options.pack);
    WarnOfOpenKeyFile(options.pack.key_file, console);
    WarnOfTypesThatDoNotRun(packed, console);
    if (options.output.empty() || options.output == "-") {
        console.Print(packed.document + "\n");
        return ExitCode::kSuccess;
    }
    WriteOutputFile(options.output, packed.document + "\n");
    if (common.json) {
        console.Print(Summary(packed, options.output));
    } else {
        console.Remark("{}: policy {}, {} signed ({})", options.output, packed.id, packed.scripts.size(),
                       SchemeName(packed.scheme));
    }
    return ExitCode::kSuccess;
}

}  // namespace

void AddPackCommand(const CommandSetup& program) {
    const auto [command, options] = AddSubCommand(program, "pack", "Sign scripts into a policy document",
                                                  fmt::format("{}\n\n{}", kScriptArgumentHelp, kFooter), WritePolicy);
    AddPackOptions(command, options->pack);
    command.Value("--output,-o", "FILE", options->output,
                  "Where to write the policy, in one step; '-' or not given: the standard output");
    command.JsonOption();
}

}  // namespace qxpctl
