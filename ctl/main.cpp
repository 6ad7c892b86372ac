#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "ctl/commands/commands.h"

int main(int argc, char** argv) {
    // A reader that goes away is an error of the write, told like any other.
    static_cast<void>(signal(SIGPIPE, SIG_IGN));
    // The host library is used for its reader and its checks; what it has to log does not belong to an operator's
    // screen unless asked for.
    setenv("QXHOST_LOG_LEVEL", "off", 0);
    const qxpctl::Console console(STDOUT_FILENO, STDERR_FILENO);
    return qxpctl::Run(argc, argv, console);
}
