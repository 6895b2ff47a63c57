// The poll thread (reads queued packets, asks the callback), the verdict
// queue and the reply thread that drains it.
#include "network_traffic_interceptor/src/nfqueue_interceptor.h"

#include <libmnl/libmnl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "dwi_common/mnl_parser.h"
#include "dwi_tracing/check.h"
#include "dwi_tracing/tracing.h"
#include "network_traffic_interceptor/src/nfqueue_messages.h"
#include "qor/exception.h"

namespace dwi::network_interceptor {

using qor::result_t;
namespace errors = qor::errors;
namespace level = qor::trace_level;

namespace {

constexpr int kPollTimeoutMs = 5000;
constexpr short kPollFailure = POLLERR | POLLHUP | POLLNVAL;

// The interceptor whose poll thread is dispatching a read on this thread: its
// queued verdicts wake the reply thread once, at the end of the poll round.
thread_local const NfQueueInterceptor* t_roundOwner = nullptr;

}  // namespace

// ---------------------------------------------------------------------------
// Poll thread

result_t NfQueueInterceptor::Run() {
    prctl(PR_SET_NAME, "zoltNfQPoll", 0, 0, 0);
    DWI_TRACE_ENTRY(GetTracer());
    result_t result = errors::kOk;
    try {
        const result_t _result = AddFirewallRules();
        if (!QOR_SUCCEEDED(_result)) {
            DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_HERE, "AddFirewallRules()", _result)
                << "Cannot add rules to firewall";
            result = _result;
        } else {
            pollfd fds[3] = {{mnl_socket_get_fd(m_input.socket), POLLIN, 0},
                             {mnl_socket_get_fd(m_output.socket), POLLIN, 0},
                             {m_stop->GetDescriptor(), POLLIN, 0}};
            for (;;) {
                const int ready = poll(fds, 3, kPollTimeoutMs);
                if (ready == -1) {
                    const int error = errno;
                    DWI_TRACE_FN(GetTracer(), level::kError)
                        << "poll error: " << qor::ErrnoText(error);
                    result = errors::kUnspecified;
                    break;
                }
                if (ready == 0) {
                    continue;
                }
                if ((fds[0].revents & kPollFailure) != 0) {
                    DWI_TRACE_FN(GetTracer(), level::kError) << "Corrupted input netlink socket";
                    result = errors::kInvalidState;
                    break;
                }
                if ((fds[1].revents & kPollFailure) != 0) {
                    DWI_TRACE_FN(GetTracer(), level::kError) << "Corrupted output netlink socket";
                    result = errors::kInvalidState;
                    break;
                }
                if ((fds[2].revents & POLLIN) != 0) {
                    // The thread ends here: the event is not polled again.
                    static_cast<void>(m_stop->Reset());
                    DWI_TRACE_FN(GetTracer(), level::kDebug)
                        << "Received stop event, stopping interceptor thread";
                    DWI_TRACE_EXIT(GetTracer()) << "interceptor thread successfully was stopped";
                    result = errors::kOk;
                    break;
                }
                t_roundOwner = this;
                if ((fds[0].revents & POLLIN) != 0) {
                    const result_t rc = ReadFromSocket(m_input);
                    if (!QOR_SUCCEEDED(rc)) {
                        DWI_TRACE_FN(GetTracer(), level::kError)
                            << ::dwi::check::ResultHead{QOR_HERE, "rc", rc} << ' '
                            << "failed to read from input queue: " << qor::trace::Result{rc};
                    }
                }
                if ((fds[1].revents & POLLIN) != 0) {
                    const result_t rc = ReadFromSocket(m_output);
                    if (!QOR_SUCCEEDED(rc)) {
                        DWI_TRACE_FN(GetTracer(), level::kError)
                            << ::dwi::check::ResultHead{QOR_HERE, "rc", rc} << ' '
                            << "failed to read from output queue: " << qor::trace::Result{rc};
                    }
                }
                t_roundOwner = nullptr;
                if (std::exchange(m_wakePending, false)) {
                    NotifyReplyThread();
                }
            }
        }
    } catch (...) {
        result = qor::CurrentExceptionToResult(GetTracer(), "Run");
    }
    t_roundOwner = nullptr;
    if (std::exchange(m_wakePending, false)) {
        NotifyReplyThread();
    }
    // The rules live exactly as long as this thread. A failure is traced by
    // RemoveFirewallRules; the thread's result stays that of its run.
    static_cast<void>(RemoveFirewallRules());
    std::lock_guard lock(m_verdictMutex);
    m_stop.reset();
    return result;
}

result_t NfQueueInterceptor::ReadFromSocket(const QueueEndpoint& endpoint) {
    // The kernel queues one message per packet: one call takes up to a
    // batch of them, never waiting for more than poll announced.
    sockaddr_nl senders[kReadBatch];
    for (unsigned i = 0; i < kReadBatch; ++i) {
        m_receiveMessages[i].msg_hdr = {
            &senders[i], sizeof(senders[i]), &m_receiveVectors[i], 1, nullptr, 0, 0};
    }
    const int received = recvmmsg(mnl_socket_get_fd(endpoint.socket), m_receiveMessages.data(),
                                  kReadBatch, MSG_DONTWAIT, nullptr);
    if (received < 0) {
        const int error = errno;
        if (error == EAGAIN) {
            return errors::kOk;
        }
        DWI_TRACE_FN(GetTracer(), level::kError)
            << "Cannot read from netlink socket: " << qor::ErrnoText(error);
        return errors::kUnspecified;
    }
    result_t result = errors::kOk;
    m_readingEndpoint = &endpoint;
    const unsigned portId = mnl_socket_get_portid(endpoint.socket);
    for (int i = 0; i < received; ++i) {
        const mmsghdr& message = m_receiveMessages[i];
        // A message cut short or not from a netlink peer is lost, as a
        // single read would report it.
        if ((message.msg_hdr.msg_flags & MSG_TRUNC) != 0 ||
            message.msg_hdr.msg_namelen != sizeof(sockaddr_nl)) {
            const int error = (message.msg_hdr.msg_flags & MSG_TRUNC) != 0 ? ENOSPC : EINVAL;
            DWI_TRACE_FN(GetTracer(), level::kError)
                << "Cannot read from netlink socket: " << qor::ErrnoText(error);
            result = errors::kUnspecified;
            continue;
        }
        if (m_packetParser.Parse(m_receiveVectors[i].iov_base, message.msg_len, 0, portId) < 0) {
            const int error = errno;
            DWI_TRACE_FN(GetTracer(), level::kError)
                << "Cannot run callback: " << qor::ErrnoText(error);
            result = errors::kUnspecified;
        }
    }
    m_readingEndpoint = nullptr;
    return result;
}

int NfQueueInterceptor::HandlePacket(const QueueEndpoint& endpoint, const nlmsghdr* nlh,
                                     const nlattr** table) {
    Packet packet;
    if (ReadQueuedPacket(nlh, table, packet)) {
        // NewPacketReceived traces its failures; the next packets go on regardless.
        static_cast<void>(NewPacketReceived(endpoint, packet));
    }
    return MNL_CB_OK;
}

result_t NfQueueInterceptor::NewPacketReceived(const QueueEndpoint& endpoint, Packet& packet) {
    DWI_TRACE_ENTRY(GetTracer());
    Verdict verdict = Verdict::ALLOW;
    if (m_eventCallback) {
        if (endpoint == m_input) {
            packet.queue = 1;
        } else if (endpoint == m_output) {
            packet.queue = 2;
        }
        const result_t _result = m_eventCallback->OnPacketReceived(packet, verdict);
        if (!QOR_SUCCEEDED(_result)) {
            DWI_TRACE_FN(GetTracer(), level::kWarning)
                << ::dwi::check::ResultHead{QOR_HERE,
                                            "m_eventCallback->OnPacketReceived(packet, verdict)",
                                            _result}
                << ' ' << "Cannot process packet " << packet.id;
        }
    }
    // SetVerdict traces each of its failures, and kFalse only says the consumer
    // answers later: nothing else can be done for the packet here.
    static_cast<void>(SetVerdict(endpoint, packet, static_cast<std::uint32_t>(verdict)));
    return errors::kOk;
}

// ---------------------------------------------------------------------------
// Verdicts and reply thread

result_t NfQueueInterceptor::SetVerdict(const Packet& packet, std::uint32_t verdict) noexcept {
    QueueEndpoint endpoint;
    if (packet.queue == 1) {
        endpoint = m_input;
    } else if (packet.queue == 2) {
        endpoint = m_output;
    } else {
        DWI_TRACE_FN(GetTracer(), level::kError) << "Cannot set verdict: unknown queue for packet";
        return errors::kUnspecified;
    }
    if (endpoint.socket == nullptr) {
        DWI_TRACE_FN(GetTracer(), level::kError) << "Cannot set verdict: interceptor is stopped";
        return errors::kInvalidState;
    }
    return SetVerdict(endpoint, packet, verdict);
}

result_t NfQueueInterceptor::SetVerdict(const QueueEndpoint& endpoint, const Packet& packet,
                                        std::uint32_t verdict) {
    QOR_TRACE(GetTracer(), level::kDebug) << __func__ << "() " << VerdictName(verdict);
    if (verdict == static_cast<std::uint32_t>(Verdict::LATER)) {
        return errors::kFalse;
    }
    const VerdictRequest request{endpoint, packet.id, verdict};
    if (packet.payloadChanged) {
        // One buffer per sending thread, kept for its life.
        thread_local std::vector<char> buffer;
        if (buffer.empty()) {
            buffer.resize(kVerdictBufferSize);
        }
        const nlmsghdr* nlh =
            BuildVerdictMessage(buffer.data(), buffer.size(), request.endpoint.queueNumber,
                                request.packetId, NetfilterVerdict(request.verdict), &packet);
        if (nlh == nullptr) {
            DWI_TRACE_FN(GetTracer(), level::kError)
                << "Cannot send verdict: payload of "
                << static_cast<std::uint64_t>(packet.payloadEnd - packet.payloadBegin)
                << " bytes does not fit";
            return errors::kUnspecified;
        }
        const ssize_t ret = SendTo(request.endpoint.socket, nlh);
        if (ret == -1) {
            const int error = errno;
            DWI_BOOL_RECORD(GetTracer(), level::kError, QOR_HERE, "ret != -1")
                << "Cannot send verdict " << qor::ErrnoText(error);
            return errors::kUnspecified;
        }
        return errors::kOk;
    }
    std::lock_guard lock(m_verdictMutex);
    // A non-empty queue has a wake-up pending already: the reply thread takes
    // the whole queue after consuming it.
    const bool wake = m_verdicts.empty();
    m_verdicts.push_back(request);
    if (t_roundOwner == this) {
        m_wakePending = true;
    } else if (wake) {
        NotifyReplyThread();
    }
    return errors::kOk;
}

void NfQueueInterceptor::NotifyReplyThread() {
    std::lock_guard lock(m_verdictMutex);
    if (!m_verdictEvent) {
        return;
    }
    if (const result_t _result = m_verdictEvent->Notify(); !QOR_SUCCEEDED(_result)) {
        const int error = errno;
        // Traced as the queueing step it completes.
        QOR_TRACE(GetTracer(), level::kDebug)
            << "SetVerdict: "
            << ::dwi::check::ResultHead{QOR_HERE, "m_verdictEvent->Notify()", _result} << ' '
            << "Cannot write : " << qor::ErrnoText(error);
    }
}

result_t NfQueueInterceptor::ReplyThread() {
    prctl(PR_SET_NAME, "zoltNfQReply", 0, 0, 0);
    DWI_TRACE_ENTRY(GetTracer());
    result_t result = errors::kOk;
    try {
        pollfd fds[2] = {{m_verdictEvent->GetDescriptor(), POLLIN, 0},
                         {m_stopReply->GetDescriptor(), POLLIN, 0}};
        std::vector<VerdictRequest> taken;
        for (;;) {
            const int ready = poll(fds, 2, kPollTimeoutMs);
            if (ready == -1) {
                const int error = errno;
                DWI_TRACE_FN(GetTracer(), level::kError) << "poll error: " << qor::ErrnoText(error);
                result = errors::kUnspecified;
                break;
            }
            if (ready == 0) {
                continue;
            }
            if ((fds[1].revents & POLLIN) != 0) {
                // The thread ends here: the event is not polled again.
                static_cast<void>(m_stopReply->Reset());
                DWI_TRACE_FN(GetTracer(), level::kDebug)
                    << "Received stop event, stopping reply thread";
                DWI_TRACE_EXIT(GetTracer()) << "ReplyThread was stopped";
                result = errors::kOk;
                break;
            }
            if ((fds[0].revents & POLLIN) != 0) {
                // Left set, the event only wakes the next poll at once.
                static_cast<void>(m_verdictEvent->Reset());
                {
                    std::lock_guard lock(m_verdictMutex);
                    taken.swap(m_verdicts);
                }
                SendVerdicts(taken);
                // Keeps the capacity: the two vectors take turns as the queue.
                taken.clear();
            }
        }
    } catch (...) {
        result = qor::CurrentExceptionToResult(GetTracer(), "ReplyThread");
    }
    std::lock_guard lock(m_verdictMutex);
    m_stopReply.reset();
    m_verdictEvent.reset();
    return result;
}

void NfQueueInterceptor::SendVerdicts(const std::vector<VerdictRequest>& requests) {
    alignas(nlmsghdr) char buffer[kSendBatch * kShortVerdictBufferSize];
    const auto sendOne = [this](mnl_socket* socket, const nlmsghdr* nlh) {
        if (SendTo(socket, nlh) == -1) {
            const int error = errno;
            // Traced as the reply thread's, whose queue it drains.
            QOR_TRACE(GetTracer(), level::kError)
                << "ReplyThread: Cannot send packet verdict: " << qor::ErrnoText(error);
        }
    };
    std::size_t next = 0;
    while (next < requests.size()) {
        // One datagram per run of verdicts for the same channel, in queue
        // order, each verdict still its own message.
        mnl_socket* const socket = requests[next].endpoint.socket;
        std::size_t length = 0;
        unsigned count = 0;
        for (; count < kSendBatch && next < requests.size() &&
               requests[next].endpoint.socket == socket;
             ++count, ++next) {
            const VerdictRequest& request = requests[next];
            const nlmsghdr* nlh = BuildVerdictMessage(
                buffer + length, kShortVerdictBufferSize, request.endpoint.queueNumber,
                request.packetId, NetfilterVerdict(request.verdict), nullptr);
            length += MNL_ALIGN(nlh->nlmsg_len);
        }
        const auto* first = reinterpret_cast<const nlmsghdr*>(buffer);
        if (count == 1) {
            sendOne(socket, first);
            continue;
        }
        if (SendBatch(socket, first, length) != -1) {
            continue;
        }
        // A refused datagram reached the kernel not at all: each verdict goes
        // again alone, so that one that cannot be sent loses only itself.
        for (std::size_t offset = 0; offset < length;) {
            const auto* nlh = reinterpret_cast<const nlmsghdr*>(buffer + offset);
            sendOne(socket, nlh);
            offset += MNL_ALIGN(nlh->nlmsg_len);
        }
    }
}

}  // namespace dwi::network_interceptor
