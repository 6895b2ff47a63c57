// The views against the kernel's idea of a packet: packets laid out with the C
// library's struct iphdr, ip6_hdr, tcphdr and udphdr must read back field by
// field, and packets the kernel built (captured on the loopback of a test
// namespace) must parse to what their sockets sent.

#include <arpa/inet.h>
#include <netinet/icmp6.h>
#include <netinet/ip.h>
#include <netinet/ip6.h>
#include <netinet/ip_icmp.h>
#include <netinet/tcp.h>
#include <netinet/udp.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <vector>

#include "network_traffic_interceptor/ipv6_header.h"
#include "network_traffic_interceptor/packet.h"
#include "qor/result.h"
#include "tests/network_traffic_interceptor/export/network_traffic_interceptor/packet_test_util.h"

namespace dwi::network_interceptor {
namespace {

// Frame lays headers out back to back, starting one byte into its storage so
// that nothing may rely on the headers being aligned.
class Frame {
public:
    template <class Header>
    requires std::is_class_v<Header> Frame& Add(const Header& header) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(&header);
        m_bytes.insert(m_bytes.end(), bytes, bytes + sizeof(header));
        return *this;
    }
    Frame& Add(std::string_view data) {
        m_bytes.insert(m_bytes.end(), data.begin(), data.end());
        return *this;
    }
    Frame& Add(std::initializer_list<std::uint8_t> data) {
        m_bytes.insert(m_bytes.end(), data.begin(), data.end());
        return *this;
    }

    std::size_t Size() const { return m_bytes.size() - 1; }
    const std::uint8_t* At(std::size_t offset) const { return m_bytes.data() + 1 + offset; }
    ByteRange Range() const { return {At(0), At(Size())}; }

private:
    std::vector<std::uint8_t> m_bytes{0xEE};
};

in_addr V4Address(const char* text) {
    in_addr address{};
    EXPECT_EQ(inet_pton(AF_INET, text, &address), 1);
    return address;
}

in6_addr V6Address(const char* text) {
    in6_addr address{};
    EXPECT_EQ(inet_pton(AF_INET6, text, &address), 1);
    return address;
}

iphdr MakeIpv4(std::uint8_t protocol, std::uint16_t fragmentField) {
    iphdr ip{};
    ip.version = 4;
    ip.ihl = 5;
    ip.tos = 0x28;
    ip.id = htons(0xBEEF);
    ip.frag_off = htons(fragmentField);
    ip.ttl = 63;
    ip.protocol = protocol;
    ip.check = htons(0x1234);
    ip.saddr = V4Address("198.18.0.1").s_addr;
    ip.daddr = V4Address("198.19.255.254").s_addr;
    return ip;
}

ip6_hdr MakeIpv6(std::uint8_t nextHeader, std::uint16_t payloadLength) {
    ip6_hdr ip6{};
    ip6.ip6_flow = htonl(6u << 28 | 0xB8u << 20 | 0x12345u);
    ip6.ip6_plen = htons(payloadLength);
    ip6.ip6_nxt = nextHeader;
    ip6.ip6_hlim = 255;
    ip6.ip6_src = V6Address("fd00:198:18::1");
    ip6.ip6_dst = V6Address("fd00:198:18:0:8000::abcd");
    return ip6;
}

constexpr unsigned __int128 kV6Prefix = static_cast<unsigned __int128>(0xFD00019800180000u) << 64;

TEST(PacketKernelStructs, Ipv4TcpWithOptionsReadsBackFieldByField) {
    tcphdr tcp{};
    tcp.source = htons(40003);
    tcp.dest = htons(443);
    tcp.seq = htonl(0x01020304);
    tcp.ack_seq = htonl(0xA0B0C0D0);
    tcp.doff = 8;
    tcp.psh = 1;
    tcp.ack = 1;
    tcp.window = htons(64240);
    tcp.check = htons(0xABCD);
    tcp.urg_ptr = htons(7);
    // MSS 1460, NOP, window scale 7, NOP, NOP, SACK permitted.
    const std::initializer_list<std::uint8_t> options = {2, 4, 5, 180, 1, 3, 3, 7, 1, 1, 4, 2};
    iphdr ip = MakeIpv4(IPPROTO_TCP, IP_DF);
    ip.tot_len = htons(sizeof(ip) + sizeof(tcp) + options.size() + 5);

    Frame frame;
    frame.Add(ip).Add(tcp).Add(options).Add("GET /");

    ParsedPacket packet;
    ASSERT_EQ(packet.Parse(frame.Range(), true), qor::errors::kOk);

    const Ipv4Header* view = packet.Ipv4();
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view->Data(), frame.At(0));
    EXPECT_EQ(view->Version(), ip.version);
    EXPECT_EQ(view->HeaderLength(), ip.ihl * 4u);
    EXPECT_EQ(view->TypeOfService(), ip.tos);
    EXPECT_EQ(view->TotalLength(), ntohs(ip.tot_len));
    EXPECT_EQ(view->TotalLength(), frame.Size());
    EXPECT_EQ(view->Identification(), ntohs(ip.id));
    EXPECT_TRUE(view->DontFragment());
    EXPECT_FALSE(view->MoreFragments());
    EXPECT_EQ(view->FragmentOffset(), ntohs(ip.frag_off) & IP_OFFMASK);
    EXPECT_EQ(view->TimeToLive(), ip.ttl);
    EXPECT_EQ(view->Protocol(), ip.protocol);
    EXPECT_EQ(view->HeaderChecksum(), ntohs(ip.check));
    EXPECT_EQ(view->SourceAddress(), ntohl(ip.saddr));
    EXPECT_EQ(view->DestinationAddress(), ntohl(ip.daddr));

    const TcpHeader* tcpView = packet.Tcp();
    ASSERT_NE(tcpView, nullptr);
    EXPECT_EQ(tcpView->Data(), frame.At(sizeof(ip)));
    EXPECT_EQ(tcpView->SourcePort(), ntohs(tcp.source));
    EXPECT_EQ(tcpView->DestinationPort(), ntohs(tcp.dest));
    EXPECT_EQ(tcpView->SequenceNumber(), ntohl(tcp.seq));
    EXPECT_EQ(tcpView->AcknowledgementNumber(), ntohl(tcp.ack_seq));
    EXPECT_EQ(tcpView->DataOffset(), tcp.doff * 4u);
    EXPECT_EQ(tcpView->Flags(), tcp.th_flags);
    EXPECT_EQ(tcpView->Flags(), TH_PUSH | TH_ACK);
    EXPECT_EQ(tcpView->Window(), ntohs(tcp.window));
    EXPECT_EQ(tcpView->Checksum(), ntohs(tcp.check));
    EXPECT_EQ(tcpView->UrgentPointer(), ntohs(tcp.urg_ptr));

    EXPECT_EQ(packet.Protocol(), IPPROTO_TCP);
    EXPECT_EQ(packet.Transport().begin, frame.At(sizeof(ip)));
    EXPECT_EQ(packet.ApplicationPayload().begin, frame.At(sizeof(ip) + sizeof(tcp) + 12));
    EXPECT_EQ(packet.ApplicationPayload().Size(), 5u);
    EXPECT_EQ(packet.Source(), (PacketEndpoint{0xC6120001u, 40003, 4}));
    EXPECT_EQ(packet.Destination(), (PacketEndpoint{0xC613FFFEu, 443, 4}));
}

TEST(PacketKernelStructs, Ipv4FragmentFlagsAsTheKernelWritesThem) {
    struct Case {
        const char* name;
        std::uint16_t fragmentField;
        qor::result_t result;
    };
    const Case cases[] = {
        {"first fragment", IP_MF, qor::errors::kOk},
        {"middle fragment", IP_MF | 185, qor::errors::kFalse},
        {"last fragment", 370, qor::errors::kFalse},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        udphdr udp{};
        udp.source = htons(40001);
        udp.dest = htons(40002);
        const iphdr ip = MakeIpv4(IPPROTO_UDP, c.fragmentField);
        Frame frame;
        frame.Add(ip).Add(udp);
        ParsedPacket packet;
        ASSERT_EQ(packet.Parse(frame.Range(), true), c.result);
        ASSERT_NE(packet.Ipv4(), nullptr);
        EXPECT_EQ(packet.Ipv4()->MoreFragments(), (c.fragmentField & IP_MF) != 0);
        EXPECT_EQ(packet.Ipv4()->FragmentOffset(), c.fragmentField & IP_OFFMASK);
        EXPECT_EQ(packet.Udp() != nullptr, c.result == qor::errors::kOk);
    }
}

TEST(PacketKernelStructs, Ipv6UdpReadsBackFieldByField) {
    udphdr udp{};
    udp.source = htons(53);
    udp.dest = htons(40002);
    udp.len = htons(sizeof(udp) + 4);
    udp.check = htons(0x5555);
    const ip6_hdr ip6 = MakeIpv6(IPPROTO_UDP, sizeof(udp) + 4);

    Frame frame;
    frame.Add(ip6).Add(udp).Add("abcd");

    ParsedPacket packet;
    ASSERT_EQ(packet.Parse(frame.Range(), true), qor::errors::kOk);

    const Ipv6Header* view = packet.Ipv6();
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(packet.Ipv4(), nullptr);
    EXPECT_EQ(view->Version(), 6);
    EXPECT_EQ(view->TrafficClass(), 0xB8);
    EXPECT_EQ(view->FlowLabel(), 0x12345u);
    EXPECT_EQ(view->PayloadLength(), ntohs(ip6.ip6_plen));
    EXPECT_EQ(view->PayloadLength() + Ipv6Header::kSize, frame.Size());
    EXPECT_EQ(view->NextHeader(), ip6.ip6_nxt);
    EXPECT_EQ(view->HopLimit(), ip6.ip6_hlim);
    EXPECT_EQ(view->SourceAddress(), kV6Prefix | 1u);
    EXPECT_EQ(view->DestinationAddress(), kV6Prefix | 0x800000000000ABCDu);

    const UdpHeader* udpView = packet.Udp();
    ASSERT_NE(udpView, nullptr);
    EXPECT_EQ(udpView->Data(), frame.At(sizeof(ip6)));
    EXPECT_EQ(udpView->SourcePort(), ntohs(udp.source));
    EXPECT_EQ(udpView->DestinationPort(), ntohs(udp.dest));
    EXPECT_EQ(udpView->Length(), ntohs(udp.len));
    EXPECT_EQ(udpView->Checksum(), ntohs(udp.check));

    EXPECT_EQ(packet.ApplicationPayload().begin, frame.At(sizeof(ip6) + sizeof(udp)));
    EXPECT_EQ(packet.ApplicationPayload().Size(), 4u);
    EXPECT_EQ(packet.Source(), (PacketEndpoint{kV6Prefix | 1u, 53, 6}));
    EXPECT_EQ(packet.Destination(), (PacketEndpoint{kV6Prefix | 0x800000000000ABCDu, 40002, 6}));
}

TEST(PacketKernelStructs, Ipv6ExtensionHeadersFromTheCLibraryStructs) {
    // Each extension is 8 bytes on the wire. Only for the fragment header does
    // the kept length rule agree; for the others parsing advances one byte and
    // reads the UDP ports from the extension's own bytes.
    ip6_hbh hopByHop{};
    hopByHop.ip6h_nxt = IPPROTO_UDP;
    ip6_dest destination{};
    destination.ip6d_nxt = IPPROTO_UDP;
    ip6_rthdr routing{};
    routing.ip6r_nxt = IPPROTO_UDP;
    routing.ip6r_type = 2;
    routing.ip6r_segleft = 1;
    ip6_frag fragment{};
    fragment.ip6f_nxt = IPPROTO_UDP;
    fragment.ip6f_offlg = IP6F_MORE_FRAG;
    fragment.ip6f_ident = htonl(42);
    // PadN over the 6 bytes after a 2-byte header.
    const std::initializer_list<std::uint8_t> padN = {1, 4, 0, 0, 0, 0};
    const std::initializer_list<std::uint8_t> routingTail = {0, 0, 0, 0};

    udphdr udp{};
    udp.source = htons(40001);
    udp.dest = htons(40002);
    udp.len = htons(sizeof(udp));

    struct Case {
        const char* name;
        std::uint8_t kind;
        Frame extension;
        std::size_t transport;
        std::uint16_t sourcePort;
        std::uint16_t destinationPort;
    };
    Case cases[] = {
        {"hop-by-hop", IPPROTO_HOPOPTS, Frame().Add(hopByHop).Add(padN), 41, 0x0001, 0x0400},
        {"destination options", IPPROTO_DSTOPTS, Frame().Add(destination).Add(padN), 41, 0x0001,
         0x0400},
        {"routing", IPPROTO_ROUTING, Frame().Add(routing).Add(routingTail), 41, 0x0002, 0x0100},
        {"fragment", IPPROTO_FRAGMENT, Frame().Add(fragment), 48, 40001, 40002},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(c.extension.Size(), 8u);
        const ip6_hdr ip6 = MakeIpv6(c.kind, 8 + sizeof(udp));
        Frame frame;
        frame.Add(ip6).Add(std::string_view(reinterpret_cast<const char*>(c.extension.At(0)), 8));
        frame.Add(udp);

        ParsedPacket packet;
        ASSERT_EQ(packet.Parse(frame.Range(), true), qor::errors::kOk);
        EXPECT_EQ(packet.Protocol(), IPPROTO_UDP);
        EXPECT_EQ(packet.Transport().begin, frame.At(c.transport));
        EXPECT_EQ(packet.Source().port, c.sourcePort);
        EXPECT_EQ(packet.Destination().port, c.destinationPort);
        // Where the kernel put the UDP header, a view reads it correctly.
        const UdpHeader wire(frame.At(sizeof(ip6) + 8));
        EXPECT_EQ(wire.SourcePort(), 40001);
        EXPECT_EQ(wire.DestinationPort(), 40002);
    }
}

TEST(PacketKernelStructs, IcmpHasNoPorts) {
    icmphdr icmp{};
    icmp.type = ICMP_ECHO;
    icmp.un.echo.id = htons(7);
    const iphdr ip = MakeIpv4(IPPROTO_ICMP, 0);
    icmp6_hdr icmp6{};
    icmp6.icmp6_type = ICMP6_ECHO_REQUEST;
    const ip6_hdr ip6 = MakeIpv6(IPPROTO_ICMPV6, sizeof(icmp6));

    struct Case {
        const char* name;
        Frame frame;
        std::uint8_t protocol;
        std::size_t transport;
        std::uint8_t version;
    };
    const Case cases[] = {
        {"ICMP", Frame().Add(ip).Add(icmp), IPPROTO_ICMP, sizeof(ip), 4},
        {"ICMPv6", Frame().Add(ip6).Add(icmp6), IPPROTO_ICMPV6, sizeof(ip6), 6},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ParsedPacket packet;
        ASSERT_EQ(packet.Parse(c.frame.Range(), false), qor::errors::kOk);
        EXPECT_EQ(packet.Protocol(), c.protocol);
        EXPECT_EQ(packet.Transport().begin, c.frame.At(c.transport));
        EXPECT_EQ(packet.Source().port, 0);
        EXPECT_EQ(packet.Destination().port, 0);
        EXPECT_EQ(packet.Source().version, c.version);
        EXPECT_EQ(packet.Parse(c.frame.Range(), true), qor::errors::kInvalidArgument);
    }
}

TEST(PacketKernelCaptures, StoredCapturesParseToWhatTheirSocketsSent) {
    struct Case {
        const char* name;
        std::string_view hex;
        std::uint8_t protocol;
        PacketEndpoint source;
        PacketEndpoint destination;
        std::ptrdiff_t transport;
        std::ptrdiff_t application;
    };
    const Case cases[] = {
        // SYN from 198.18.0.1:40004 to 198.18.0.2:40002; MSS, SACK permitted,
        // timestamps, window scale: data offset 40.
        {"TCP SYN over IPv4",
         "45 00 00 3c f9 67 40 00 40 06 b5 2c c6 12 00 01 c6 12 00 02 9c 44 9c 42 46 ac 85 22"
         "00 00 00 00 a0 02 fa f0 8c 56 00 00 02 04 05 b4 04 02 08 0a 69 6b 2a ed 00 00 00 00"
         "01 03 03 0a",
         IPPROTO_TCP,
         {0xC6120001u, 40004, 4},
         {0xC6120002u, 40002, 4},
         20,
         60},
        {"TCP SYN over IPv6",
         "60 0e 2f 5d 00 28 06 40 fd 00 01 98 00 18 00 00 00 00 00 00 00 00 00 01 fd 00 01 98"
         "00 18 00 00 00 00 00 00 00 00 00 02 9c 44 9c 42 3f 02 28 e9 00 00 00 00 a0 02 fd 20"
         "fd 92 00 00 02 04 05 a0 04 02 08 0a d8 e7 74 07 00 00 00 00 01 03 03 0a",
         IPPROTO_TCP,
         {kV6Prefix | 1u, 40004, 6},
         {kV6Prefix | 2u, 40002, 6},
         40,
         80},
        // UDP "hbh" from [fd00:198:18::1]:40006 to port 40002 behind an 8-byte
        // hop-by-hop header (length 0, PadN). The kept length rule advances
        // one byte, so the ports come from the option bytes 00 01 | 04 00.
        {"UDP over IPv6 with hop-by-hop options",
         "60 0a 03 33 00 13 00 40 fd 00 01 98 00 18 00 00 00 00 00 00 00 00 00 01 fd 00 01 98"
         "00 18 00 00 00 00 00 00 00 00 00 02 11 00 01 04 00 00 00 00 9c 46 9c 42 00 0b f9 87"
         "68 62 68",
         IPPROTO_UDP,
         {kV6Prefix | 1u, 0x0001, 6},
         {kV6Prefix | 2u, 0x0400, 6},
         41,
         49},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto bytes = nti::test::Hex(c.hex);
        ParsedPacket packet;
        ASSERT_EQ(packet.Parse(nti::test::Range(bytes), true), qor::errors::kOk);
        EXPECT_EQ(packet.Protocol(), c.protocol);
        EXPECT_EQ(packet.Source(), c.source);
        EXPECT_EQ(packet.Destination(), c.destination);
        EXPECT_EQ(nti::test::Offset(bytes, packet.Transport().begin), c.transport);
        EXPECT_EQ(nti::test::Offset(bytes, packet.ApplicationPayload().begin), c.application);
        EXPECT_EQ(packet.ApplicationPayload().end, bytes.data() + bytes.size());
    }
}

}  // namespace
}  // namespace dwi::network_interceptor
