#include "host/cli/exit_signals.h"

#include <pthread.h>
#include <sys/signalfd.h>
#include <csignal>

namespace nti::host {

int OpenExitSignalFd() {
    // A shell starts background jobs with SIGINT and SIGQUIT ignored; an
    // ignored signal never reaches the descriptor.
    constexpr int kEnding[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signo : kEnding) {
        std::signal(signo, SIG_DFL);
        sigaddset(&signals, signo);
    }
    std::signal(SIGPIPE, SIG_IGN);
    if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) {
        return -1;
    }
    return ::signalfd(-1, &signals, SFD_CLOEXEC);
}

const char* ExitSignalName(unsigned signo) {
    switch (signo) {
        case SIGINT:
            return "SIGINT";
        case SIGTERM:
            return "SIGTERM";
        case SIGHUP:
            return "SIGHUP";
        case SIGQUIT:
            return "SIGQUIT";
        default:
            return "signal";
    }
}

}  // namespace nti::host
