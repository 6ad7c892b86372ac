#include <cstdlib>
#include <exception>
#include <iostream>
#include <optional>

#include "agent/agent.h"
#include "agent/installation.h"
#include "agent/log.h"
#include "agent/options.h"
#include "agent/signals.h"

namespace {

// Before the first thread, and before the first record.
void SetUpLog(const qxpagent::Options& options) {
    if (!options.log.empty()) {
        setenv("QXHOST_LOG", options.log.c_str(), 1);
    }
    if (!options.log_level.empty()) {
        setenv("QXHOST_LOG_LEVEL", options.log_level.c_str(), 1);
    }
}

int Run(const qxpagent::Options& options, const qxpagent::Installation& installation) {
    SetUpLog(options);
    qxpagent::SurviveBrokenPipes();
    qxpagent::EnterInstallation(installation);
    qxpagent::StopSignal stop_signal;
    qxpagent::Agent agent(options);
    agent.Start();
    const int signal_number = stop_signal.Wait();
    QXPAGENT_LOG(qxpagent::kLogInfo, "stopping on signal %d", signal_number);
    if (!agent.Stop()) {
        std::_Exit(qxpagent::kExitFailure);
    }
    QXPAGENT_LOG(qxpagent::kLogInfo, "stopped");
    return qxpagent::kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const qxpagent::Installation installation = qxpagent::FindInstallation();
        int exit_code = qxpagent::kExitOk;
        const auto options = qxpagent::ParseOptions(argc, argv, installation, exit_code);
        return options.has_value() ? Run(*options, installation) : exit_code;
    } catch (const std::exception& error) {
        std::cerr << "qxpagent: " << error.what() << '\n';
        return qxpagent::kExitFailure;
    }
}
