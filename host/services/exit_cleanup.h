// What must be undone however the process ends: the rules a run added.
#pragma once

#include <functional>
#include <list>
#include <mutex>

namespace nti::host {

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

// LockOnTheWayOut locks `mutex` within 2 s, or gives up: a thread that ends
// the process while another holds it must not hang.
[[nodiscard]] std::unique_lock<std::timed_mutex> LockOnTheWayOut(std::timed_mutex& mutex);

// RunExitCleanups runs every registered cleanup once; later calls and the
// objects' own destructors then find nothing left to undo.
void RunExitCleanups() noexcept;

// RunCleaningUp returns what `run` returns. An exception escaping it is
// written to standard error as "nti: <what>", the registered cleanups run
// (an object the unwinding did not release still holds its rules), and
// `failure` is returned.
[[nodiscard]] int RunCleaningUp(const std::function<int()>& run, int failure) noexcept;

// InstallTerminateCleanup makes std::terminate run the cleanups before the
// process aborts.
void InstallTerminateCleanup();

}  // namespace nti::host
