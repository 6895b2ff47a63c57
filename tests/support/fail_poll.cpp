// A poll that fails in one thread, preloaded into nti by the tests of its
// endings: the kernel fails a poll on no request, so nothing else makes a
// thread of nti meet that error while its rules are in.
//
// NTI_FAIL_POLL_THREAD names the thread (as prctl sets it); its poll calls
// fail with EIO from NTI_FAIL_POLL_AFTER_MS milliseconds after its first one,
// and a call that would wait past that moment returns at it.
#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

using Clock = std::chrono::steady_clock;
using Poll = int (*)(pollfd*, nfds_t, int);

int FailingPoll(pollfd* fds, nfds_t count, int timeout) {
    static const auto real = reinterpret_cast<Poll>(dlsym(RTLD_NEXT, "poll"));
    static const char* const thread = std::getenv("NTI_FAIL_POLL_THREAD");
    char name[16] = {};
    if (thread != nullptr && pthread_getname_np(pthread_self(), name, sizeof(name)) == 0 &&
        std::strcmp(name, thread) == 0) {
        static const char* const after = std::getenv("NTI_FAIL_POLL_AFTER_MS");
        static const Clock::time_point failAt =
            Clock::now() + std::chrono::milliseconds(after != nullptr ? std::atol(after) : 0);
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(failAt - Clock::now()).count();
        if (left <= 0) {
            errno = EIO;
            return -1;
        }
        if (timeout < 0 || timeout > left) {
            timeout = static_cast<int>(left);
        }
    }
    return real(fds, count, timeout);
}

}  // namespace

extern "C" {

int poll(pollfd* fds, nfds_t count, int timeout) {
    return FailingPoll(fds, count, timeout);
}

// What _FORTIFY_SOURCE makes of a poll on an array of known size.
int __poll_chk(pollfd* fds, nfds_t count, int timeout, std::size_t) {
    return FailingPoll(fds, count, timeout);
}

}  // extern "C"
