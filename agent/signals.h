#pragma once

namespace qxpagent {

// Signals are caught by handlers, never blocked or ignored: scripts would inherit that, whereas a handler ends where a
// script's program begins.

/// From its construction on, SIGTERM and SIGINT no longer end the process but make Wait return; they stay caught for
/// the life of the process, so that further ones during the stop change nothing. One object a process. Throws
/// StartupError.
class StopSignal {
public:
    StopSignal();

    /// Returns the number of the signal that asked for the stop.
    int Wait();
};

/// From now on, writing where nobody reads any more fails with EPIPE and does not end the process; scripts start with
/// SIGPIPE at its default, even when this process was started with it ignored. Throws StartupError.
void SurviveBrokenPipes();

}  // namespace qxpagent
