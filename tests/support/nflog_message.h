// Builders of NFLOG packet messages as the kernel sends them, and of the IP
// packets they carry, for tests and benchmarks of the NFLOG collector.
#pragma once

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

namespace nti::test {

using Bytes = std::vector<std::uint8_t>;

inline constexpr std::uint8_t kTcp = 6;
inline constexpr std::uint8_t kUdp = 17;
inline constexpr std::uint8_t kIcmp = 1;
inline constexpr std::uint8_t kIcmpv6 = 58;

// Addresses of this host and of a remote peer.
inline constexpr std::array<std::uint8_t, 4> kHostV4{10, 0, 0, 2};
inline constexpr std::array<std::uint8_t, 4> kPeerV4{93, 184, 216, 34};
inline constexpr std::array<std::uint8_t, 16> kHostV6{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0,
                                                      0,    0,    0,    0,    0, 0, 0, 2};
inline constexpr std::array<std::uint8_t, 16> kPeerV6{0x26, 0x06, 0x28, 0x00, 0, 0, 0, 0,
                                                      0,    0,    0,    0,    0, 0, 0, 9};

// WithTransport appends to the IP header `p` a TCP (20 bytes), UDP (8) or
// other (8 zero bytes; pass zero ports) transport header.
inline Bytes WithTransport(Bytes p, std::uint8_t protocol, std::uint16_t sourcePort,
                           std::uint16_t destinationPort) {
    const std::size_t at = p.size();
    p.resize(at + (protocol == kTcp ? 20 : 8), 0);
    p[at] = static_cast<std::uint8_t>(sourcePort >> 8);
    p[at + 1] = static_cast<std::uint8_t>(sourcePort);
    p[at + 2] = static_cast<std::uint8_t>(destinationPort >> 8);
    p[at + 3] = static_cast<std::uint8_t>(destinationPort);
    if (protocol == kTcp) {
        p[at + 12] = 0x50;  // data offset 5
    }
    return p;
}

// Ipv4Packet: a 20-byte IPv4 header claiming `totalLength`, then the
// transport header. Only the headers are captured, as with a short NFLOG copy
// range.
inline Bytes Ipv4Packet(std::array<std::uint8_t, 4> source, std::array<std::uint8_t, 4> destination,
                        std::uint8_t protocol, std::uint16_t sourcePort,
                        std::uint16_t destinationPort, std::uint16_t totalLength) {
    Bytes p(20, 0);
    p[0] = 0x45;
    p[2] = static_cast<std::uint8_t>(totalLength >> 8);
    p[3] = static_cast<std::uint8_t>(totalLength);
    p[8] = 64;
    p[9] = protocol;
    std::memcpy(&p[12], source.data(), 4);
    std::memcpy(&p[16], destination.data(), 4);
    return WithTransport(std::move(p), protocol, sourcePort, destinationPort);
}

// Ipv6Packet: a 40-byte IPv6 header claiming `payloadLength`, then the
// transport header.
inline Bytes Ipv6Packet(std::array<std::uint8_t, 16> source,
                        std::array<std::uint8_t, 16> destination, std::uint8_t protocol,
                        std::uint16_t sourcePort, std::uint16_t destinationPort,
                        std::uint16_t payloadLength) {
    Bytes p(40, 0);
    p[0] = 0x60;
    p[4] = static_cast<std::uint8_t>(payloadLength >> 8);
    p[5] = static_cast<std::uint8_t>(payloadLength);
    p[6] = protocol;
    p[7] = 64;
    std::memcpy(&p[8], source.data(), 16);
    std::memcpy(&p[24], destination.data(), 16);
    return WithTransport(std::move(p), protocol, sourcePort, destinationPort);
}

// EthernetHeader: destination MAC, source MAC, EtherType.
inline Bytes EthernetHeader(std::array<std::uint8_t, 6> destination,
                            std::array<std::uint8_t, 6> source, std::uint16_t etherType) {
    Bytes h(14, 0);
    std::memcpy(h.data(), destination.data(), destination.size());
    std::memcpy(h.data() + 6, source.data(), source.size());
    h[12] = static_cast<std::uint8_t>(etherType >> 8);
    h[13] = static_cast<std::uint8_t>(etherType);
    return h;
}

// NflogPacket lists the attributes of one NFULNL_MSG_PACKET message; numbers
// are in host order and written in network order like the kernel does.
struct NflogPacket {
    std::optional<std::uint8_t> hook{};
    std::optional<std::uint32_t> inDevice{};
    std::optional<std::uint32_t> outDevice{};
    std::optional<std::uint16_t> hwType{};
    std::optional<Bytes> hwHeader{};
    std::optional<Bytes> payload{};
};

// NflogMessage is a built message and its attribute table, parsed with
// mnl_attr_parse as the host's listener hands it over.
class NflogMessage {
public:
    explicit NflogMessage(const NflogPacket& packet) : m_buffer(MNL_SOCKET_BUFFER_SIZE) {
        nlmsghdr* nlh = mnl_nlmsg_put_header(m_buffer.data());
        nlh->nlmsg_type = (NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_PACKET;
        auto* nfg = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(nfgenmsg)));
        nfg->nfgen_family = AF_INET;
        nfg->version = NFNETLINK_V0;
        nfg->res_id = htons(10000);
        if (packet.hook) {
            nfulnl_msg_packet_hdr header{};
            header.hw_protocol = htons(0x0800);
            header.hook = *packet.hook;
            mnl_attr_put(nlh, NFULA_PACKET_HDR, sizeof(header), &header);
        }
        if (packet.inDevice) {
            mnl_attr_put_u32(nlh, NFULA_IFINDEX_INDEV, htonl(*packet.inDevice));
        }
        if (packet.outDevice) {
            mnl_attr_put_u32(nlh, NFULA_IFINDEX_OUTDEV, htonl(*packet.outDevice));
        }
        if (packet.hwType) {
            mnl_attr_put_u16(nlh, NFULA_HWTYPE, htons(*packet.hwType));
        }
        if (packet.hwHeader) {
            mnl_attr_put_u16(nlh, NFULA_HWLEN,
                             htons(static_cast<std::uint16_t>(packet.hwHeader->size())));
            mnl_attr_put(nlh, NFULA_HWHEADER, packet.hwHeader->size(), packet.hwHeader->data());
        }
        if (packet.payload) {
            mnl_attr_put(nlh, NFULA_PAYLOAD, packet.payload->size(), packet.payload->data());
        }
        m_table.fill(nullptr);
        if (mnl_attr_parse(nlh, sizeof(nfgenmsg), &Collect, m_table.data()) != MNL_CB_OK) {
            throw std::runtime_error("cannot parse the built NFLOG message");
        }
    }

    const nlmsghdr* Header() const { return reinterpret_cast<const nlmsghdr*>(m_buffer.data()); }
    const nlattr* const* Attributes() const { return m_table.data(); }

private:
    static int Collect(const nlattr* attribute, void* data) {
        const int type = mnl_attr_get_type(attribute);
        if (mnl_attr_type_valid(attribute, NFULA_MAX) > 0) {
            static_cast<const nlattr**>(data)[type] = attribute;
        }
        return MNL_CB_OK;
    }

    std::vector<std::uint8_t> m_buffer;
    std::array<const nlattr*, NFULA_MAX + 1> m_table{};
};

}  // namespace nti::test
