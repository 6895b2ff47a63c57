// NfqueuePacket builds NFQUEUE packet messages with libmnl, laid out as the
// kernel sends them: nfgenmsg, then the attributes in the kernel's order,
// integers in network order, every attribute padded to 4 bytes. Hex and
// AsBytes give the bytes that message tests compare.
#pragma once

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <sys/socket.h>

#include <array>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nti::test {

using Bytes = std::vector<std::uint8_t>;

// Hex reads the hex digits of `text`, two to a byte, skipping anything else.
inline Bytes Hex(std::string_view text) {
    Bytes bytes;
    std::string digits;
    for (const char c : text) {
        if (std::isxdigit(static_cast<unsigned char>(c)) != 0) {
            digits.push_back(c);
        }
    }
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

inline Bytes AsBytes(const nlmsghdr* nlh) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(nlh);
    return Bytes(p, p + nlh->nlmsg_len);
}

struct NfqueuePacket {
    std::uint32_t id = 1;
    std::uint16_t queue = 0;
    std::uint32_t seq = 0;
    std::uint32_t portId = 0;
    std::uint16_t hwProtocol = 0x0800;
    std::uint8_t hook = 1;  // NF_INET_LOCAL_IN
    std::optional<std::uint32_t> indev;
    std::optional<std::uint32_t> outdev;
    std::optional<std::uint32_t> mark;
    std::optional<std::array<std::uint8_t, 6>> hwaddr;  // only sent with indev
    std::optional<std::uint64_t> timestampSec;
    std::optional<std::uint32_t> skbInfo;  // type 14, above the NFQUEUE maximum
    std::vector<std::uint8_t> payload;
};

// SamplePayload is a 40-byte IPv4/TCP SYN from 10.0.0.1:40000 to 10.0.0.2:80.
inline std::vector<std::uint8_t> SamplePayload() {
    return {0x45, 0x00, 0x00, 0x28, 0x12, 0x34, 0x40, 0x00, 0x40, 0x06, 0x00, 0x00, 0x0a, 0x00,
            0x00, 0x01, 0x0a, 0x00, 0x00, 0x02, 0x9c, 0x40, 0x00, 0x50, 0x00, 0x00, 0x00, 0x01,
            0x00, 0x00, 0x00, 0x00, 0x50, 0x02, 0xff, 0xff, 0x00, 0x00, 0x00, 0x00};
}

// SampleInputPacket is a packet as the input queue sees it: every attribute
// the NFQUEUE checker knows and one above the maximum.
inline NfqueuePacket SampleInputPacket() {
    NfqueuePacket p;
    p.id = 0x01020304;
    p.indev = 2;
    p.mark = 0x10;
    p.hwaddr = std::array<std::uint8_t, 6>{0x52, 0x54, 0x00, 0x12, 0x34, 0x56};
    p.timestampSec = 1700000000;
    p.skbInfo = 0;
    p.payload = SamplePayload();
    return p;
}

// PutNfqueuePacket appends one message at the end of `out`; returns its
// header inside `out` (valid until `out` grows again).
inline nlmsghdr* PutNfqueuePacket(std::vector<char>& out, const NfqueuePacket& p) {
    const std::size_t start = out.size();
    out.resize(start + MNL_ALIGN(sizeof(nlmsghdr) + sizeof(nfgenmsg) + 128 + p.payload.size()));
    nlmsghdr* nlh = mnl_nlmsg_put_header(out.data() + start);
    nlh->nlmsg_type = (NFNL_SUBSYS_QUEUE << 8) | NFQNL_MSG_PACKET;
    nlh->nlmsg_seq = p.seq;
    nlh->nlmsg_pid = p.portId;
    auto* nfg = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(nfgenmsg)));
    nfg->nfgen_family = AF_UNSPEC;
    nfg->version = NFNETLINK_V0;
    nfg->res_id = htons(p.queue);

    nfqnl_msg_packet_hdr hdr{};
    hdr.packet_id = htonl(p.id);
    hdr.hw_protocol = htons(p.hwProtocol);
    hdr.hook = p.hook;
    mnl_attr_put(nlh, NFQA_PACKET_HDR, sizeof(hdr), &hdr);
    if (p.indev) {
        mnl_attr_put_u32(nlh, NFQA_IFINDEX_INDEV, htonl(*p.indev));
    }
    if (p.outdev) {
        mnl_attr_put_u32(nlh, NFQA_IFINDEX_OUTDEV, htonl(*p.outdev));
    }
    if (p.mark) {
        mnl_attr_put_u32(nlh, NFQA_MARK, htonl(*p.mark));
    }
    if (p.hwaddr) {
        nfqnl_msg_packet_hw hw{};
        hw.hw_addrlen = htons(6);
        std::memcpy(hw.hw_addr, p.hwaddr->data(), 6);
        mnl_attr_put(nlh, NFQA_HWADDR, sizeof(hw), &hw);
    }
    if (p.timestampSec) {
        nfqnl_msg_packet_timestamp ts{};
        ts.sec = htobe64(*p.timestampSec);
        mnl_attr_put(nlh, NFQA_TIMESTAMP, sizeof(ts), &ts);
    }
    if (p.skbInfo) {
        mnl_attr_put_u32(nlh, NFQA_SKB_INFO, htonl(*p.skbInfo));
    }
    mnl_attr_put(nlh, NFQA_PAYLOAD, p.payload.size(), p.payload.data());
    out.resize(start + nlh->nlmsg_len);
    return reinterpret_cast<nlmsghdr*>(out.data() + start);
}

inline std::vector<char> NfqueueMessage(const NfqueuePacket& p) {
    std::vector<char> out;
    PutNfqueuePacket(out, p);
    return out;
}

}  // namespace nti::test
