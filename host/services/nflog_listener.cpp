#include "host/services/nflog_listener.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <functional>
#include <utility>

#include "dwi_tracing/tracing.h"
#include "qor/exception.h"

namespace nti::host {
namespace {

constexpr int kAckTimeoutMs = 2000;
// Larger than the kernel's largest batch (128 KiB), so a batch is never cut.
constexpr std::size_t kReceiveBufferSize = std::size_t{160} * 1024;

constexpr std::uint16_t PacketType() {
    return static_cast<std::uint16_t>((NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_PACKET);
}

// Sizes of the fixed-size attributes a callback may read without checking;
// a shorter one is dropped from the table.
std::size_t MinimumAttributeSize(std::uint16_t type) {
    switch (type) {
        case NFULA_PACKET_HDR:
            return sizeof(nfulnl_msg_packet_hdr);
        case NFULA_TIMESTAMP:
            return sizeof(nfulnl_msg_packet_timestamp);
        case NFULA_HWADDR:
            return sizeof(nfulnl_msg_packet_hw);
        case NFULA_MARK:
        case NFULA_IFINDEX_INDEV:
        case NFULA_IFINDEX_OUTDEV:
        case NFULA_IFINDEX_PHYSINDEV:
        case NFULA_IFINDEX_PHYSOUTDEV:
        case NFULA_UID:
        case NFULA_GID:
        case NFULA_SEQ:
        case NFULA_SEQ_GLOBAL:
        case NFULA_CT_INFO:
            return sizeof(std::uint32_t);
        case NFULA_HWTYPE:
        case NFULA_HWLEN:
            return sizeof(std::uint16_t);
        default:
            return 0;
    }
}

struct AttributeTable {
    std::array<const nlattr*, NFULA_MAX + 1> entries{};
    std::uint32_t malformed = 0;
};

int CollectAttribute(const nlattr* attribute, void* data) {
    auto* table = static_cast<AttributeTable*>(data);
    if (mnl_attr_type_valid(attribute, NFULA_MAX) < 0) {
        return MNL_CB_OK;  // newer kernel attribute: not ours to judge
    }
    const std::uint16_t type = mnl_attr_get_type(attribute);
    if (mnl_attr_get_payload_len(attribute) < MinimumAttributeSize(type)) {
        ++table->malformed;
        return MNL_CB_OK;
    }
    table->entries[type] = attribute;
    return MNL_CB_OK;
}

}  // namespace

std::uint32_t SequenceTracker::Observe(std::uint32_t seq) noexcept {
    std::uint32_t lost = 0;
    if (m_next) {
        const std::uint32_t ahead = seq - *m_next;  // modulo 2^32
        if (ahead >= 0x80000000u) {
            return 0;  // behind the expected number: not a loss
        }
        lost = ahead;
    }
    m_next = seq + 1;
    return lost;
}

NflogListener::NflogListener(qor::ITracer* tracer, dwi::firewall::INflogDataCallback* callback,
                             const NflogOptions& options, NflogFailures failures)
    : m_tracer(qor::trace::CreatePrefixTracer(tracer, "NflogListener")),
      m_callback(callback),
      m_options(options),
      m_failures(std::move(failures)) {
    if (callback == nullptr) {
        throw qor::ResultCodeException("No NFLOG data callback", QOR_HERE,
                                       qor::errors::kInvalidArgument);
    }
}

NflogListener::~NflogListener() {
    // Stop traces its own failures; kFalse only says it was not running.
    static_cast<void>(Stop());
}

qor::result_t NflogListener::Start(const std::vector<std::uint16_t>& groups) noexcept {
    std::lock_guard lock(m_startStop);
    DWI_TRACE_ENTRY(m_tracer.Get()) << "groups.size=" << groups.size();
    if (m_thread.joinable()) {
        return qor::errors::kInvalidState;
    }
    if (groups.empty()) {
        return qor::errors::kInvalidArgument;
    }
    m_received = 0;
    m_lost = 0;
    m_overruns = 0;
    m_sequences.clear();
    m_delivering = true;
    try {
        const qor::result_t configured = Configure(groups);
        if (!QOR_SUCCEEDED(configured)) {
            CloseSocket();
            return configured;
        }
        m_thread = std::thread([this] { Loop(); });
    } catch (...) {
        CloseSocket();
        return qor::CurrentExceptionToResult(m_tracer.Get(), "Start");
    }
    DWI_TRACE_EXIT(m_tracer.Get()) << "portId=" << m_portId;
    return qor::errors::kOk;
}

qor::result_t NflogListener::Configure(const std::vector<std::uint16_t>& groups) {
    m_stop.emplace(false);  // throws; Start turns it into a code
    m_socket = mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC);
    if (m_socket == nullptr || mnl_socket_bind(m_socket, 0, MNL_SOCKET_AUTOPID) < 0) {
        const int error = errno;
        QOR_TRACE(m_tracer.Get(), qor::trace_level::kError)
            << "Configure: Cannot open netfilter netlink socket: " << qor::ErrnoText(error);
        return qor::ErrnoToResult(error);
    }
    m_portId = mnl_socket_get_portid(m_socket);
    const int fd = mnl_socket_get_fd(m_socket);
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &m_options.receiveBuffer,
                   sizeof(m_options.receiveBuffer)) < 0 &&
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &m_options.receiveBuffer,
                   sizeof(m_options.receiveBuffer)) < 0) {
        QOR_TRACE(m_tracer.Get(), qor::trace_level::kWarning)
            << "Configure: Cannot set the receive buffer to " << m_options.receiveBuffer << ": "
            << qor::ErrnoText(errno);
    }

    const auto command = [](std::uint8_t cmd) {
        return [cmd](nlmsghdr* m) {
            const nfulnl_msg_config_cmd c{cmd};
            mnl_attr_put(m, NFULA_CFG_CMD, sizeof(c), &c);
        };
    };
    // Binding the families is a no-op on current kernels and needed on old ones.
    for (const std::uint8_t family : {AF_INET, AF_INET6}) {
        for (const std::uint8_t cmd : {NFULNL_CFG_CMD_PF_UNBIND, NFULNL_CFG_CMD_PF_BIND}) {
            const qor::result_t sent = SendConfig(family, 0, command(cmd));
            if (!QOR_SUCCEEDED(sent)) {
                QOR_TRACE(m_tracer.Get(), qor::trace_level::kWarning)
                    << "Configure: family " << unsigned{family} << " command " << unsigned{cmd}
                    << " refused: " << qor::trace::Result{sent};
            }
        }
    }
    for (const std::uint16_t group : groups) {
        // One message: the kernel creates the instance, then applies the rest,
        // so no packet is logged with the defaults.
        const qor::result_t bound = SendConfig(AF_UNSPEC, group, [&](nlmsghdr* m) {
            const nfulnl_msg_config_cmd bind{NFULNL_CFG_CMD_BIND};
            mnl_attr_put(m, NFULA_CFG_CMD, sizeof(bind), &bind);
            const nfulnl_msg_config_mode mode{htonl(m_options.copyRange), NFULNL_COPY_PACKET, 0};
            mnl_attr_put(m, NFULA_CFG_MODE, sizeof(mode), &mode);
            mnl_attr_put_u32(m, NFULA_CFG_NLBUFSIZ, htonl(m_options.batchBufferSize));
            mnl_attr_put_u32(m, NFULA_CFG_QTHRESH, htonl(m_options.queueThreshold));
            mnl_attr_put_u32(m, NFULA_CFG_TIMEOUT, htonl(m_options.flushTimeout));
            mnl_attr_put_u16(m, NFULA_CFG_FLAGS, htons(NFULNL_CFG_F_SEQ));
        });
        if (!QOR_SUCCEEDED(bound)) {
            QOR_TRACE(m_tracer.Get(), qor::trace_level::kError)
                << "Configure: Cannot bind NFLOG group " << group << ": "
                << qor::trace::Result{bound};
            return bound;
        }
        m_groups.push_back(group);
    }
    return qor::errors::kOk;
}

qor::result_t NflogListener::SendConfig(std::uint8_t family, std::uint16_t group,
                                        const std::function<void(nlmsghdr*)>& attributes) {
    std::array<char, 4096> request{};  // a config message is a few dozen bytes
    nlmsghdr* message = mnl_nlmsg_put_header(request.data());
    message->nlmsg_type = (NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_CONFIG;
    message->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    message->nlmsg_seq = ++m_configSeq;
    auto* header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
    header->nfgen_family = family;
    header->version = NFNETLINK_V0;
    header->res_id = htons(group);
    attributes(message);
    if (mnl_socket_sendto(m_socket, message, message->nlmsg_len) < 0) {
        return qor::ErrnoToResult(errno);
    }
    // Packets of groups bound before may arrive ahead of the answer; they are
    // delivered, not dropped.
    std::vector<char> buffer(kReceiveBufferSize);
    pollfd pfd{mnl_socket_get_fd(m_socket), POLLIN, 0};
    while (true) {
        const int ready = poll(&pfd, 1, kAckTimeoutMs);
        if (ready == 0) {
            return qor::errors::kOperationTimeout;
        }
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            return qor::ErrnoToResult(errno);
        }
        const ssize_t length = mnl_socket_recvfrom(m_socket, buffer.data(), buffer.size());
        if (length < 0) {
            if (errno == EINTR || errno == ENOBUFS) {
                continue;
            }
            return qor::ErrnoToResult(errno);
        }
        const int run = mnl_cb_run(
            buffer.data(), static_cast<std::size_t>(length), 0, m_portId,
            [](const nlmsghdr* m, void* self) {
                return static_cast<NflogListener*>(self)->OnMessage(m);
            },
            this);
        if (run == MNL_CB_ERROR) {
            return qor::ErrnoToResult(errno);
        }
        if (run == MNL_CB_STOP) {
            return qor::errors::kOk;  // the acknowledgement
        }
    }
}

int NflogListener::OnMessage(const nlmsghdr* message) noexcept {
    if (!m_delivering || message->nlmsg_type != PacketType() ||
        mnl_nlmsg_get_payload_len(message) < sizeof(nfgenmsg)) {
        return MNL_CB_OK;
    }
    const auto* header = static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(message));
    const std::uint16_t group = ntohs(header->res_id);
    AttributeTable table;
    if (mnl_attr_parse(message, sizeof(nfgenmsg), CollectAttribute, &table) < 0) {
        QOR_TRACE(m_tracer.Get(), qor::trace_level::kWarning)
            << "OnMessage: malformed message of group " << group << " skipped";
        return MNL_CB_OK;
    }
    if (table.malformed != 0) {
        QOR_TRACE(m_tracer.Get(), qor::trace_level::kWarning)
            << "OnMessage: " << table.malformed << " short attributes dropped, group " << group;
    }
    m_received.fetch_add(1, std::memory_order_relaxed);
    if (const nlattr* seq = table.entries[NFULA_SEQ]) {
        const std::uint32_t lost = m_sequences[group].Observe(ntohl(mnl_attr_get_u32(seq)));
        if (lost != 0) {
            m_lost.fetch_add(lost, std::memory_order_relaxed);
            QOR_TRACE(m_tracer.Get(), qor::trace_level::kWarning)
                << "OnMessage: lost " << lost << " log messages of group " << group
                << " (sequence gap)";
        }
    }
    m_callback->OnData(message, table.entries.data());
    return MNL_CB_OK;
}

void NflogListener::Loop() noexcept {
    prctl(PR_SET_NAME, "ntiNflog", 0, 0, 0);
    std::vector<char> buffer(kReceiveBufferSize);
    const int fd = mnl_socket_get_fd(m_socket);
    std::array<pollfd, 2> fds{pollfd{m_stop->GetDescriptor(), POLLIN, 0}, pollfd{fd, POLLIN, 0}};
    while (true) {
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            QOR_TRACE(m_tracer.Get(), qor::trace_level::kError)
                << "Loop: poll failed: " << qor::ErrnoText(errno);
            Fail();
            return;
        }
        if (fds[0].revents != 0) {
            return;
        }
        if (fds[1].revents == 0) {
            continue;
        }
        const ssize_t length = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (length < 0) {
            const int error = errno;
            if (error == ENOBUFS) {
                // The kernel dropped at least one batch; the next sequence
                // number tells how many messages.
                m_overruns.fetch_add(1, std::memory_order_relaxed);
                QOR_TRACE(m_tracer.Get(), qor::trace_level::kWarning)
                    << "Loop: receive buffer overrun, log messages lost";
                continue;
            }
            if (error == EINTR || error == EAGAIN) {
                continue;
            }
            QOR_TRACE(m_tracer.Get(), qor::trace_level::kError)
                << "Loop: recv failed: " << qor::ErrnoText(error);
            Fail();
            return;
        }
        if (mnl_cb_run(
                buffer.data(), static_cast<std::size_t>(length), 0, m_portId,
                [](const nlmsghdr* m, void* self) {
                    return static_cast<NflogListener*>(self)->OnMessage(m);
                },
                this) == MNL_CB_ERROR) {
            QOR_TRACE(m_tracer.Get(), qor::trace_level::kWarning)
                << "Loop: netlink error message: " << qor::ErrnoText(errno);
        }
    }
}

void NflogListener::Fail() noexcept {
    if (m_failures) {
        m_failures->fetch_add(1);
    }
}

qor::result_t NflogListener::Stop() noexcept {
    std::lock_guard lock(m_startStop);
    if (!m_thread.joinable()) {
        return qor::errors::kFalse;
    }
    DWI_TRACE_ENTRY(m_tracer.Get())
        << "received=" << m_received.load() << ", lost=" << m_lost.load()
        << ", overruns=" << m_overruns.load();
    if (const qor::result_t woken = m_stop->Notify(); !QOR_SUCCEEDED(woken)) {
        QOR_TRACE(m_tracer.Get(), qor::trace_level::kError)
            << "Stop: Cannot wake the listener thread: " << qor::trace::Result{woken};
    }
    m_thread.join();
    CloseSocket();
    return qor::errors::kOk;
}

void NflogListener::CloseSocket() noexcept {
    m_delivering = false;  // what arrives while unbinding is not for the callback
    for (const std::uint16_t group : m_groups) {
        const qor::result_t unbound = SendConfig(AF_UNSPEC, group, [](nlmsghdr* m) {
            const nfulnl_msg_config_cmd c{NFULNL_CFG_CMD_UNBIND};
            mnl_attr_put(m, NFULA_CFG_CMD, sizeof(c), &c);
        });
        if (!QOR_SUCCEEDED(unbound)) {
            // Closing the socket unbinds as well.
            QOR_TRACE(m_tracer.Get(), qor::trace_level::kWarning)
                << "CloseSocket: unbind of group " << group
                << " failed: " << qor::trace::Result{unbound};
        }
    }
    m_groups.clear();
    if (m_socket != nullptr) {
        mnl_socket_close(m_socket);
        m_socket = nullptr;
    }
    m_stop.reset();
}

NflogListenerFactory::NflogListenerFactory(qor::ITracer* tracer, const NflogOptions& options)
    : m_tracer(tracer), m_options(options) {}

qor::result_t NflogListenerFactory::CreateListener(dwi::firewall::INflogDataCallback* callback,
                                                   dwi::firewall::INflogListener** out) noexcept {
    if (callback == nullptr || out == nullptr) {
        return qor::errors::kInvalidArgument;
    }
    try {
        *out = qor::object::Create<NflogListener>(m_tracer.Get(), callback, m_options, m_failures)
                   .Detach();
        return qor::errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(m_tracer.Get(), "CreateListener");
    }
}

}  // namespace nti::host
