// EnterPrivateNetns moves the calling process into a network namespace of its
// own, once, so that tests may configure NFQUEUE and firewall rules without
// touching the machine's own. Call it before the process starts threads.
#pragma once

#include <sched.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace nti::test {

// Returns an empty string on success, else the reason.
inline std::string EnterPrivateNetns() {
    static const std::string failure = [] {
        if (unshare(CLONE_NEWNET) != 0) {
            return std::string("unshare(CLONE_NEWNET): ") + std::strerror(errno);
        }
        return std::string();
    }();
    return failure;
}

}  // namespace nti::test
