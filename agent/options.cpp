#include "agent/options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>

namespace qxpagent {

namespace {

bool IsLogFile(const std::string& log) {
    return !log.empty() && log != "stderr" && log != "journal";
}

}  // namespace

std::optional<Options> ParseOptions(int argc, char** argv, const Installation& installation, int& exit_code) {
    std::string socket = installation.socket;
    std::string plugin = installation.plugin;
    std::string online;
    Options options;

    CLI::App app("Hosts the maintenance plugin and serves its API on a Unix socket.", "qxpagent");
    app.set_version_flag("--version", "qxpagent " QXPAGENT_VERSION);
    app.add_option("--socket", socket, "Unix socket to serve")->option_text("PATH [../data/qxpagent/agent.sock]");
    app.add_option("--plugin", plugin, "Plugin library to load")->option_text("PATH [../lib/libqxpmaint.so]");
    app.add_option("--init-param", options.init_param,
                   "Parameter string for the plugin, as in agent_type=KSTL:conf_path=FILE; a relative FILE is taken "
                   "from the agent's own directory")
        ->option_text("TEXT");
    app.add_option("--online", online, "Tell the plugin that the server is connected at this address")
        ->option_text("ADDRESS:PORT")
        ->check([](const std::string& text) {
            return ParseServerAddress(text).has_value() ? "" : "must be ADDRESS:PORT, with a port from 1 to 65535";
        });
    app.add_option("--log", options.log, "Log to a file, stderr or the journal, in place of $QXHOST_LOG")
        ->option_text("FILE|stderr|journal");
    app.add_option("--log-level", options.log_level, "Least level to log, in place of $QXHOST_LOG_LEVEL")
        ->option_text("LEVEL")
        ->check(CLI::IsMember({"trace", "debug", "info", "warn", "error", "off"}));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        exit_code = app.exit(error, std::cout, std::cerr) == 0 ? kExitOk : kExitUsage;
        return std::nullopt;
    }

    if (socket.empty() || plugin.empty()) {
        std::cerr << (socket.empty() ? "--socket" : "--plugin") << ": a path is missing\n";
        exit_code = kExitUsage;
        return std::nullopt;
    }
    options.socket = std::filesystem::absolute(socket);
    options.plugin = std::filesystem::absolute(plugin);
    options.online = ParseServerAddress(online);
    if (options.log.empty()) {
        const char* const log = std::getenv("QXHOST_LOG");
        options.log = log != nullptr ? log : "";
    }
    if (IsLogFile(options.log)) {
        options.log = std::filesystem::absolute(options.log);
    }
    return options;
}

}  // namespace qxpagent
