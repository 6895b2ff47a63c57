// Size-checked views of an IPv4 or IPv6 packet as netfilter delivers it
// (NFQUEUE or NFLOG payload) and the parse that finds its transport header
// and endpoints. Header-only; views point into the caller's bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "network_traffic_interceptor/ipv6_header.h"
#include "qor/exception.h"
#include "qor/result.h"
#include "qor/source_location.h"

namespace dwi::network_interceptor {

// ByteRange is a span of packet bytes; {nullptr, nullptr} means absent, while
// begin == end != nullptr is present and empty. begin <= end always.
struct ByteRange {
    const std::uint8_t* begin = nullptr;
    const std::uint8_t* end = nullptr;

    bool IsNull() const noexcept { return begin == nullptr && end == nullptr; }
    std::size_t Size() const noexcept { return static_cast<std::size_t>(end - begin); }
};

// PacketEndpoint is one side of a packet. `address` is the address as a number
// in host order (the low 32 bits for IPv4); `port` is 0 for protocols without
// ports; `version` is 4 or 6, 0 while unknown.
struct PacketEndpoint {
    __uint128_t address = 0;
    std::uint16_t port = 0;
    std::uint8_t version = 0;

    friend bool operator==(const PacketEndpoint&, const PacketEndpoint&) = default;
};

// IP protocol numbers that carry ports.
inline constexpr std::uint8_t kIpProtocolTcp = 6;
inline constexpr std::uint8_t kIpProtocolUdp = 17;

// Ipv4Header is a view of the 20-byte fixed IPv4 header.
class Ipv4Header : public HeaderView {
public:
    static constexpr std::size_t kSize = 20;

    using HeaderView::HeaderView;

    std::uint8_t Version() const noexcept { return m_bytes[0] >> 4; }
    // HeaderLength is the IHL field in bytes (options included).
    std::size_t HeaderLength() const noexcept {
        return static_cast<std::size_t>(m_bytes[0] & 0x0Fu) * 4u;
    }
    std::uint8_t TypeOfService() const noexcept { return m_bytes[1]; }
    std::uint16_t TotalLength() const noexcept { return wire::LoadBe16(m_bytes + 2); }
    std::uint16_t Identification() const noexcept { return wire::LoadBe16(m_bytes + 4); }
    bool DontFragment() const noexcept { return (m_bytes[6] & 0x40u) != 0; }
    bool MoreFragments() const noexcept { return (m_bytes[6] & 0x20u) != 0; }
    // FragmentOffset is the 13-bit field, in units of 8 bytes.
    std::uint16_t FragmentOffset() const noexcept { return wire::LoadBe16(m_bytes + 6) & 0x1FFFu; }
    std::uint8_t TimeToLive() const noexcept { return m_bytes[8]; }
    std::uint8_t Protocol() const noexcept { return m_bytes[9]; }
    std::uint16_t HeaderChecksum() const noexcept { return wire::LoadBe16(m_bytes + 10); }
    std::uint32_t SourceAddress() const noexcept { return wire::LoadBe32(m_bytes + 12); }
    std::uint32_t DestinationAddress() const noexcept { return wire::LoadBe32(m_bytes + 16); }
};

// TcpHeader is a view of the 20-byte fixed TCP header.
class TcpHeader : public HeaderView {
public:
    static constexpr std::size_t kSize = 20;

    using HeaderView::HeaderView;

    std::uint16_t SourcePort() const noexcept { return wire::LoadBe16(m_bytes); }
    std::uint16_t DestinationPort() const noexcept { return wire::LoadBe16(m_bytes + 2); }
    std::uint32_t SequenceNumber() const noexcept { return wire::LoadBe32(m_bytes + 4); }
    std::uint32_t AcknowledgementNumber() const noexcept { return wire::LoadBe32(m_bytes + 8); }
    // DataOffset is the header length in bytes (options included) as the
    // header states it; it is not checked against the packet.
    std::size_t DataOffset() const noexcept {
        return static_cast<std::size_t>(m_bytes[12] >> 4u) * 4u;
    }
    // Flags is byte 13: CWR ECE URG ACK PSH RST SYN FIN from the high bit down.
    std::uint8_t Flags() const noexcept { return m_bytes[13]; }
    std::uint16_t Window() const noexcept { return wire::LoadBe16(m_bytes + 14); }
    std::uint16_t Checksum() const noexcept { return wire::LoadBe16(m_bytes + 16); }
    std::uint16_t UrgentPointer() const noexcept { return wire::LoadBe16(m_bytes + 18); }
};

// UdpHeader is a view of the 8-byte UDP header.
class UdpHeader : public HeaderView {
public:
    static constexpr std::size_t kSize = 8;

    using HeaderView::HeaderView;

    std::uint16_t SourcePort() const noexcept { return wire::LoadBe16(m_bytes); }
    std::uint16_t DestinationPort() const noexcept { return wire::LoadBe16(m_bytes + 2); }
    std::uint16_t Length() const noexcept { return wire::LoadBe16(m_bytes + 4); }
    std::uint16_t Checksum() const noexcept { return wire::LoadBe16(m_bytes + 6); }
};

namespace packet_detail {

// The location every size failure reports. Fixed rather than __FILE__ so that
// it reads the same wherever this header is installed and included from.
inline constexpr std::string_view kSourceFile =
    "network_traffic_interceptor/export/network_traffic_interceptor/packet";

// Kept out of line so that the checks cost one compare on the happy path.
[[noreturn, gnu::cold, gnu::noinline]] inline void ThrowPayloadTooSmall(std::size_t expected,
                                                                        std::size_t actual,
                                                                        std::uint32_t line) {
    throw qor::CheckFailedException(": payload size is to small: expected " +
                                        std::to_string(expected) +
                                        ", actual: " + std::to_string(actual),
                                    qor::SourceLocation{kSourceFile, line});
}

inline void CheckPayloadSize(ByteRange range, std::size_t expected) {
    if (range.Size() < expected) [[unlikely]] {
        ThrowPayloadTooSmall(expected, range.Size(), __LINE__);
    }
}

}  // namespace packet_detail

// IpVersion returns the version nibble of the packet in `range`. Throws
// qor::CheckFailedException (": payload size is to small: expected 1, actual:
// 0") when the range is empty.
inline std::uint8_t IpVersion(ByteRange range) {
    packet_detail::CheckPayloadSize(range, 1);
    return range.begin[0] >> 4;
}

// ViewHeader returns a `Header` view (Ipv4Header, Ipv6Header, TcpHeader or
// UdpHeader) of the start of `range`. Use it for every header read from
// outside bytes. Throws qor::CheckFailedException with ": payload size is to
// small: expected <Header::kSize>, actual: <range size>" when the range is
// shorter than the header; a null range counts as size 0.
template <class Header>
Header ViewHeader(ByteRange range) {
    packet_detail::CheckPayloadSize(range, Header::kSize);
    return Header(range.begin);
}

// ParsedPacket is the parse of one network-layer packet: its transport
// protocol, where its headers and payloads are, and its two endpoints. It
// refers to the parsed bytes and is valid while they are. Reusable: every
// Parse starts from an empty state. Pointers returned by the header accessors
// point into this object.
class ParsedPacket {
public:
    // Parse reads the IPv4 or IPv6 packet in `payload`. It returns 0 when the
    // packet was parsed; 1 for a non-first IPv4 fragment (only the payload
    // and the IPv4 header are then set); 0x80000046 for a version other than
    // 4 or 6, or, when `requirePorts` is set, a protocol other than TCP or UDP
    // (the endpoints then stay unset). A header that does not fit in the bytes
    // throws qor::CheckFailedException; fields parsed before it stay set.
    // IPv6 extension headers are skipped by the rule of Ipv6ExtensionLength.
    // Never allocates unless it throws.
    [[nodiscard]] qor::result_t Parse(ByteRange payload, bool requirePorts);

    // Protocol is the IPv4 protocol or the final IPv6 next-header value.
    std::uint8_t Protocol() const noexcept { return m_protocol; }
    // Payload is the whole packet as given to Parse.
    ByteRange Payload() const noexcept { return m_payload; }
    // Transport runs from the transport header to the packet end; null when
    // the network headers fill the packet.
    ByteRange Transport() const noexcept { return m_transport; }
    // ApplicationPayload follows the TCP or UDP header; empty at the packet
    // end when that header ends the packet; null for other protocols or when
    // the TCP data offset points past the end.
    ByteRange ApplicationPayload() const noexcept { return m_applicationPayload; }

    // Header accessors return null when the packet has no such header.
    const Ipv4Header* Ipv4() const noexcept { return m_ipv4.Data() ? &m_ipv4 : nullptr; }
    const Ipv6Header* Ipv6() const noexcept { return m_ipv6.Data() ? &m_ipv6 : nullptr; }
    const TcpHeader* Tcp() const noexcept { return m_tcp.Data() ? &m_tcp : nullptr; }
    const UdpHeader* Udp() const noexcept { return m_udp.Data() ? &m_udp : nullptr; }

    const PacketEndpoint& Source() const noexcept { return m_source; }
    const PacketEndpoint& Destination() const noexcept { return m_destination; }

private:
    void ParseIpv4();
    void ParseIpv6();

    std::uint8_t m_protocol = 0;
    ByteRange m_payload;
    ByteRange m_transport;
    ByteRange m_applicationPayload;
    Ipv4Header m_ipv4;
    Ipv6Header m_ipv6;
    TcpHeader m_tcp;
    UdpHeader m_udp;
    PacketEndpoint m_source;
    PacketEndpoint m_destination;
};

inline qor::result_t ParsedPacket::Parse(ByteRange payload, bool requirePorts) {
    // Field by field: one aggregate reset compiles to a slow `rep stos`.
    m_protocol = 0;
    m_payload = payload;
    m_transport = {};
    m_applicationPayload = {};
    m_ipv4 = {};
    m_ipv6 = {};
    m_tcp = {};
    m_udp = {};
    m_source = {};
    m_destination = {};

    switch (IpVersion(payload)) {
        case 4:
            m_ipv4 = ViewHeader<Ipv4Header>(payload);
            // Later fragments carry no transport header.
            if (m_ipv4.FragmentOffset() != 0) {
                return qor::errors::kFalse;
            }
            ParseIpv4();
            break;
        case 6:
            m_ipv6 = ViewHeader<Ipv6Header>(payload);
            ParseIpv6();
            break;
        default:
            return qor::errors::kInvalidArgument;
    }

    // Application payload of a header of `length` bytes; empty at the packet
    // end when the header ends there, null when it would start past it.
    const auto after = [this](std::size_t length) {
        return length <= m_transport.Size() ? ByteRange{m_transport.begin + length, m_transport.end}
                                            : ByteRange{};
    };
    switch (m_protocol) {
        case kIpProtocolTcp:
            m_tcp = ViewHeader<TcpHeader>(m_transport);
            m_applicationPayload = after(m_tcp.DataOffset());
            m_source.port = m_tcp.SourcePort();
            m_destination.port = m_tcp.DestinationPort();
            break;
        case kIpProtocolUdp:
            m_udp = ViewHeader<UdpHeader>(m_transport);
            m_applicationPayload = after(UdpHeader::kSize);
            m_source.port = m_udp.SourcePort();
            m_destination.port = m_udp.DestinationPort();
            break;
        default:
            if (requirePorts) {
                return qor::errors::kInvalidArgument;
            }
            break;
    }

    if (m_ipv4.Data()) {
        m_source.address = m_ipv4.SourceAddress();
        m_destination.address = m_ipv4.DestinationAddress();
        m_source.version = m_destination.version = 4;
    } else {
        m_source.address = m_ipv6.SourceAddress();
        m_destination.address = m_ipv6.DestinationAddress();
        m_source.version = m_destination.version = 6;
    }
    return qor::errors::kOk;
}

inline void ParsedPacket::ParseIpv4() {
    m_protocol = m_ipv4.Protocol();
    const std::size_t headerLength = m_ipv4.HeaderLength();
    if (headerLength < m_payload.Size()) {
        m_transport = {m_payload.begin + headerLength, m_payload.end};
    }
}

inline void ParsedPacket::ParseIpv6() {
    if (m_payload.Size() > Ipv6Header::kSize) {
        m_transport = {m_payload.begin + Ipv6Header::kSize, m_payload.end};
    }
    std::uint8_t nextHeader = m_ipv6.NextHeader();
    // Each pass shortens the transport range or nulls it, so this ends.
    while (IsIpv6ExtensionHeader(nextHeader) && m_transport.Size() >= 2) {
        const std::size_t length = Ipv6ExtensionLength(nextHeader, m_transport.begin);
        nextHeader = m_transport.begin[0];
        if (m_transport.Size() <= length) {
            m_transport = {};
        } else {
            m_transport.begin += length;
        }
    }
    m_protocol = nextHeader;
}

}  // namespace dwi::network_interceptor
