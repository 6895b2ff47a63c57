// The host's NFLOG listener: receives logged packets of NFLOG groups over a
// netfilter netlink socket on its own thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "dwi/nflog/nflog.h"
#include "dwi_common/descriptor_notifier.h"
#include "qor/object.h"
#include "qor/trace/tracer.h"

struct mnl_socket;
struct nlmsghdr;

namespace nti::host {

// NflogOptions tune the kernel side of a listener.
struct NflogOptions {
    // Bytes of each packet copied to us. Counting needs the network and
    // transport headers only: 256 covers IPv4 with options (60) plus TCP
    // with options (60), and IPv6 with a few extension headers. The byte
    // count comes from the IP length fields, not from the copy.
    std::uint32_t copyRange = 256;
    // Kernel batch buffer per group (NFULA_CFG_NLBUFSIZ); the kernel caps it
    // at 128 KiB.
    std::uint32_t batchBufferSize = 64 * 1024;
    // A batch is sent when it holds this many packets (NFULA_CFG_QTHRESH) ...
    std::uint32_t queueThreshold = 64;
    // ... or after this many 1/100 s (NFULA_CFG_TIMEOUT): at most 50 ms late.
    std::uint32_t flushTimeout = 5;
    // Socket receive buffer; SO_RCVBUFFORCE first, so root is not held to
    // net.core.rmem_max. Large, because a full buffer loses whole batches.
    int receiveBuffer = 8 * 1024 * 1024;
};

// SequenceTracker follows one group's NFULA_SEQ numbers (which the kernel
// counts per group, also for batches it failed to deliver) and tells how many
// messages went missing before each one. 32-bit wrap-around is handled.
class SequenceTracker {
public:
    // Observe returns the number of messages lost before `seq`; a number at
    // or before the last one (a reordered or repeated message) counts none.
    std::uint32_t Observe(std::uint32_t seq) noexcept;

private:
    std::optional<std::uint32_t> m_next;
};

// NflogFailures counts listener threads that ended on an error (a failed
// poll or recv) rather than at Stop; shared by a factory and its listeners.
using NflogFailures = std::shared_ptr<std::atomic<std::uint32_t>>;

// NflogListener implements dwi::firewall::INflogListener. It holds no
// reference to its callback: the callback owns the listener and stops it
// before it goes away.
class NflogListener : public qor::object::Ifaces<dwi::firewall::INflogListener> {
public:
    // `failures`, when given, is raised once when the thread ends on an error.
    NflogListener(qor::ITracer* tracer, dwi::firewall::INflogDataCallback* callback,
                  const NflogOptions& options, NflogFailures failures = nullptr);
    ~NflogListener() override;
    NflogListener(const NflogListener&) = delete;
    NflogListener& operator=(const NflogListener&) = delete;

    // Start opens the socket in the calling thread's network namespace, binds
    // `groups` and starts the thread "ntiNflog", which Stop wakes through a
    // descriptor notifier. 0x8000006A when running,
    // 0x80000046 for no groups, a converted errno when the kernel refuses
    // (qor::ErrnoToResult; EPERM when another socket has bound a group).
    [[nodiscard]] qor::result_t Start(const std::vector<std::uint16_t>& groups) noexcept override;
    [[nodiscard]] qor::result_t Stop() noexcept override;

    // Diagnostics since the last Start.
    std::uint64_t ReceivedMessages() const noexcept { return m_received.load(); }
    std::uint64_t LostMessages() const noexcept { return m_lost.load(); }
    std::uint64_t Overruns() const noexcept { return m_overruns.load(); }

private:
    [[nodiscard]] qor::result_t Configure(const std::vector<std::uint16_t>& groups);
    // SendConfig sends one acknowledged NFULNL_MSG_CONFIG request.
    [[nodiscard]] qor::result_t SendConfig(std::uint8_t family, std::uint16_t group,
                                           const std::function<void(nlmsghdr*)>& attributes);
    void CloseSocket() noexcept;
    void Loop() noexcept;
    void Fail() noexcept;
    int OnMessage(const nlmsghdr* message) noexcept;

    qor::RefPtr<qor::ITracer> m_tracer;
    dwi::firewall::INflogDataCallback* m_callback;
    NflogOptions m_options;
    NflogFailures m_failures;

    std::mutex m_startStop;
    mnl_socket* m_socket = nullptr;
    std::optional<dwi::DescriptorNotifier> m_stop;
    std::uint32_t m_portId = 0;
    std::uint32_t m_configSeq = 0;
    std::vector<std::uint16_t> m_groups;  // bound ones
    bool m_delivering = false;
    std::thread m_thread;

    // Owned by the listener thread while it runs.
    std::map<std::uint16_t, SequenceTracker> m_sequences;
    std::atomic<std::uint64_t> m_received{0};
    std::atomic<std::uint64_t> m_lost{0};
    std::atomic<std::uint64_t> m_overruns{0};
};

// NflogListenerFactory implements dwi::firewall::INflogListenerFactory.
class NflogListenerFactory : public qor::object::Ifaces<dwi::firewall::INflogListenerFactory> {
public:
    NflogListenerFactory(qor::ITracer* tracer, const NflogOptions& options = {});
    [[nodiscard]] qor::result_t CreateListener(
        dwi::firewall::INflogDataCallback* callback,
        dwi::firewall::INflogListener** out) noexcept override;

    // FailedListeners counts the listeners made here whose thread ended on an
    // error: they deliver nothing more, so what they fed counts no longer.
    std::uint32_t FailedListeners() const noexcept { return m_failures->load(); }

private:
    qor::RefPtr<qor::ITracer> m_tracer;
    NflogOptions m_options;
    NflogFailures m_failures = std::make_shared<std::atomic<std::uint32_t>>(0);
};

}  // namespace nti::host
