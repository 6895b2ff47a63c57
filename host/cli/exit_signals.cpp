#include "host/cli/exit_signals.h"

#include <pthread.h>
#include <sys/signalfd.h>
#include <csignal>

namespace nti::host {
namespace {

struct EndingSignal {
    int signo;
    const char* name;
};

// Every signal whose default action ends the process, except those that
// report a fault of the process itself (SIGSEGV, SIGABRT ...): each would
// otherwise leave the iptables rules in place.
constexpr EndingSignal kEnding[] = {
    {SIGINT, "SIGINT"},   {SIGTERM, "SIGTERM"}, {SIGHUP, "SIGHUP"},   {SIGQUIT, "SIGQUIT"},
    {SIGUSR1, "SIGUSR1"}, {SIGUSR2, "SIGUSR2"}, {SIGALRM, "SIGALRM"}, {SIGVTALRM, "SIGVTALRM"},
    {SIGPROF, "SIGPROF"}, {SIGIO, "SIGIO"},     {SIGPWR, "SIGPWR"},   {SIGSTKFLT, "SIGSTKFLT"},
    {SIGXCPU, "SIGXCPU"}, {SIGXFSZ, "SIGXFSZ"},
};

}  // namespace

int OpenExitSignalFd() {
    // A shell starts background jobs with SIGINT and SIGQUIT ignored; an
    // ignored signal never reaches the descriptor.
    sigset_t signals;
    sigemptyset(&signals);
    for (const EndingSignal& s : kEnding) {
        std::signal(s.signo, SIG_DFL);
        sigaddset(&signals, s.signo);
    }
    std::signal(SIGPIPE, SIG_IGN);
    if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) {
        return -1;
    }
    return ::signalfd(-1, &signals, SFD_CLOEXEC);
}

const char* ExitSignalName(unsigned signo) {
    for (const EndingSignal& s : kEnding) {
        if (static_cast<unsigned>(s.signo) == signo) {
            return s.name;
        }
    }
    return "signal";
}

}  // namespace nti::host
