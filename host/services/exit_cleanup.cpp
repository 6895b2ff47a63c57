#include "host/services/exit_cleanup.h"

#include <chrono>
#include <cstdio>
#include <exception>
#include <mutex>
#include <utility>

namespace nti::host {

namespace {

struct Cleanups {
    std::timed_mutex mutex;
    std::list<std::function<void()>> entries;
};

Cleanups& Registry() {
    static Cleanups* cleanups = new Cleanups;  // never destroyed: used up to the last exit path
    return *cleanups;
}

std::terminate_handler g_previousTerminate = nullptr;

[[noreturn]] void TerminateWithCleanup() {
    RunExitCleanups();
    if (g_previousTerminate != nullptr) {
        g_previousTerminate();
    }
    std::abort();
}

}  // namespace

ExitCleanup::ExitCleanup(std::function<void()> undo) {
    std::lock_guard lock(Registry().mutex);
    m_entry = Registry().entries.insert(Registry().entries.end(), std::move(undo));
}

ExitCleanup::~ExitCleanup() {
    std::lock_guard lock(Registry().mutex);
    Registry().entries.erase(m_entry);
}

std::unique_lock<std::timed_mutex> LockOnTheWayOut(std::timed_mutex& mutex) {
    // A deadline on the system clock waits in pthread_mutex_timedlock, which
    // ThreadSanitizer sees; a relative timeout waits in pthread_mutex_clocklock,
    // which it does not, and it then reports the unlock as one without a lock.
    return std::unique_lock(mutex, std::chrono::system_clock::now() + std::chrono::seconds(2));
}

void RunExitCleanups() noexcept {
    std::unique_lock lock = LockOnTheWayOut(Registry().mutex);
    if (!lock.owns_lock()) {
        return;
    }
    for (std::function<void()>& undo : Registry().entries) {
        if (undo) {
            try {
                std::exchange(undo, nullptr)();
            } catch (...) {
                // Nothing more can be done on the way out.
            }
        }
    }
}

int RunCleaningUp(const std::function<int()>& run, int failure) noexcept {
    try {
        return run();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "nti: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "nti: unknown exception\n");
    }
    RunExitCleanups();
    return failure;
}

void InstallTerminateCleanup() {
    static std::once_flag once;
    std::call_once(once, [] { g_previousTerminate = std::set_terminate(TerminateWithCleanup); });
}

}  // namespace nti::host
