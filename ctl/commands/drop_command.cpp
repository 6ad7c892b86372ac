#include <strings.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>

#include "ctl/client/agent_client.h"
#include "ctl/client/agent_socket.h"
#include "ctl/commands/commands.h"
#include "ctl/commands/ready_policy.h"
#include "ctl/terminal/files.h"
#include "ctl/terminal/text.h"
#include "policy/rules.h"

namespace qxpctl {

namespace {

struct DropOptions {
    std::vector<std::string> files;
    std::string directory;
    bool process = false;
    bool force = false;
};

constexpr const char* kFooter =
    R"(The plugin takes every *.json file that it finds in its policy directory, once, and deletes it, so a file must appear
there complete. drop reads each policy and checks that it is one, writes it under a hidden name, makes sure that it is on
the disk, and gives it its name in one step. No file is dropped unless all of them are good. A policy FILE named other
than *.json gets that ending.

Examples:
  qxpctl drop policy.json
  qxpctl drop --process nightly.json && qxpctl runonce nightly.json
  qxpctl drop --directory /opt/qxpmaint/data/qxpmaint/policyfile *.json     the agent need not run

Exit codes: 0 all were dropped; 2 a file is no policy, or one of its name lies there already: none was dropped; 3 the
agent cannot be reached to ask for the directory; 5 a file could not be written.)";

// One file on its way.
struct Drop {
    std::string source;
    std::string destination;
    ReadyPolicy policy;
    std::unique_ptr<StagedFile> staged;  // null until all files have been found good
};

std::string DirectoryOf(const DropOptions& options, const CommonOptions& common) {
    if (!options.directory.empty()) {
        return options.directory;
    }
    const AgentStatus status = AgentClient(FindSocket(common.socket)).GetStatus();
    const std::string& directory = options.process ? status.process_directory : status.policy_directory;
    if (directory.empty()) {
        throw AgentUnavailable("the agent does not say where its policy directory is; name it with --directory");
    }
    return directory;
}

// The loader takes the ending in either case, so that such a name stays as it is.
std::string NameFor(const std::string& source) {
    const std::filesystem::path path(source);
    const std::string name = path.filename().string();
    if (source == "-" || name.empty()) {
        throw BadInput("'{}' gives the policy no name; drop takes files", source);
    }
    return strcasecmp(path.extension().c_str(), ".json") == 0 ? name : name + ".json";
}

std::vector<Drop> Prepare(const DropOptions& options, const std::string& directory) {
    const PolicyRoad road = options.process ? PolicyRoad::kRunOnce : PolicyRoad::kCommand;
    std::vector<Drop> drops;
    for (const std::string& file : options.files) {
        const std::string name = NameFor(file);
        const qxppolicy::Fault fault = qxppolicy::ValidateRunOnceName(name);
        if (options.process && fault) {
            throw BadInput("the name '" + name + "', which is the ID of the results, " + *fault + "; rename the file");
        }
        Drop drop{file, (std::filesystem::path(directory) / name).string(), ReadReadyPolicy(file, road), nullptr};
        if (drop.policy.scripts == 0) {
            throw BadInput("{} is no policy: it has no list of scripts (\"param\", \"scriptinfo\")", file);
        }
        for (const Drop& other : drops) {
            if (other.destination == drop.destination) {
                throw BadInput("{} and {} would get the same name; rename one", file, other.source);
            }
        }
        struct stat status {};
        if (!options.force && lstat(drop.destination.c_str(), &status) == 0) {
            throw BadInput("{} exists already; rename {}, or use --force to replace it", drop.destination, file);
        }
        drops.push_back(std::move(drop));
    }
    return drops;
}

ExitCode DropFiles(const DropOptions& options, const Console& console, const CommonOptions& common) {
    const std::string directory = DirectoryOf(options, common);
    std::error_code failure;
    if (!std::filesystem::is_directory(directory, failure)) {
        throw BadInput("{} is not a directory that can be used{}", directory, failure ? ": " + failure.message() : "");
    }
    std::vector<Drop> drops = Prepare(options, directory);
    for (Drop& drop : drops) {
        drop.staged = std::make_unique<StagedFile>(drop.destination, 0600);
        drop.staged->Write(drop.policy.document);
    }
    Json result = {{"directory", directory}, {"dropped", Json::array()}};
    for (Drop& drop : drops) {
        drop.staged->Commit(options.force);
        result["dropped"].push_back({{"source", drop.source}, {"file", drop.destination}, {"id", drop.policy.id}});
        if (!common.json) {
            console.Remark("{}: {}", drop.destination, Count(drop.policy.scripts, "script"));
        }
    }
    if (common.json) {
        console.Print(ToLine(result));
    }
    return ExitCode::kSuccess;
}

}  // namespace

void AddDropCommand(const CommandSetup& program) {
    const auto [command, options] =
        AddSubCommand(program, "drop", "Put policy files where the plugin picks them up", kFooter, DropFiles);
    command.Arguments("FILE", options->files, "The policies, as made by 'qxpctl pack'").Required();
    command.Value("--directory,-d", "DIR", options->directory, "Where to put them [the agent is asked]");
    command.Flag("--process", options->process, "Into the directory of run-once policies; see runonce");
    command.Flag("--force", options->force, "Replace a file that has not been picked up yet");
    AddAgentOptions(command);
}

}  // namespace qxpctl
