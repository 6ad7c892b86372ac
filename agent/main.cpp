#include <sys/stat.h>

#include <exception>
#include <iostream>
#include <optional>

#include "agent/access.h"
#include "agent/agent.h"
#include "agent/command_line.h"
#include "agent/installation.h"
#include "agent/log_setup.h"
#include "agent/service.h"
#include "agent/signals.h"

namespace {

int Run(const qxpagent::CommandLine& command_line, const qxpagent::Installation& installation) {
    const qxpagent::LoadedOptions loaded = qxpagent::LoadOptions(command_line, installation);
    if (command_line.check_config || !loaded.mistakes.empty()) {
        return qxpagent::CheckConfig(command_line, installation);
    }
    // What agent, plugin and scripts make is for others to read at most, however the agent was started.
    umask(umask(0) | S_IWGRP | S_IWOTH);
    const qxpagent::Options& options = loaded.options;
    qxpagent::CheckLogFile(options);
    qxpagent::SetUpLog(options);  // before the first thread, and before the first record
    qxpagent::SurviveBrokenPipes();
    qxpagent::EnterInstallation(installation);
    qxpagent::CheckAccess(options, installation, command_line.config_file);
    qxpagent::PrepareSocketDirectory(options, installation);
    qxpagent::ServiceSignals signals;
    qxpagent::Agent agent(options);
    return qxpagent::RunService(agent, signals, command_line, installation, options);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const qxpagent::Installation installation = qxpagent::FindInstallation();
        int exit_code = qxpagent::kExitOk;
        const auto command_line = qxpagent::ParseCommandLine(argc, argv, installation, exit_code);
        return command_line.has_value() ? Run(*command_line, installation) : exit_code;
    } catch (const std::exception& error) {
        std::cerr << "qxpagent: " << error.what() << '\n';
        return qxpagent::kExitFailure;
    }
}
