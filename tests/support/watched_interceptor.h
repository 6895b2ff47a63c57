// Support for the interceptor tests: an interceptor whose messages can be
// watched, held back or failed, and helpers for traces and threads.
#pragma once

#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <pthread.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "network_traffic_interceptor/src/nfqueue_interceptor.h"
#include "tests/support/recording_tracer.h"

namespace nti::test {

using Bytes = std::vector<std::uint8_t>;

// WatchedInterceptor records every message the interceptor sends. Sends can
// be failed by their position, verdicts held at a gate, and verdicts kept
// from the kernel (which answers unknown packet ids with errors).
class WatchedInterceptor : public dwi::network_interceptor::NfQueueInterceptor {
public:
    using NfQueueInterceptor::NfQueueInterceptor;

    struct Sent {
        Bytes bytes;
        pthread_t thread;
    };

    ssize_t SendTo(mnl_socket* socket, const nlmsghdr* nlh) noexcept override {
        const bool verdict = NFNL_MSG_TYPE(nlh->nlmsg_type) == NFQNL_MSG_VERDICT;
        std::unique_lock lock(m_mutex);
        const auto* p = reinterpret_cast<const std::uint8_t*>(nlh);
        m_sent.push_back({Bytes(p, p + nlh->nlmsg_len), pthread_self()});
        const std::size_t position = m_sent.size();
        m_changed.notify_all();
        if (verdict) {
            ++m_verdictsAtGate;
            m_changed.notify_all();
            m_changed.wait(lock, [this] { return m_gateOpen; });
        }
        if (position == m_failAt) {
            errno = m_failErrno;
            return -1;
        }
        if (verdict && !m_forwardVerdicts) {
            return static_cast<ssize_t>(nlh->nlmsg_len);
        }
        lock.unlock();
        return NfQueueInterceptor::SendTo(socket, nlh);
    }

    // SendBatch hands each message of the datagram to SendTo, so that
    // batched verdicts are watched, held and forwarded alike.
    ssize_t SendBatch(mnl_socket* socket, const nlmsghdr* first,
                      std::size_t length) noexcept override {
        const auto* bytes = reinterpret_cast<const char*>(first);
        for (std::size_t offset = 0; offset < length;) {
            const auto* nlh = reinterpret_cast<const nlmsghdr*>(bytes + offset);
            SendTo(socket, nlh);
            offset += MNL_ALIGN(nlh->nlmsg_len);
        }
        return static_cast<ssize_t>(length);
    }

    // FailSend makes the `position`-th message (1-based) fail with `error`.
    void FailSend(std::size_t position, int error) {
        std::lock_guard lock(m_mutex);
        m_failAt = position;
        m_failErrno = error;
    }
    void SetGate(bool open) {
        std::lock_guard lock(m_mutex);
        m_gateOpen = open;
        m_changed.notify_all();
    }
    void ForwardVerdicts(bool forward) {
        std::lock_guard lock(m_mutex);
        m_forwardVerdicts = forward;
    }
    std::vector<Sent> AllSent() const {
        std::lock_guard lock(m_mutex);
        return m_sent;
    }
    // Messages of one kind (NFQNL_MSG_CONFIG or NFQNL_MSG_VERDICT).
    std::vector<Bytes> Messages(std::uint8_t type) const {
        std::lock_guard lock(m_mutex);
        std::vector<Bytes> out;
        for (const auto& s : m_sent) {
            const auto* nlh = reinterpret_cast<const nlmsghdr*>(s.bytes.data());
            if (NFNL_MSG_TYPE(nlh->nlmsg_type) == type) {
                out.push_back(s.bytes);
            }
        }
        return out;
    }
    // WaitVerdictsAtGate waits until `count` verdicts reached the gate.
    bool WaitVerdictsAtGate(std::size_t count) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(20),
                                  [&] { return m_verdictsAtGate >= count; });
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Sent> m_sent;
    std::size_t m_failAt = 0;
    int m_failErrno = 0;
    bool m_gateOpen = true;
    bool m_forwardVerdicts = true;
    std::size_t m_verdictsAtGate = 0;
};

// Eventually polls `condition` for up to 20 s.
template <class Condition>
bool Eventually(Condition condition) {
    for (int i = 0; i < 2000; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return condition();
}

// CountThreads counts this process's threads named `name`.
inline int CountThreads(const std::string& name) {
    int n = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string thread;
        std::getline(comm, thread);
        n += thread == name ? 1 : 0;
    }
    return n;
}

// OpenDescriptors counts this process's open descriptors but the iterator's own.
inline int OpenDescriptors() {
    std::filesystem::directory_iterator fds("/proc/self/fd");
    return static_cast<int>(std::distance(begin(fds), end(fds))) - 1;
}

// EventFdCounts lists the counters of this process's eventfds.
inline std::vector<std::uint64_t> EventFdCounts() {
    std::vector<std::uint64_t> counts;
    std::error_code error;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
        if (std::filesystem::read_symlink(fd.path(), error) == "anon_inode:[eventfd]") {
            std::ifstream info("/proc/self/fdinfo/" + fd.path().filename().string());
            for (std::string line; std::getline(info, line);) {
                if (line.rfind("eventfd-count:", 0) == 0) {
                    counts.push_back(std::stoull(line.substr(14), nullptr, 16));
                }
            }
        }
    }
    return counts;
}

}  // namespace nti::test
