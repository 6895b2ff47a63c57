// The signals that end an nti run, shared by every command that adds rules.
#pragma once

#include <functional>
#include <list>

namespace nti::host {

// OpenExitSignalFd makes SIGINT, SIGTERM, SIGHUP and SIGQUIT arrive through
// the returned descriptor (blocked in this thread and in every thread started
// afterwards) so that each of them ends the run through its normal cleanup,
// and ignores SIGPIPE so a closed output shows up as EPIPE on write instead of
// killing the process with its rules still in place. Returns -1 on failure.
[[nodiscard]] int OpenExitSignalFd();

// ExitSignalName is the name of an ending signal read from that descriptor.
[[nodiscard]] const char* ExitSignalName(unsigned signo);

// ExitCleanup registers, for its lifetime, what must be undone even when the
// process does not unwind: an exception that escapes a thread (std::terminate)
// or one that reaches main while objects holding rules are still referenced.
class ExitCleanup {
public:
    explicit ExitCleanup(std::function<void()> undo);
    ~ExitCleanup();
    ExitCleanup(const ExitCleanup&) = delete;
    ExitCleanup& operator=(const ExitCleanup&) = delete;

private:
    std::list<std::function<void()>>::iterator m_entry;
};

// RunExitCleanups runs every registered cleanup once; later calls and the
// objects' own destructors then find nothing left to undo.
void RunExitCleanups() noexcept;

// InstallTerminateCleanup makes std::terminate run the cleanups before the
// process aborts.
void InstallTerminateCleanup();

}  // namespace nti::host
