#include "network_traffic_interceptor/src/nfqueue_messages.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <sys/socket.h>

#include <cstring>
#include <optional>

namespace dwi::network_interceptor {
namespace {

constexpr std::uint32_t kQueueMaxLen = 65535;

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

std::uint32_t AttributeU32(const nlattr* attr) noexcept {
    if (attr == nullptr || mnl_attr_get_payload_len(attr) < sizeof(std::uint32_t)) {
        return 0;
    }
    std::uint32_t value = 0;
    std::memcpy(&value, mnl_attr_get_payload(attr), sizeof(value));
    return ntohl(value);
}

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

bool ReadQueuedPacket(const nlmsghdr* nlh, const nlattr** table, Packet& packet) noexcept {
    if (table == nullptr || NFNL_MSG_TYPE(nlh->nlmsg_type) != NFQNL_MSG_PACKET) {
        return false;
    }
    const nlattr* payload = table[NFQA_PAYLOAD];
    if (payload == nullptr || mnl_attr_get_payload_len(payload) == 0) {
        return false;
    }
    // The packet id leads nfqnl_msg_packet_hdr.
    packet.id = AttributeU32(table[NFQA_PACKET_HDR]);
    packet.indev = AttributeU32(table[NFQA_IFINDEX_INDEV]);
    packet.outdev = AttributeU32(table[NFQA_IFINDEX_OUTDEV]);
    packet.mark = AttributeU32(table[NFQA_MARK]);
    // The receive buffer is the reader's; consumers may rewrite the payload in place.
    packet.payloadBegin =
        static_cast<std::uint8_t*>(const_cast<void*>(mnl_attr_get_payload(payload)));
    packet.payloadEnd = packet.payloadBegin + mnl_attr_get_payload_len(payload);
    return true;
}

}  // namespace dwi::network_interceptor
