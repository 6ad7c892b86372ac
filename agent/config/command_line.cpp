#include "agent/config/command_line.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>

#include "agent/config/config_file.h"
#include "agent/config/man_page.h"
#include "agent/config/settings.h"

namespace qxpagent {

namespace {

void AddSettings(CLI::App& app, std::map<std::string, std::string>& given) {
    for (const Setting& setting : Settings()) {
        app.add_option_function<std::string>(
               std::string("--") + setting.name,
               [&given, &setting](const std::string& value) {
                   given[setting.name] = WithAbsolutePath(setting, value, std::filesystem::current_path());
               },
               setting.help)
            ->option_text(setting.value)
            ->check([&setting](const std::string& value) {
                Options scratch;
                return setting.apply(scratch, value);
            });
    }
}

void Apply(Options& options, const std::map<std::string, std::string>& settings) {
    for (const auto& [name, value] : settings) {
        FindSetting(name)->apply(options, value);
    }
}

std::map<std::string, std::string> LogEnvironment() {
    std::map<std::string, std::string> environment;
    const auto take = [&](const char* name, const char* variable) {
        const char* const value = std::getenv(variable);
        if (value != nullptr && *value != '\0') {
            environment[name] = WithAbsolutePath(*FindSetting(name), value, std::filesystem::current_path());
        }
    };
    take("log", "QXHOST_LOG");
    take("log-level", "QXHOST_LOG_LEVEL");
    return environment;
}

}  // namespace

std::optional<CommandLine> ParseCommandLine(int argc, char** argv, const Installation& installation, int& exit_code) {
    CommandLine command_line;
    std::string config = installation.bin.parent_path() / "etc" / "qxpagent.conf";
    CLI::App app("Hosts the maintenance plugin and serves its API on a Unix socket.", "qxpagent");
    app.set_version_flag("--version", "qxpagent " QXPAGENT_VERSION);
    const CLI::Option* const named =
        app.add_option("--config", config, "Configuration file; an option wins over its key")
            ->option_text("FILE [../etc/qxpagent.conf]");
    app.add_flag("--check-config", command_line.check_config,
                 "Name every mistake in the configuration file and end: 0 without, 2 with mistakes");
    std::string generate;
    app.add_option("--generate", generate, "Print the manual page, for packages")
        ->check(CLI::IsMember({"man"}))
        ->group("");  // not in the help
    AddSettings(app, command_line.settings);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        exit_code = app.exit(error, std::cout, std::cerr) == 0 ? kExitOk : kExitUsage;
        return std::nullopt;
    }
    if (!generate.empty()) {
        std::cout << ManPage(app, QXPAGENT_VERSION) << std::flush;
        exit_code = std::cout.good() ? kExitOk : kExitFailure;
        return std::nullopt;
    }
    command_line.config_file = std::filesystem::absolute(config).lexically_normal();
    command_line.config_named = !named->empty();
    command_line.environment = LogEnvironment();
    return command_line;
}

LoadedOptions LoadOptions(const CommandLine& command_line, const Installation& installation) {
    const ConfigFile config = ReadConfigFile(command_line.config_file, installation.bin);
    LoadedOptions loaded;
    loaded.mistakes = MistakeLines(command_line.config_file, config);
    if (!config.found && command_line.config_named) {
        loaded.mistakes.push_back(command_line.config_file.string() + ": there is no such file");
    }
    Options& options = loaded.options;
    options.socket = installation.socket;
    options.plugin = installation.plugin;
    options.store = installation.store;
    Apply(options, command_line.environment);
    Apply(options, config.settings);
    Apply(options, command_line.settings);
    return loaded;
}

int CheckConfig(const CommandLine& command_line, const Installation& installation) {
    const std::vector<std::string> mistakes = LoadOptions(command_line, installation).mistakes;
    for (const std::string& mistake : mistakes) {
        std::cerr << mistake << '\n';
    }
    if (!mistakes.empty()) {
        return kExitUsage;
    }
    std::cout << command_line.config_file.string()
              << (std::filesystem::exists(command_line.config_file) ? ": no mistakes\n"
                                                                    : ": not there, all defaults\n");
    return kExitOk;
}

}  // namespace qxpagent
