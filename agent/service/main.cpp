#include <fmt/ranges.h>
#include <sys/stat.h>

#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "agent/access/access.h"
#include "agent/config/config_file.h"
#include "agent/log.h"
#include "agent/service/agent.h"
#include "agent/service/environment.h"
#include "agent/service/service.h"

namespace {

int Run(const qxpagent::CommandLine& command_line, const qxpagent::Installation& installation) {
    const qxpagent::LoadedOptions loaded = qxpagent::LoadOptions(command_line, installation);
    if (command_line.check_config || !loaded.mistakes.empty()) {
        return qxpagent::PrintMistakes(command_line, loaded);
    }
    // What agent, plugin and scripts make is for others to read at most, however the agent was started.
    umask(umask(0) | S_IWGRP | S_IWOTH);
    const qxpagent::Options& options = loaded.options;
    qxpagent::CheckLogFile(options);
    qxpagent::SetUpLog(options);  // before the first thread, and before the first record
    qxpagent::FindServiceManager();
    const std::vector<std::string> gone = qxpagent::ReduceEnvironment(options.script_environment);
    QXPAGENT_LOG(qxpagent::kLogInfo, "scripts do not inherit %zu variables of this environment: %s", gone.size(),
                 fmt::format("{}", fmt::join(gone, " ")).c_str());
    if (const std::string missing = qxpagent::RaiseDescriptorLimit(); !missing.empty()) {
        QXPAGENT_LOG(qxpagent::kLogWarn, "%s", missing.c_str());
    }
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
