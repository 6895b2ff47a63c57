// The signals that end an nti run, shared by every command that adds rules.
#pragma once

namespace nti::host {

// OpenExitSignalFd makes SIGINT, SIGTERM, SIGHUP, SIGQUIT and every other
// signal that would end the process and reports no fault of its own
// (SIGUSR1, SIGUSR2, SIGALRM ...) arrive through the returned descriptor
// (blocked in this thread and in every thread started afterwards) so that
// each of them ends the run through its normal cleanup, and ignores SIGPIPE
// so a closed output shows up as EPIPE on write instead of killing the
// process with its rules still in place. Returns -1 on failure.
[[nodiscard]] int OpenExitSignalFd();

// ExitSignalName is the name of an ending signal read from that descriptor.
[[nodiscard]] const char* ExitSignalName(unsigned signo);

}  // namespace nti::host
