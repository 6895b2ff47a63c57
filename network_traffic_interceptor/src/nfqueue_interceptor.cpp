#include "network_traffic_interceptor/src/nfqueue_interceptor.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "dwi_common/mnl_parser.h"
#include "dwi_tracing/check.h"
#include "dwi_tracing/tracing.h"
#include "network_traffic_interceptor/src/nfqueue_attributes.h"
#include "qor/exception.h"
#include "qor/rtl/objclient.h"

namespace dwi::network_interceptor {

using qor::result_t;
namespace errors = qor::errors;
namespace level = qor::trace_level;

namespace {

constexpr int kPollTimeoutMs = 5000;
constexpr std::uint32_t kQueueCount = 2;
constexpr std::uint32_t kQueueMaxLen = 65535;
constexpr short kPollFailure = POLLERR | POLLHUP | POLLNVAL;

nlmsghdr* BuildHeader(char* buffer, std::uint8_t type, std::uint16_t flags,
                      std::optional<std::uint16_t> queueNumber) {
    nlmsghdr* nlh = mnl_nlmsg_put_header(buffer);
    nlh->nlmsg_type = static_cast<std::uint16_t>((NFNL_SUBSYS_QUEUE << 8) | type);
    nlh->nlmsg_flags = flags;
    nlh->nlmsg_seq = 0;
    nlh->nlmsg_pid = 0;
    auto* nfg = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(nfgenmsg)));
    nfg->nfgen_family = AF_UNSPEC;
    nfg->version = NFNETLINK_V0;
    nfg->res_id = queueNumber ? htons(*queueNumber) : 0;
    return nlh;
}

nlmsghdr* BuildConfigHeader(char* buffer, std::optional<std::uint16_t> queueNumber) {
    // Padding bytes of the attributes must not carry stale data.
    std::memset(buffer, 0, kConfigBufferSize);
    return BuildHeader(buffer, NFQNL_MSG_CONFIG, NLM_F_REQUEST | NLM_F_ACK, queueNumber);
}

nlmsghdr* BuildCfgCommand(char* buffer, std::uint8_t command, std::uint16_t pf,
                          std::optional<std::uint16_t> queueNumber) {
    nlmsghdr* nlh = BuildConfigHeader(buffer, queueNumber);
    const nfqnl_msg_config_cmd cmd{command, 0, htons(pf)};
    mnl_attr_put(nlh, NFQA_CFG_CMD, sizeof(cmd), &cmd);
    return nlh;
}

// The interceptor whose poll thread is dispatching a read on this thread: its
// queued verdicts wake the reply thread once, at the end of the poll round.
thread_local const NfQueueInterceptor* t_roundOwner = nullptr;

struct SocketCloser {
    void operator()(mnl_socket* socket) const noexcept { mnl_socket_close(socket); }
};
using SocketPtr = std::unique_ptr<mnl_socket, SocketCloser>;

}  // namespace

nlmsghdr* BuildCfgPfRequest(char* buffer, std::uint8_t command, std::uint16_t pf) {
    return BuildCfgCommand(buffer, command, pf, std::nullopt);
}

nlmsghdr* BuildCfgRequest(char* buffer, std::uint8_t command, std::uint16_t queueNumber) {
    return BuildCfgCommand(buffer, command, AF_INET, queueNumber);
}

nlmsghdr* BuildCfgParams(char* buffer, std::uint8_t mode, std::uint32_t range,
                         std::uint16_t queueNumber) {
    nlmsghdr* nlh = BuildConfigHeader(buffer, queueNumber);
    nfqnl_msg_config_params params{};
    params.copy_range = htonl(range);
    params.copy_mode = mode;
    mnl_attr_put(nlh, NFQA_CFG_PARAMS, sizeof(params), &params);
    return nlh;
}

nlmsghdr* BuildCfgFlagsGSO(char* buffer, std::uint16_t queueNumber) {
    nlmsghdr* nlh = BuildConfigHeader(buffer, queueNumber);
    mnl_attr_put_u32(nlh, NFQA_CFG_MASK, htonl(NFQA_CFG_F_GSO));
    mnl_attr_put_u32(nlh, NFQA_CFG_FLAGS, htonl(NFQA_CFG_F_GSO));
    return nlh;
}

nlmsghdr* BuildCfgQueueMaxLen(char* buffer, std::uint16_t queueNumber) {
    nlmsghdr* nlh = BuildConfigHeader(buffer, queueNumber);
    mnl_attr_put_u32(nlh, NFQA_CFG_QUEUE_MAXLEN, htonl(kQueueMaxLen));
    return nlh;
}

nlmsghdr* BuildVerdictMessage(char* buffer, std::size_t size, std::uint16_t queueNumber,
                              std::uint32_t packetId, std::uint32_t nfVerdict,
                              const Packet* packet) noexcept {
    const bool withMark = packet != nullptr && packet->mark != 0;
    const bool withPayload = packet != nullptr && packet->payloadChanged;
    const std::size_t payloadSize =
        withPayload && packet->payloadEnd > packet->payloadBegin
            ? static_cast<std::size_t>(packet->payloadEnd - packet->payloadBegin)
            : 0;
    const std::size_t needed = MNL_NLMSG_HDRLEN + MNL_ALIGN(sizeof(nfgenmsg)) + MNL_ATTR_HDRLEN +
                               MNL_ALIGN(sizeof(nfqnl_msg_verdict_hdr)) +
                               (withMark ? MNL_ATTR_HDRLEN + MNL_ALIGN(sizeof(std::uint32_t)) : 0) +
                               (withPayload ? MNL_ATTR_HDRLEN + MNL_ALIGN(payloadSize) : 0);
    // An attribute length is 16 bits wide.
    if (needed > size || payloadSize + MNL_ATTR_HDRLEN > 0xFFFF) {
        return nullptr;
    }
    nlmsghdr* nlh = BuildHeader(buffer, NFQNL_MSG_VERDICT, NLM_F_REQUEST, queueNumber);
    const nfqnl_msg_verdict_hdr header{htonl(nfVerdict), htonl(packetId)};
    mnl_attr_put(nlh, NFQA_VERDICT_HDR, sizeof(header), &header);
    if (withMark) {
        mnl_attr_put_u32(nlh, NFQA_MARK, htonl(packet->mark));
    }
    if (withPayload) {
        mnl_attr_put(nlh, NFQA_PAYLOAD, payloadSize, packet->payloadBegin);
        const std::size_t padding = MNL_ALIGN(payloadSize) - payloadSize;
        std::memset(reinterpret_cast<char*>(nlh) + nlh->nlmsg_len - padding, 0, padding);
    }
    return nlh;
}

std::uint32_t NetfilterVerdict(std::uint32_t verdict) noexcept {
    switch (static_cast<Verdict>(verdict)) {
        case Verdict::ALLOW:
            return NF_ACCEPT;
        case Verdict::DROP:
            return NF_DROP;
        case Verdict::REPEAT:
            return NF_REPEAT;
        default:
            return NF_ACCEPT;
    }
}

NfQueueInterceptor::NfQueueInterceptor(qor::IServiceLocator* serviceLocator, qor::ITracer* tracer,
                                       qor::RefPtr<dwi::firewall::IDynamicRules> firewall)
    : ServiceLocatorProvider(serviceLocator),
      TracerProvider(qor::trace::CreatePrefixTracer(tracer, "NfQueueInterceptor")),
      m_firewall(std::move(firewall)),
      // Slots are touched only as far as messages fill them.
      m_receiveBuffer(
          std::make_unique_for_overwrite<std::uint8_t[]>(kReadBatch * kReceiveSlotStride)),
      m_packetParser(
          GetTracer(),
          [this](const nlmsghdr* nlh, const nlattr** table) {
              return HandlePacket(*m_readingEndpoint, nlh, table);
          },
          kNfqueueMaxAttribute, &NfqueueAttributeChecker()) {
    DWI_TRACE_ENTRY(GetTracer());
    for (unsigned i = 0; i < kReadBatch; ++i) {
        m_receiveVectors[i] = {m_receiveBuffer.get() + i * kReceiveSlotStride, kReceiveBufferSize};
    }
}

NfQueueInterceptor::~NfQueueInterceptor() {
    DWI_TRACE_ENTRY(GetTracer());
    ReapThreads();
    CloseSockets();
}

void NfQueueInterceptor::ReapThreads() noexcept {
    {
        std::lock_guard lock(m_verdictMutex);
        if (m_stop) {
            DWI_IGNORED_RESULT(GetTracer(), m_stop->Notify(), "Cannot stop interceptor thread");
        }
        if (m_stopReply) {
            DWI_IGNORED_RESULT(GetTracer(), m_stopReply->Notify(), "Cannot stop reply thread");
        }
    }
    for (ThreadHandle* thread : {&m_replyThread, &m_pollThread}) {
        // A join from the thread itself fails: that thread frees its object.
        if (*thread && (*thread)->Joinable() && !QOR_SUCCEEDED((*thread)->Join())) {
            (*thread)->Detach();
        }
        thread->reset();
    }
}

void NfQueueInterceptor::CloseSockets() noexcept {
    if (m_input.socket != nullptr) {
        mnl_socket_close(std::exchange(m_input.socket, nullptr));
    }
    if (m_output.socket != nullptr) {
        mnl_socket_close(std::exchange(m_output.socket, nullptr));
    }
}

// ---------------------------------------------------------------------------
// Lifecycle

result_t NfQueueInterceptor::Start(const dwi::firewall::Filter& filter,
                                   IPacketEventCallback* eventCallback,
                                   const char* serviceName) noexcept {
    std::lock_guard lock(m_stateMutex);
    DWI_TRACE_ENTRY(GetTracer());
    try {
        if (!m_stopped) {
            DWI_TRACE_FN(GetTracer(), level::kDebug) << "interceptor is started already";
            return errors::kInvalidState;
        }
        // Only a failed reply-thread start leaves a poll thread behind.
        ReapThreads();

        m_eventCallback = qor::RefPtr<IPacketEventCallback>(eventCallback);
        m_filter = filter;
        m_stopped = false;
        m_tag = serviceName != nullptr ? serviceName : "";

        qor::RefPtr<::firewall::INfqueueQuery> nfqueue;
        {
            result_t _result = qor::GetInterface(GetServiceLocator(), nfqueue.Ref());
            if (QOR_SUCCEEDED(_result) && !nfqueue) {
                _result = errors::kNoInterface;
            }
            if (!QOR_SUCCEEDED(_result)) {
                DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_HERE,
                                 "qor::GetInterface(GetServiceLocator(), nfqueue.Ref())", _result)
                    << "Cannot get firewall::INfqueueQuery interface";
                return _result;
            }
        }
        const std::uint32_t count = kQueueCount;
        std::uint16_t queueNum = 0;
        {
            const result_t _result = nfqueue->GetAvailableQueue(count, &queueNum);
            if (!QOR_SUCCEEDED(_result)) {
                DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_HERE,
                                 "nfqueue->GetAvailableQueue(count, queueNum)", _result)
                    << "Cannot get available NFQUEUE number";
                return _result;
            }
        }
        m_input.queueNumber = queueNum;
        m_output.queueNumber = static_cast<std::uint16_t>(queueNum + 1);
        nfqueue.Reset();

        DWI_CHECK_RETURN(GetTracer(), InitNetLinkSocket(), "Cannot initialize netlink m_socket");

        if (const result_t result = StartThread(this, &NfQueueInterceptor::Run, m_pollThread);
            !QOR_SUCCEEDED(result)) {
            DWI_TRACE_FN(GetTracer(), level::kError) << "Cannot start interceptor thread";
            m_stopped = true;
            return result;
        }
        if (const result_t result =
                StartThread(this, &NfQueueInterceptor::ReplyThread, m_replyThread);
            !QOR_SUCCEEDED(result)) {
            // The poll thread keeps running until the next Start or the end.
            DWI_TRACE_FN(GetTracer(), level::kError) << "Cannot start reply thread";
            m_stopped = true;
            return result;
        }
        return errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(GetTracer(), "Start");
    }
}

result_t NfQueueInterceptor::Stop() noexcept {
    std::lock_guard lock(m_stateMutex);
    DWI_TRACE_ENTRY(GetTracer());
    if (m_stopped) {
        DWI_TRACE_FN(GetTracer(), level::kDebug) << "interceptor is stopped already";
        return errors::kInvalidState;
    }
    {
        std::lock_guard verdictLock(m_verdictMutex);
        if (m_stop) {
            DWI_CHECK_RETURN(GetTracer(), m_stop->Notify(), "Cannot stop interceptor thread");
        }
    }
    if (m_pollThread && m_pollThread->Joinable()) {
        m_pollThread->Join();
    }
    {
        std::lock_guard verdictLock(m_verdictMutex);
        if (m_stopReply) {
            DWI_CHECK_RETURN(GetTracer(), m_stopReply->Notify(), "Cannot stop reply thread");
        }
    }
    if (m_replyThread && m_replyThread->Joinable()) {
        m_replyThread->Join();
    }
    {
        // Verdicts left behind name the sockets closed below.
        std::lock_guard verdictLock(m_verdictMutex);
        m_verdicts.clear();
    }
    if (m_input.socket != nullptr) {
        mnl_socket_close(std::exchange(m_input.socket, nullptr));
    }
    m_input.queueNumber = 0xFFFF;
    if (m_output.socket != nullptr) {
        mnl_socket_close(std::exchange(m_output.socket, nullptr));
    }
    m_eventCallback.Reset();
    m_output.queueNumber = 0xFFFF;
    m_stopped = true;
    return errors::kOk;
}

// ---------------------------------------------------------------------------
// Netlink channel

result_t NfQueueInterceptor::InitNetLinkSocket() {
    {
        const result_t _result = InitNetLinkSocket(m_input.queueNumber, &m_input.socket);
        if (!QOR_SUCCEEDED(_result)) {
            DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_HERE,
                             "InitNetLinkSocket(m_input.queueNumber, &m_input.socket)", _result)
                << "Cannot initialize input socket";
            return _result;
        }
    }
    {
        const result_t _result = InitNetLinkSocket(m_output.queueNumber, &m_output.socket);
        if (!QOR_SUCCEEDED(_result)) {
            DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_HERE,
                             "InitNetLinkSocket(m_output.queueNumber, &m_output.socket)", _result)
                << "Cannot initialize output socket";
            return _result;
        }
    }
    {
        std::lock_guard lock(m_verdictMutex);
        m_stop.reset();
        m_stop.emplace(false);
        m_stopReply.reset();
        m_stopReply.emplace(false);
        m_verdictEvent.reset();
        m_verdictEvent.emplace(false);
    }
    DWI_TRACE_EXIT(GetTracer()) << "netlink socket was successfully configured";
    return errors::kOk;
}

// Fatal configuration steps: the socket is closed on the way out.
#define NFQ_CONFIGURE(call, text)                                                 \
    do {                                                                          \
        const result_t _result = (call);                                          \
        if (!QOR_SUCCEEDED(_result)) {                                            \
            DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_HERE, text, _result) \
                << "Cannot configure netlink m_socket";                           \
            return errors::kUnspecified;                                          \
        }                                                                         \
    } while (0)

// Configuration steps that the kernel may refuse without harm.
#define NFQ_CONFIGURE_OPTIONAL(call, text, message)                                     \
    do {                                                                                \
        const result_t _result = (call);                                                \
        if (!QOR_SUCCEEDED(_result)) {                                                  \
            DWI_TRACE_FN(GetTracer(), level::kWarning)                                  \
                << ::dwi::check::ResultHead{QOR_HERE, text, _result} << ' ' << message; \
        }                                                                               \
    } while (0)

result_t NfQueueInterceptor::InitNetLinkSocket(std::uint16_t queueNumber, mnl_socket** socket) {
    DWI_TRACE_ENTRY(GetTracer());
    SocketPtr owned(mnl_socket_open(NETLINK_NETFILTER));
    if (!owned) {
        const int error = errno;
        DWI_TRACE_FN(GetTracer(), level::kError)
            << "Cannot open netlink m_socket: " << qor::ErrnoText(error);
        return errors::kUnspecified;
    }
    mnl_socket* sock = owned.get();
    if (mnl_socket_bind(sock, 0, MNL_SOCKET_AUTOPID) < 0) {
        const int error = errno;
        DWI_TRACE_FN(GetTracer(), level::kError)
            << "Cannot bind netlink m_socket: " << qor::ErrnoText(error);
        return errors::kUnspecified;
    }

    alignas(nlmsghdr) char buffer[kConfigBufferSize];
    NFQ_CONFIGURE(Request(sock, BuildCfgPfRequest(buffer, NFQNL_CFG_CMD_PF_UNBIND, AF_INET)),
                  "Request( sock, BuildCfgPfRequest(buffer, NFQNL_CFG_CMD_PF_UNBIND, 2))");
    NFQ_CONFIGURE(Request(sock, BuildCfgPfRequest(buffer, NFQNL_CFG_CMD_PF_BIND, AF_INET)),
                  "Request( sock, BuildCfgPfRequest(buffer, NFQNL_CFG_CMD_PF_BIND, 2))");
    NFQ_CONFIGURE(Request(sock, BuildCfgPfRequest(buffer, NFQNL_CFG_CMD_PF_UNBIND, AF_INET6)),
                  "Request( sock, BuildCfgPfRequest(buffer, NFQNL_CFG_CMD_PF_UNBIND, 10))");
    NFQ_CONFIGURE(Request(sock, BuildCfgPfRequest(buffer, NFQNL_CFG_CMD_PF_BIND, AF_INET6)),
                  "Request( sock, BuildCfgPfRequest(buffer, NFQNL_CFG_CMD_PF_BIND, 10))");
    NFQ_CONFIGURE(Request(sock, BuildCfgRequest(buffer, NFQNL_CFG_CMD_BIND, queueNumber)),
                  "Request( sock, BuildCfgRequest(buffer, NFQNL_CFG_CMD_BIND, queueNumber))");
    NFQ_CONFIGURE(Request(sock, BuildCfgParams(buffer, NFQNL_COPY_PACKET, 0xFFFF, queueNumber)),
                  "Request( sock, BuildCfgParams(buffer, NFQNL_COPY_PACKET, 0xFFFF, queueNumber))");
    NFQ_CONFIGURE_OPTIONAL(Request(sock, BuildCfgFlagsGSO(buffer, queueNumber)),
                           "Request(sock, BuildCfgFlagsGSO(buffer, queueNumber))",
                           "Kernel doesn't support GSO handling capabilities!");
    NFQ_CONFIGURE_OPTIONAL(Request(sock, BuildCfgQueueMaxLen(buffer, queueNumber)),
                           "Request(sock, BuildCfgQueueMaxLen(buffer, queueNumber))",
                           "Failed to increase NFQUEUE max length");

    const int fd = mnl_socket_get_fd(sock);
    int bufferSize = 0;
    socklen_t length = sizeof(bufferSize);
    if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bufferSize, &length) != 0) {
        const int error = errno;
        DWI_TRACE_FN(GetTracer(), level::kError)
            << "Cannot get current socket buffer size: " << qor::ErrnoText(error);
        return errors::kUnspecified;
    }
    const int doubled = bufferSize * 2;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &doubled, sizeof(doubled)) != 0) {
        const int error = errno;
        DWI_TRACE_FN(GetTracer(), level::kError)
            << "Cannot set socket buffer size to " << doubled << ": " << qor::ErrnoText(error);
    }
    int enable = 1;
    if (mnl_socket_setsockopt(sock, NETLINK_NO_ENOBUFS, &enable, sizeof(enable)) != 0) {
        const int error = errno;
        DWI_TRACE_FN(GetTracer(), level::kError)
            << "Cannot set NETLINK_NO_ENOBUFS: " << qor::ErrnoText(error);
        return errors::kUnspecified;
    }
    *socket = owned.release();
    return errors::kOk;
}

#undef NFQ_CONFIGURE
#undef NFQ_CONFIGURE_OPTIONAL

result_t NfQueueInterceptor::Request(mnl_socket* sock, const nlmsghdr* nlh) {
    mnl_socket* socket = sock;
    DWI_CHECK_RETURN(GetTracer(), SendMessage(socket, nlh), "Cannot send netlink request");

    alignas(nlmsghdr) char answer[1024];
    const ssize_t nrecv = mnl_socket_recvfrom(sock, answer, sizeof(answer));
    if (nrecv < 0) {
        const int error = errno;
        DWI_BOOL_RECORD(GetTracer(), level::kError, QOR_HERE, "nrecv >= 0")
            << "Cannot read from netlink socket: " << qor::ErrnoText(error);
        return errors::kUnspecified;
    }
    const tools::MnlParser parser(GetTracer(), {}, std::nullopt, nullptr);
    const int ret =
        parser.Parse(answer, static_cast<std::size_t>(nrecv), 0, mnl_socket_get_portid(sock));
    if (ret < 0) {
        const int error = errno;
        DWI_BOOL_RECORD(GetTracer(), level::kError, QOR_HERE, "ret >= 0")
            << "Error received from netlink socket: " << qor::ErrnoText(error);
        return errors::kUnspecified;
    }
    return errors::kOk;
}

result_t NfQueueInterceptor::SendMessage(mnl_socket* socket, const nlmsghdr* nlh) {
    if (SendTo(socket, nlh) < 0) {
        const int error = errno;
        DWI_TRACE_FN(GetTracer(), level::kError)
            << "Cannot send to netlink socket: " << qor::ErrnoText(error);
        return errors::kUnspecified;
    }
    return errors::kOk;
}

ssize_t NfQueueInterceptor::SendTo(mnl_socket* socket, const nlmsghdr* nlh) noexcept {
    return mnl_socket_sendto(socket, nlh, nlh->nlmsg_len);
}

ssize_t NfQueueInterceptor::SendBatch(mnl_socket* socket, const nlmsghdr* first,
                                      std::size_t length) noexcept {
    return mnl_socket_sendto(socket, first, length);
}

// ---------------------------------------------------------------------------
// Firewall rules

result_t NfQueueInterceptor::SetFirewallRules(bool insert) {
    DWI_TRACE_ENTRY(GetTracer());
    if (!m_firewall) {
        return errors::kNotInitialized;
    }
    dwi::firewall::Rules rules;
    rules.reserve(m_filter.size());
    for (const dwi::firewall::QueueRule& record : m_filter) {
        dwi::firewall::QueueRule rule{};
        rule = record;
        // Received (0) and forwarded-by-input (2) traffic goes to the input queue.
        rule.queueNumber =
            (record.direction & ~static_cast<std::uint32_t>(dwi::firewall::kForwarded)) == 0
                ? m_input.queueNumber
                : m_output.queueNumber;
        rules.emplace_back(std::in_place_index<dwi::firewall::kQueueRuleIndex>, std::move(rule));
    }
    if (insert) {
        const result_t _result = m_firewall->AddRules(rules, m_tag.c_str());
        if (!QOR_SUCCEEDED(_result)) {
            DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_HERE,
                             "m_firewall->AddRules(rules, m_tag)", _result)
                << "Cannot add firewall queue rules";
        }
        return _result;
    }
    const result_t _result = m_firewall->RemoveRules(rules);
    if (!QOR_SUCCEEDED(_result)) {
        DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_HERE, "m_firewall->RemoveRules(rules)",
                         _result)
            << "Cannot remove firewall queue rules";
    }
    return _result;
}

result_t NfQueueInterceptor::AddFirewallRules() {
    DWI_TRACE_ENTRY(GetTracer());
    const bool insert = true;
    DWI_CHECK_RETURN(GetTracer(), SetFirewallRules(insert), "Cannot set firewall rules");
    return errors::kOk;
}

result_t NfQueueInterceptor::RemoveFirewallRules() {
    DWI_TRACE_ENTRY(GetTracer());
    const bool insert = false;
    DWI_CHECK_RETURN(GetTracer(), SetFirewallRules(insert), "Cannot set firewall rules");
    return errors::kOk;
}

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
                    m_stop->Reset();
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
    // The rules live exactly as long as this thread.
    RemoveFirewallRules();
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

namespace {

std::uint32_t AttributeU32(const nlattr* attr) noexcept {
    if (attr == nullptr || mnl_attr_get_payload_len(attr) < sizeof(std::uint32_t)) {
        return 0;
    }
    std::uint32_t value = 0;
    std::memcpy(&value, mnl_attr_get_payload(attr), sizeof(value));
    return ntohl(value);
}

}  // namespace

int NfQueueInterceptor::HandlePacket(const QueueEndpoint& endpoint, const nlmsghdr* nlh,
                                     const nlattr** table) {
    if (table == nullptr || NFNL_MSG_TYPE(nlh->nlmsg_type) != NFQNL_MSG_PACKET) {
        return MNL_CB_OK;
    }
    const nlattr* payload = table[NFQA_PAYLOAD];
    if (payload == nullptr || mnl_attr_get_payload_len(payload) == 0) {
        return MNL_CB_OK;
    }
    Packet packet;
    // The packet id leads nfqnl_msg_packet_hdr.
    packet.id = AttributeU32(table[NFQA_PACKET_HDR]);
    packet.indev = AttributeU32(table[NFQA_IFINDEX_INDEV]);
    packet.outdev = AttributeU32(table[NFQA_IFINDEX_OUTDEV]);
    packet.mark = AttributeU32(table[NFQA_MARK]);
    // The receive buffer is ours; consumers may rewrite the payload in place.
    packet.payloadBegin =
        static_cast<std::uint8_t*>(const_cast<void*>(mnl_attr_get_payload(payload)));
    packet.payloadEnd = packet.payloadBegin + mnl_attr_get_payload_len(payload);
    NewPacketReceived(endpoint, packet);
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
    SetVerdict(endpoint, packet, static_cast<std::uint32_t>(verdict));
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
                m_stopReply->Reset();
                DWI_TRACE_FN(GetTracer(), level::kDebug)
                    << "Received stop event, stopping reply thread";
                DWI_TRACE_EXIT(GetTracer()) << "ReplyThread was stopped";
                result = errors::kOk;
                break;
            }
            if ((fds[0].revents & POLLIN) != 0) {
                m_verdictEvent->Reset();
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
