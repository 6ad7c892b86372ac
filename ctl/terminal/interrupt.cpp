#include "ctl/terminal/interrupt.h"

namespace qxpctl {

namespace {

volatile std::sig_atomic_t g_interrupted = 0;

extern "C" void NoteInterrupt(int /*signal*/) {
    g_interrupted = 1;
}

}  // namespace

InterruptGuard::InterruptGuard() {
    g_interrupted = 0;
    struct sigaction action {};
    action.sa_handler = NoteInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previous_);
}

InterruptGuard::~InterruptGuard() {
    sigaction(SIGINT, &previous_, nullptr);
}

bool InterruptGuard::Interrupted() const {
    return g_interrupted != 0;
}

}  // namespace qxpctl
