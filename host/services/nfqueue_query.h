// NfqueueQuery: the host's allocator of NFQUEUE queue numbers.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "dwi/firewall/services.h"
#include "qor/object.h"

namespace nti::host {

// QueueStats is one line of /proc/net/netfilter/nfnetlink_queue: a queue that
// some netlink socket of this network namespace has bound.
struct QueueStats {
    std::uint16_t queue = 0;
    std::uint32_t portId = 0;   // netlink port id of the binding socket
    std::uint32_t waiting = 0;  // packets queued, waiting for a verdict
    std::uint32_t copyMode = 0;
    std::uint32_t copyRange = 0;
    std::uint32_t queueDropped = 0;  // dropped because the queue was full
    std::uint32_t userDropped = 0;   // dropped because the socket buffer was full
    std::uint32_t idSequence = 0;    // last packet id handed out
};

// ParseQueueStats reads the text of /proc/net/netfilter/nfnetlink_queue;
// malformed lines are skipped.
std::vector<QueueStats> ParseQueueStats(std::string_view text);

// ReadQueueStats reads and parses `path`; a missing file (queue support not
// loaded yet) reads as no queue bound.
std::vector<QueueStats> ReadQueueStats(const std::string& path);

inline constexpr const char* kNfqueueProcPath = "/proc/net/netfilter/nfnetlink_queue";

// NfqueueQuery hands out runs of consecutive queue numbers from a range. A
// number is never handed out while the kernel shows it bound, nor while an
// earlier caller still holds it: a number stays taken until ReleaseQueues, or until
// the kernel has shown it bound and then no longer does.
class NfqueueQuery : public qor::object::Ifaces<firewall::INfqueueQuery> {
public:
    NfqueueQuery(std::uint16_t first, std::uint16_t last, std::string procPath = kNfqueueProcPath);

    // GetAvailableQueue takes the lowest free run of `count` numbers.
    // 0x80000046 for a count of 0, 0x8000004C when no run is free.
    [[nodiscard]] qor::result_t GetAvailableQueue(std::uint32_t count,
                                                  std::uint16_t* queueNum) noexcept override;

    // ReleaseQueues gives back `count` numbers from `first` taken earlier.
    void ReleaseQueues(std::uint16_t first, std::uint32_t count);

    // Taken lists the numbers currently held by callers, ascending.
    std::vector<std::uint16_t> Taken() const;

private:
    struct Hold {
        bool seenBound = false;
    };

    std::uint16_t m_first;
    std::uint16_t m_last;
    std::string m_procPath;
    mutable std::mutex m_mutex;
    std::map<std::uint16_t, Hold> m_taken;
};

}  // namespace nti::host
