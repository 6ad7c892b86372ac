#pragma once

namespace qxpagent {

// Signals are caught by handlers, never blocked or ignored: scripts would inherit that, whereas a handler ends where a
// script's program begins.

/// From its construction on, SIGTERM and SIGINT no longer end the process but make Wait return kStop, and SIGHUP makes
/// it return kReload; they stay caught for the life of the process, so that further ones during the stop change
/// nothing. One object a process. Throws StartupError.
class ServiceSignals {
public:
    enum class Request { kReload, kStop };

    ServiceSignals();

    /// Waits for what is asked for next; several reloads that were asked for meanwhile are one. After a stop was asked
    /// for it never returns anything else.
    Request Wait();
    /// The number of the signal that asked for the stop, 0 before.
    int StopNumber() const;
};

/// From now on, writing where nobody reads any more fails with EPIPE and does not end the process; scripts start with
/// SIGPIPE at its default, even when this process was started with it ignored. Throws StartupError.
void SurviveBrokenPipes();

}  // namespace qxpagent
