// NfQueueInterceptor: one consumer's packet interception over a pair of
// NFQUEUE queues, with its netlink channels, poll thread and reply thread.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "dwi/firewall/rules.h"
#include "dwi/firewall/services.h"
#include "dwi_common/descriptor_notifier.h"
#include "dwi_common/mnl_parser.h"
#include "network_traffic_interceptor/network_interceptor.h"
#include "network_traffic_interceptor/src/thread_runnable.h"
#include "qor/object.h"
#include "qor/rtl/providers.h"
#include "qor/service_locator.h"
#include "qor/trace/tracer.h"

struct mnl_socket;
struct nlmsghdr;
struct nlattr;

namespace dwi::network_interceptor {

// QueueEndpoint is one channel: its netlink socket and the queue it is bound
// to. Packets and verdicts are matched to a channel by both fields.
struct QueueEndpoint {
    mnl_socket* socket = nullptr;
    std::uint16_t queueNumber = 0xFFFF;

    friend bool operator==(const QueueEndpoint&, const QueueEndpoint&) = default;
};

// VerdictRequest is a verdict waiting for the reply thread.
struct VerdictRequest {
    QueueEndpoint endpoint;
    std::uint32_t packetId = 0;
    std::uint32_t verdict = 0;
};

// One read from a channel: the largest packet plus the message around it.
inline constexpr std::size_t kReceiveBufferSize = 0xFFFF + 2048;
// kReadBatch bounds the messages one read takes from one channel, so that a
// busy queue cannot starve the other within a poll round.
inline constexpr unsigned kReadBatch = 32;
// kReceiveSlotStride keeps every receive slot aligned for nlmsghdr.
inline constexpr std::size_t kReceiveSlotStride = (kReceiveBufferSize + 15) & ~std::size_t{15};
// kSendBatch bounds the verdicts the reply thread hands the kernel per call.
inline constexpr unsigned kSendBatch = 64;

// NfQueueInterceptor's code follows the data: lifecycle and firewall rules in
// nfqueue_interceptor.cpp, channel set-up in nfqueue_channel.cpp, the poll and
// reply threads with the verdict queue in nfqueue_threads.cpp.
class NfQueueInterceptor : public qor::object::Ifaces<>,
                           private qor::ServiceLocatorProvider,
                           private qor::TracerProvider {
public:
    NfQueueInterceptor(qor::IServiceLocator* serviceLocator, qor::ITracer* tracer,
                       qor::RefPtr<dwi::firewall::IDynamicRules> firewall);
    // Does not stop: an interceptor still started is woken and joined, its
    // rules removed by its poll thread on the way out.
    ~NfQueueInterceptor() override;

    // Start reserves two queues, opens their channels and starts the poll and
    // reply threads; the poll thread installs `filter` tagged `serviceName`.
    // 0x8000006A when started already.
    [[nodiscard]] virtual qor::result_t Start(const dwi::firewall::Filter& filter,
                                              IPacketEventCallback* eventCallback,
                                              const char* serviceName) noexcept;
    // Stop wakes and joins both threads and closes the channels. 0x8000006A
    // when stopped already.
    [[nodiscard]] virtual qor::result_t Stop() noexcept;
    // SetVerdict sends or queues the verdict for `packet` on the queue it came
    // from (packet.queue 1 input, 2 output). 1 for LATER.
    [[nodiscard]] virtual qor::result_t SetVerdict(const Packet& packet,
                                                   std::uint32_t verdict) noexcept;

protected:
    // SendTo writes one whole message to the kernel; returns the byte count or
    // -1 with errno set. Every message but the reply thread's leaves through it.
    virtual ssize_t SendTo(mnl_socket* socket, const nlmsghdr* nlh) noexcept;
    // SendBatch writes `length` bytes of consecutive whole messages as one
    // datagram; the kernel handles each message on its own, in order.
    // Returns the byte count, or -1 with errno set when none was delivered.
    // The reply thread's runs of verdicts leave through it.
    virtual ssize_t SendBatch(mnl_socket* socket, const nlmsghdr* first,
                              std::size_t length) noexcept;

private:
    [[nodiscard]] qor::result_t InitNetLinkSocket();
    [[nodiscard]] qor::result_t InitNetLinkSocket(std::uint16_t queueNumber, mnl_socket** socket);
    [[nodiscard]] qor::result_t Request(mnl_socket* sock, const nlmsghdr* nlh);
    [[nodiscard]] qor::result_t SendMessage(mnl_socket* socket, const nlmsghdr* nlh);

    [[nodiscard]] qor::result_t AddFirewallRules();
    [[nodiscard]] qor::result_t RemoveFirewallRules();
    [[nodiscard]] qor::result_t SetFirewallRules(bool insert);

    [[nodiscard]] qor::result_t Run();
    [[nodiscard]] qor::result_t ReadFromSocket(const QueueEndpoint& endpoint);
    int HandlePacket(const QueueEndpoint& endpoint, const nlmsghdr* nlh, const nlattr** table);
    [[nodiscard]] qor::result_t NewPacketReceived(const QueueEndpoint& endpoint, Packet& packet);

    [[nodiscard]] qor::result_t SetVerdict(const QueueEndpoint& endpoint, const Packet& packet,
                                           std::uint32_t verdict);
    [[nodiscard]] qor::result_t ReplyThread();
    // SendVerdicts sends `requests` in order, one message each; a failed one
    // is traced (as the reply thread's) and the rest still go.
    void SendVerdicts(const std::vector<VerdictRequest>& requests);
    void NotifyReplyThread();

    // Wakes threads left running (after a failed reply-thread start, or on
    // destruction) and joins them.
    void ReapThreads() noexcept;
    void CloseSockets() noexcept;

    QueueEndpoint m_input;
    QueueEndpoint m_output;
    // Guards the verdict queue and the lifetime of the three notifiers, which
    // the threads destroy on their way out while others may notify them.
    std::recursive_mutex m_verdictMutex;
    std::vector<VerdictRequest> m_verdicts;
    std::optional<DescriptorNotifier> m_stop;
    bool m_stopped = true;
    std::recursive_mutex m_stateMutex;
    ThreadHandle m_pollThread;
    ThreadHandle m_replyThread;
    std::optional<DescriptorNotifier> m_stopReply;
    std::optional<DescriptorNotifier> m_verdictEvent;
    qor::RefPtr<IPacketEventCallback> m_eventCallback;
    dwi::firewall::Filter m_filter;
    std::string m_tag;
    qor::RefPtr<dwi::firewall::IDynamicRules> m_firewall;
    // Poll thread only: kReadBatch receive slots of kReceiveBufferSize bytes,
    // the parser, the endpoint being read, and whether verdicts were queued
    // without waking the reply thread (it is woken once per poll round).
    std::unique_ptr<std::uint8_t[]> m_receiveBuffer;
    std::array<iovec, kReadBatch> m_receiveVectors{};
    std::array<mmsghdr, kReadBatch> m_receiveMessages{};
    const QueueEndpoint* m_readingEndpoint = nullptr;
    tools::MnlParser m_packetParser;
    bool m_wakePending = false;
};

}  // namespace dwi::network_interceptor
