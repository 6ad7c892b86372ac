#include "agent/service/service.h"

#include <atomic>
#include <cstdlib>
#include <string>

#include "agent/config/config_reload.h"
#include "agent/log.h"
#include "agent/service/service_notify.h"

namespace qxpagent {

namespace {

void ServeUntilStop(ServiceSignals& signals, ConfigReload& reload, const std::string& status) {
    NotifyReady(status);
    while (signals.Wait() == ServiceSignals::Request::kReload) {
        NotifyReloading();
        const ReloadOutcome outcome = reload.Reload();
        NotifyReady(outcome.mistakes.empty() ? status : status + "; not reloaded: " + outcome.mistakes.front());
    }
    NotifyStopping();
}

}  // namespace

int RunService(ServiceAgent& agent, ServiceSignals& signals, const CommandLine& command_line,
               const Installation& installation, const Options& options) {
    ConfigReload reload(command_line, installation, options, agent);
    agent.Start();
    // A stop may take minutes; the service manager has a time of its own for that.
    std::atomic<bool> stopping{false};
    const Watchdog watchdog([&] { return stopping || agent.IsAlive(); });
    ServeUntilStop(signals, reload, "Serving " + options.socket.string());
    stopping = true;
    QXPAGENT_LOG(kLogInfo, "stopping on signal %d", signals.StopNumber());
    if (!agent.Stop()) {
        std::_Exit(kExitFailure);
    }
    QXPAGENT_LOG(kLogInfo, "stopped");
    return kExitOk;
}

}  // namespace qxpagent
