#include "agent/service/service.h"

#include <fmt/format.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "agent/config/config_reload.h"
#include "agent/log.h"
#include "agent/service/service_notify.h"

namespace qxpagent {

int RunService(ServiceAgent& agent, ServiceSignals& signals, const CommandLine& command_line,
               const Installation& installation, const Options& options) {
    agent.Start();
    // The watchdog is fed throughout a stop, which may take minutes: the service manager has a time of its own for
    // that.
    std::atomic<bool> stopping{false};
    const std::jthread watchdog = StartWatchdog([&] { return stopping || agent.IsAlive(); });
    Options running = options;
    const std::string serving = "Serving " + options.socket.string();
    NotifyReady(serving);
    while (signals.Wait() == ServiceSignals::Request::kReload) {
        NotifyReloading();
        const ReloadOutcome outcome =
            ReloadConfig(command_line, installation, running,
                         [&agent](const Options& changed) { agent.SetRetention(changed.retention); });
        NotifyReady(outcome.mistakes.empty() ? serving
                                             : fmt::format("{}; not reloaded: {}", serving, outcome.mistakes.front()));
    }
    // Before the stop: from here on the service manager allows the time of a stop.
    NotifyStopping();
    stopping = true;
    QXPAGENT_LOG(kLogInfo, "stopping on signal %d", signals.StopNumber());
    if (!agent.Stop()) {
        std::_Exit(kExitFailure);  // a thread is still inside the plugin, and what it uses must stay
    }
    QXPAGENT_LOG(kLogInfo, "stopped");
    return kExitOk;
}

}  // namespace qxpagent
