#include "agent/config/command_line.h"

#include <fmt/ranges.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>

#include "base/command_docs.h"

namespace qxpagent {

namespace {

constexpr const char* kDescription = R"(Hosts the maintenance plugin and serves its API on a Unix socket.

It hands the plugin the signed policies that come in there, and keeps commands and reports in a database. Scripts run as
the user of the agent, which is root as a rule. The program finds everything from where it lies: bin/, lib/, etc/ and
data/ are beside each other, and bin/ becomes its working directory. The packages put them under /opt/qxpmaint; as a
service it is started, reloaded and stopped with systemctl under the name qxpagent.
)";

// With {} for the bytes that a line may have, and for the settings that a reload takes over.
constexpr const char* kFooter = R"(Configuration file:
An INI file with the one section [qxpagent]. Every option above that has a value, other than --config, is also a key,
without the dashes. An option wins over the file, and the file over the environment. Relative paths are taken from bin/
in the file, and from the working directory on the command line. Comments are lines that begin with ; or #, and what
follows a ; after white space. A line may have {} bytes. A file with a mistake changes nothing at a reload, and keeps
the agent from starting: --check-config names each with its line.
  [qxpagent]
  socket-group = qxpmaint
  retention-days = 90    ; reports of a quarter
A reload takes over {}. The others need a restart.

Signals:
  SIGTERM, SIGINT  refuse new commands, end the running scripts, write what
                   became of them, and end; a few seconds as a rule
  SIGHUP           read the configuration file again; the log names what has
                   changed, and what needs a restart

Exit codes:
  0  after a stop that was asked for
  1  the agent could not start, or a call into the plugin did not return at
     the stop
  2  a mistake in the options or the configuration file, which no restart mends

Environment:
  QXHOST_LOG, QXHOST_LOG_LEVEL  stand in for --log and --log-level where neither
                                these nor the configuration file say otherwise

Files:
  etc/qxpagent.conf                   the configuration file; it may be missing
  etc/plugins/qxpmaint/qxpmaint.conf  the plugin's; it must be there
  etc/trusted-keys/*.pem              public Ed25519 keys that scripts may be
                                      signed with; a change needs no restart
  data/qxpagent                       socket and database
  data/qxpmaint/policyfile            policies that are dropped here are run
  data/qxpmaint/policyprocess         policies that wait to be run once
  data/qxpmaint/result                result files of the plugin

See also:
  qxpctl(1), systemctl(1), journalctl(1))";

std::string Footer() {
    std::vector<std::string> reloadable;
    for (const Setting& setting : Settings()) {
        if (setting.reloadable) {
            reloadable.emplace_back(setting.name);
        }
    }
    return fmt::format(kFooter, kMostConfigLineBytes, fmt::join(reloadable, ", "));
}

void AddSettings(CLI::App& app, CommandLine& command_line) {
    for (const Setting& setting : Settings()) {
        const auto add = [&command_line, &setting](const std::string& value) {
            command_line.settings.emplace_back(&setting, value);
        };
        const auto check = [&command_line, &setting](const std::string& value) {
            Options scratch;
            return setting.set(scratch, value, command_line.directory);
        };
        const std::string shown_default =
            *setting.default_value != '\0' ? fmt::format(" [{}]", setting.default_value) : "";
        app.add_option_function<std::string>(fmt::format("--{}", setting.name), add, setting.help)
            ->option_text(setting.value + shown_default)
            ->check(check);
        const char* const variable = setting.environment != nullptr ? std::getenv(setting.environment) : nullptr;
        if (variable != nullptr && *variable != '\0') {
            command_line.environment.emplace_back(&setting, variable);
        }
    }
}

}  // namespace

std::optional<CommandLine> ParseCommandLine(int argc, char** argv, const Installation& installation, int& exit_code) {
    CommandLine command_line;
    command_line.directory = std::filesystem::current_path();
    std::string config = installation.bin.parent_path() / "etc" / "qxpagent.conf";
    std::string generate;
    CLI::App app(kDescription, "qxpagent");
    app.footer(Footer());
    app.set_version_flag("--version", "qxpagent " QXPAGENT_VERSION);
    const CLI::Option* const named =
        app.add_option("--config", config, "Configuration file; an option wins over its key")
            ->option_text("FILE [../etc/qxpagent.conf]");
    app.add_flag("--check-config", command_line.check_config,
                 "Name every mistake in the configuration file and end: 0 without, 2 with mistakes");
    app.add_option("--generate", generate, "Print the manual page, for packages")
        ->check(CLI::IsMember({"man"}))
        ->group("");  // not in the help
    AddSettings(app, command_line);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        exit_code = app.exit(error, std::cout, std::cerr) == 0 ? kExitOk : kExitUsage;
        return std::nullopt;
    }
    if (!generate.empty()) {
        std::cout << qxpbase::ManPage(app, {"8", "System Administration", QXPAGENT_VERSION,
                                            "qxpagent, qxpagent.conf - run signed maintenance scripts on this machine"})
                  << std::flush;
        exit_code = std::cout.good() ? kExitOk : kExitFailure;
        return std::nullopt;
    }
    command_line.config_file = (command_line.directory / config).lexically_normal();
    command_line.config_named = !named->empty();
    return command_line;
}

}  // namespace qxpagent
