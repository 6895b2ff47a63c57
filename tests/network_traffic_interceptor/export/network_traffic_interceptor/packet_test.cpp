// Packet views: fields read at their wire offsets, and how ParsedPacket finds
// the transport and application ranges (IPv6 extensions by the kept rule).
#include "network_traffic_interceptor/packet.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "qor/exception.h"
#include "tests/support/nfqueue_message.h"

namespace dwi::network_interceptor {
namespace {

using nti::test::Bytes;
using nti::test::Hex;

ByteRange Range(const Bytes& bytes) {
    static const std::uint8_t kEmpty = 0;
    const std::uint8_t* begin = bytes.empty() ? &kEmpty : bytes.data();
    return {begin, begin + bytes.size()};
}

// 198.18.0.1 -> 198.18.0.2 with flags/fragment and protocol in hex.
std::string V4(std::string_view fragment, std::string_view protocol) {
    return "45 00 00 00 00 01 " + std::string(fragment) + " 40 " + std::string(protocol) +
           " 00 00 c6 12 00 01 c6 12 00 02 ";
}
// fd00:198:18::1 -> fd00:198:18::2 with the next header in hex.
std::string V6(std::string_view next) {
    return "60 00 00 00 00 00 " + std::string(next) +
           " 40 fd 00 01 98 00 18 00 00 00 00 00 00 00 00 00 01"
           " fd 00 01 98 00 18 00 00 00 00 00 00 00 00 00 02 ";
}
const std::string kTcp = "9c 43 00 50 00 00 00 01 00 00 00 00 50 02 ff ff 00 00 00 00 ";
const std::string kUdp = "9c 41 9c 42 00 0c 00 00 61 62 63 64 ";
const std::string kOptions = "02 04 05 b4 01 03 03 07 01 01 04 02 ";

constexpr __uint128_t kV4Source = 0xC6120001u;
constexpr __uint128_t kV6Source = (static_cast<__uint128_t>(0xFD00019800180000u) << 64) | 1u;

TEST(PacketViews, FieldsAreReadAtTheirOffsetsInNetworkOrder) {
    // IPv4 (DF, TTL 64, id 0x1c46, checksum 0xb1e6) + TCP with options, then "GET /".
    const Bytes v4 =
        Hex("45 b8 00 3d 1c 46 40 00 40 06 b1 e6 c0 a8 00 68 c6 13 ff fe"
            "9c 43 01 bb 01 02 03 04 a0 b0 c0 d0 80 18 fa f0 ab cd 00 07" +
            kOptions + "47 45 54 20 2f");
    ParsedPacket p;
    ASSERT_EQ(p.Parse(Range(v4), true), qor::errors::kOk);
    const Ipv4Header& ip = *p.Ipv4();
    EXPECT_EQ(
        std::tuple(ip.Version(), ip.HeaderLength(), ip.TypeOfService(), ip.TotalLength(),
                   ip.Identification(), ip.DontFragment(), ip.MoreFragments(), ip.FragmentOffset(),
                   ip.TimeToLive(), ip.HeaderChecksum(), ip.SourceAddress(),
                   ip.DestinationAddress()),
        std::tuple(4, 20u, 0xb8, 61, 0x1c46, true, false, 0, 64, 0xb1e6, 0xc0a80068u, 0xc613fffeu));
    const TcpHeader& tcp = *p.Tcp();
    EXPECT_EQ(std::tuple(tcp.SourcePort(), tcp.DestinationPort(), tcp.SequenceNumber(),
                         tcp.AcknowledgementNumber(), tcp.DataOffset(), tcp.Flags(), tcp.Window(),
                         tcp.Checksum(), tcp.UrgentPointer()),
              std::tuple(40003, 443, 0x01020304u, 0xa0b0c0d0u, 32u, 0x18, 64240, 0xabcd, 7));
    EXPECT_EQ(std::string(p.ApplicationPayload().begin, p.ApplicationPayload().end), "GET /");

    // IPv6: traffic class 0xa5, flow label 0x12345, hop limit 7, UDP.
    const Bytes v6 =
        Hex("6a 51 23 45 00 0c 11 07 fd 00 01 98 00 18 00 00 00 00 00 00 00 00 00 01"
            "fd 00 01 98 00 18 00 00 00 00 00 00 00 00 00 02" +
            kUdp);
    ASSERT_EQ(p.Parse(Range(v6), true), qor::errors::kOk);
    const Ipv6Header& ip6 = *p.Ipv6();
    EXPECT_EQ(std::tuple(ip6.Version(), ip6.TrafficClass(), ip6.FlowLabel(), ip6.PayloadLength(),
                         ip6.HopLimit(), ip6.SourceAddress() == kV6Source,
                         ip6.DestinationAddress() == kV6Source + 1),
              std::tuple(6, 0xa5, 0x12345u, 12, 7, true, true));
    const UdpHeader& udp = *p.Udp();
    EXPECT_EQ(std::tuple(udp.SourcePort(), udp.DestinationPort(), udp.Length()),
              std::tuple(40001, 40002, 12));
    EXPECT_EQ(p.Source(), (PacketEndpoint{kV6Source, 40001, 6}));
    EXPECT_EQ(p.Destination(), (PacketEndpoint{kV6Source + 1, 40002, 6}));
}

struct ParseCase {
    const char* name;
    std::string hex;
    bool requirePorts;
    qor::result_t result;
    std::uint8_t protocol;
    std::optional<std::ptrdiff_t> transport;    // offset; nullopt: null range
    std::optional<std::ptrdiff_t> application;  // offset; nullopt: null range
    std::uint16_t sourcePort;
};

TEST(ParsedPacket, FindsTransportAndApplicationPayload) {
    constexpr auto kOk = qor::errors::kOk;
    constexpr auto kFalse = qor::errors::kFalse;
    constexpr auto kInvalid = qor::errors::kInvalidArgument;
    const auto none = std::nullopt;
    const ParseCase cases[] = {
        {"IPv4 UDP", V4("40 00", "11") + kUdp, true, kOk, 17, 20, 28, 40001},
        {"IPv4 first fragment", V4("20 00", "11") + kUdp, true, kOk, 17, 20, 28, 40001},
        {"IPv4 later fragment", V4("20 01", "11") + kUdp, true, kFalse, 0, none, none, 0},
        {"IPv4 options", "46" + V4("00 00", "01").substr(2) + "01 01 01 00 08 00", false, kOk, 1,
         24, none, 0},
        {"IPv4 header fills the packet", V4("00 00", "01"), false, kOk, 1, none, none, 0},
        {"TCP header ends the packet", V4("00 00", "06") + kTcp, true, kOk, 6, 20, 40, 40003},
        {"TCP offset past the end",
         V4("00 00", "06") + "9c 43 00 50 00 00 00 01 00 00 00 00 80 02 ff ff 00 00 00 00", true,
         kOk, 6, 20, none, 40003},
        {"ICMP without ports", V4("00 00", "01") + "08 00 f7 ff 00 00 00 00", false, kOk, 1, 20,
         none, 0},
        {"version 5", "55" + V4("00 00", "11").substr(2) + kUdp, false, kInvalid, 0, none, none, 0},
        {"IPv6 UDP", V6("11") + kUdp, true, kOk, 17, 40, 48, 40001},
        // Extensions advance by length * 8 + 1 (8 for a fragment header).
        {"hop-by-hop length 0", V6("00") + "11 00 41 9c 42 00 08 00 00", true, kOk, 17, 41, 49,
         0x0041},
        {"routing length 2", V6("2b") + "11 02 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00" + kUdp,
         true, kOk, 17, 57, 65, 40001},
        {"fragment ignores its length byte", V6("2c") + "11 05 00 01 00 00 00 2a" + kUdp, true, kOk,
         17, 48, 56, 40001},
        {"mobility then destination options then TCP",
         V6("87") +
             "3c 01 00 00 00 00 00 00 00 06 00 50 01 bb 00 00 00 01 00 00 00 00 50 02 ff ff" +
             "00 00 00 00",
         true, kOk, 6, 50, 70, 80},
        {"one byte after the fixed header", V6("00") + "3a", false, kOk, 0, 40, none, 0},
        {"extension of exactly its length", V6("00") + "3a 01 00 00 00 00 00 00 00", false, kOk, 58,
         none, none, 0},
        {"routing running past the end", V6("2b") + "3a ff 00 00", false, kOk, 58, none, none, 0},
        {"ICMPv6 when ports are required", V6("3a") + "80 00 7f ff", true, kInvalid, 58, 40, none,
         0},
    };
    for (const ParseCase& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes bytes = Hex(c.hex);
        ParsedPacket p;
        ASSERT_EQ(p.Parse(Range(bytes), c.requirePorts), c.result);
        EXPECT_EQ(p.Protocol(), c.protocol);
        const auto offset = [&](ByteRange r) -> std::optional<std::ptrdiff_t> {
            if (r.IsNull()) {
                return std::nullopt;
            }
            EXPECT_EQ(r.end, bytes.data() + bytes.size());
            return r.begin - bytes.data();
        };
        EXPECT_EQ(offset(p.Transport()), c.transport);
        EXPECT_EQ(offset(p.ApplicationPayload()), c.application);
        const bool ok = c.result == kOk;
        EXPECT_EQ(p.Source().port, c.sourcePort);
        EXPECT_EQ(p.Source().version, ok ? bytes[0] >> 4 : 0);
        if (ok && bytes[0] >> 4 == 4) {
            EXPECT_EQ(p.Source().address, kV4Source);
            EXPECT_EQ(p.Destination().address, kV4Source + 1);
        }
        EXPECT_EQ(p.Tcp() != nullptr, ok && c.protocol == 6);
        EXPECT_EQ(p.Udp() != nullptr, ok && c.protocol == 17);
    }
    // A parse starts from nothing: a fragment after TCP keeps no TCP view.
    ParsedPacket p;
    ASSERT_EQ(p.Parse(Range(Hex(V4("00 00", "06") + kTcp)), true), kOk);
    const Bytes later = Hex(V4("00 b9", "06") + kTcp);
    ASSERT_EQ(p.Parse(Range(later), true), kFalse);
    EXPECT_EQ(p.Tcp(), nullptr);
    EXPECT_EQ(p.Source(), PacketEndpoint{});
}

TEST(ParsedPacket, HeadersThatDoNotFitThrowWithTheirSizes) {
    const std::pair<std::string, std::string_view> cases[] = {
        {"", "expected 1, actual: 0"},
        {"45 00 00 13 00 01 00 00 40 06 00 00 c6 12 00 01 c6 12 00", "expected 20, actual: 19"},
        {V6("06").substr(0, 39 * 3), "expected 40, actual: 39"},
        {V4("00 00", "06") + kTcp.substr(0, 19 * 3), "expected 20, actual: 19"},
        {V6("11"), "expected 8, actual: 0"},
        {V6("2c") + "06 00 00 00 00 00 00 2a", "expected 20, actual: 0"},
    };
    for (const auto& [hex, sizes] : cases) {
        SCOPED_TRACE(hex);
        const Bytes bytes = Hex(hex);
        ParsedPacket p;
        try {
            (void)p.Parse(Range(bytes), false);
            ADD_FAILURE() << "no exception";
        } catch (const qor::CheckFailedException& e) {
            EXPECT_EQ(e.Message(), ": payload size is to small: " + std::string(sizes));
            EXPECT_EQ(e.Where().file,
                      "network_traffic_interceptor/export/network_traffic_interceptor/packet");
        }
    }
}

}  // namespace
}  // namespace dwi::network_interceptor
