#include "ctl/commands/pack_options.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <utility>

#include "base/input_file.h"
#include "ctl/commands/script_argument.h"
#include "ctl/terminal/error.h"
#include "ctl/terminal/text.h"
#include "policy/key_file.h"
#include "policy/rules.h"

namespace qxpctl {

const char* const kScriptArgumentHelp =
    R"(A script is FILE[,type=TYPE][,id=ID][,timeout=SECONDS][,check=TEXT][,path=DIR][,action=N]. An attribute of a script
overrides the general option. A comma that belongs to a name or a text is written \, and a backslash before one \\.
  type     sh: run by bash; exe: run as it is. Not given: sh for a script of sh, bash, dash or ash and for *.sh,
           exe for an ELF program, a script of another interpreter or an executable file
  id       names the script in the results; not given: the name of the file
  timeout  seconds, 0 to 4294967; 0 or not given: none. The plugin ends overdue runs only while more than 32 are in
           progress
  check    the run succeeded if a line of its output contains this text; not given: every run that ends succeeded
  path     the directory on the agent's machine in which the script file is written; not given: the plugin's own
  action   a number that goes along with the time-out)";

void AddPackOptions(const CommandSetup& command, PackOptions& options) {
    command
        .Value("--key,-k", "FILE", options.key_file, "The private key to sign with (PEM); its kind gives\nthe scheme")
        .Required();
    options.id_option =
        command.Value("--id", "ID", options.id, "The ID of the policy, under which results come back\n[a random UUID]");
    command
        .Value("--command", "NAME", options.command,
               "RunScriptNormal: results come back as reports;\n"
               "RunScriptFile, RunScriptProcess: they become files\n"
               "on the agent's machine")
        .ShowDefault();
    const char* const group = "General attributes of scripts";
    command.Value("--type", "TYPE", options.type, "Type of every script").InGroup(group);
    command.Value("--timeout", "SECONDS", options.timeout, "Time-out of every script").InGroup(group);
    command.Value("--check", "TEXT", options.check, "Text that output must contain").InGroup(group);
    command.Value("--path", "DIR", options.path, "Directory for the script files").InGroup(group);
    command.Value("--action", "N", options.action, "Number for the time-out").InGroup(group);
    command.Arguments("SCRIPT", options.scripts, "The scripts, in the order in which they start,\n63 at most")
        .Required();
}

namespace {

// An option that is not given says nothing about the scripts.
ScriptAttributes GeneralAttributes(const PackOptions& options) {
    ScriptAttributes attributes;
    for (const auto& [key, value] : {std::pair{"type", &options.type},
                                     {"timeout", &options.timeout},
                                     {"check", &options.check},
                                     {"path", &options.path},
                                     {"action", &options.action}}) {
        if (!value->empty()) {
            SetAttribute(attributes, key, *value);
        }
    }
    return attributes;
}

// A script is named after its file unless it is given an ID.
std::string ScriptId(const std::string& file, const ScriptAttributes& attributes) {
    if (attributes.id) {
        return *attributes.id;
    }
    std::string name = std::filesystem::path(file).filename().string();
    if (const qxppolicy::Fault fault = qxppolicy::ValidateId(name)) {
        throw BadInput(fmt::format("the script id '{}' {}; give another with '{},id=NAME'", name, *fault, file));
    }
    return name;
}

}  // namespace

qxppolicy::PackedPolicy Pack(const PackOptions& options) {
    if (options.scripts.size() > qxppolicy::kMaxScripts) {
        throw BadInput(fmt::format("{} scripts are too many for one policy; the limit is {}: pack them in several",
                                   options.scripts.size(), qxppolicy::kMaxScripts));
    }
    const ScriptAttributes general = GeneralAttributes(options);
    const qxppolicy::Key key = qxppolicy::ReadPrivateKey(options.key_file);
    qxppolicy::PolicyBuilder builder(options.id_option.Given() ? std::optional(options.id) : std::nullopt,
                                     options.command, key);
    for (const std::string& script : options.scripts) {
        const auto [file, own] = ParseScriptArgument(script);
        const ScriptAttributes attributes = WithDefaults(own, general);
        const qxpbase::ScriptFile content = qxpbase::ReadScriptFile(file, qxppolicy::kMaxScriptBytes);
        builder.Add(
            {ScriptId(file, attributes), attributes.type ? *attributes.type : GuessType(file, content),
             attributes.path.value_or(""), attributes.check.value_or(""), attributes.timeout, attributes.action},
            file, content.bytes);
    }
    return builder.Finish();
}

void WarnOfOpenKeyFile(const std::string& path, const Console& console) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        console.Warn("others can read or change the private key: chmod 600 " + ShellWord(path));
    }
}

}  // namespace qxpctl
