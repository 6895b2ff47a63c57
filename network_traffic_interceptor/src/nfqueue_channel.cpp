// Channel set-up: one netlink socket per queue, bound and configured.
#include "network_traffic_interceptor/src/nfqueue_interceptor.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "dwi_common/mnl_parser.h"
#include "dwi_common/mnl_socket.h"
#include "dwi_tracing/check.h"
#include "dwi_tracing/tracing.h"
#include "network_traffic_interceptor/src/nfqueue_messages.h"

namespace dwi::network_interceptor {

using qor::result_t;
namespace errors = qor::errors;
namespace level = qor::trace_level;

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

namespace {

// ChannelStep is one configuration message of a channel; an optional step
// may be refused by the kernel without harm, with a warning.
struct ChannelStep {
    nlmsghdr* (*build)(char* buffer, std::uint16_t queueNumber);
    const char* expression;
    const char* warning;  // null for a fatal step
};

constexpr std::array<ChannelStep, 8> kChannelSteps{{
    {[](char* b, std::uint16_t) { return BuildCfgPfRequest(b, NFQNL_CFG_CMD_PF_UNBIND, AF_INET); },
     "Request( sock, BuildCfgPfRequest(buffer, NFQNL_CFG_CMD_PF_UNBIND, 2))", nullptr},
    {[](char* b, std::uint16_t) { return BuildCfgPfRequest(b, NFQNL_CFG_CMD_PF_BIND, AF_INET); },
     "Request( sock, BuildCfgPfRequest(buffer, NFQNL_CFG_CMD_PF_BIND, 2))", nullptr},
    {[](char* b, std::uint16_t) { return BuildCfgPfRequest(b, NFQNL_CFG_CMD_PF_UNBIND, AF_INET6); },
     "Request( sock, BuildCfgPfRequest(buffer, NFQNL_CFG_CMD_PF_UNBIND, 10))", nullptr},
    {[](char* b, std::uint16_t) { return BuildCfgPfRequest(b, NFQNL_CFG_CMD_PF_BIND, AF_INET6); },
     "Request( sock, BuildCfgPfRequest(buffer, NFQNL_CFG_CMD_PF_BIND, 10))", nullptr},
    {[](char* b, std::uint16_t q) { return BuildCfgRequest(b, NFQNL_CFG_CMD_BIND, q); },
     "Request( sock, BuildCfgRequest(buffer, NFQNL_CFG_CMD_BIND, queueNumber))", nullptr},
    {[](char* b, std::uint16_t q) { return BuildCfgParams(b, NFQNL_COPY_PACKET, 0xFFFF, q); },
     "Request( sock, BuildCfgParams(buffer, NFQNL_COPY_PACKET, 0xFFFF, queueNumber))", nullptr},
    {&BuildCfgFlagsGSO, "Request(sock, BuildCfgFlagsGSO(buffer, queueNumber))",
     "Kernel doesn't support GSO handling capabilities!"},
    {&BuildCfgQueueMaxLen, "Request(sock, BuildCfgQueueMaxLen(buffer, queueNumber))",
     "Failed to increase NFQUEUE max length"},
}};

}  // namespace

result_t NfQueueInterceptor::InitNetLinkSocket(std::uint16_t queueNumber, mnl_socket** socket) {
    DWI_TRACE_ENTRY(GetTracer());
    tools::MnlSocket owned(mnl_socket_open(NETLINK_NETFILTER));
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
    for (const ChannelStep& step : kChannelSteps) {
        const result_t _result = Request(sock, step.build(buffer, queueNumber));
        if (QOR_SUCCEEDED(_result)) {
            continue;
        }
        if (step.warning == nullptr) {
            // The socket is closed on the way out.
            DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_HERE, step.expression, _result)
                << "Cannot configure netlink m_socket";
            return errors::kUnspecified;
        }
        DWI_TRACE_FN(GetTracer(), level::kWarning)
            << ::dwi::check::ResultHead{QOR_HERE, step.expression, _result} << ' ' << step.warning;
    }

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

}  // namespace dwi::network_interceptor
