#include "network_traffic_interceptor/packet.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "network_traffic_interceptor/ipv6_header.h"
#include "qor/exception.h"
#include "qor/result.h"
#include "tests/network_traffic_interceptor/export/network_traffic_interceptor/packet_test_util.h"

namespace dwi::network_interceptor {
namespace {

using nti::test::Hex;
using nti::test::Offset;
using nti::test::Range;

constexpr std::string_view kLocation =
    "network_traffic_interceptor/export/network_traffic_interceptor/packet";

constexpr unsigned __int128 kV4Source = 0xC6120001u;       // 198.18.0.1
constexpr unsigned __int128 kV4Destination = 0xC6120002u;  // 198.18.0.2
// fd00:198:18::1 and fd00:198:18::2
constexpr unsigned __int128 kV6Prefix = static_cast<unsigned __int128>(0xFD00019800180000u) << 64;
constexpr unsigned __int128 kV6Source = kV6Prefix | 1u;
constexpr unsigned __int128 kV6Destination = kV6Prefix | 2u;

// IPv4 header 198.18.0.1 -> 198.18.0.2 with the given flags/fragment field
// and protocol, both in hex. Parse reads neither the total length nor the
// checksum.
std::string V4(std::string_view fragment, std::string_view protocol) {
    return "45 00 00 00 00 01 " + std::string(fragment) + " 40 " + std::string(protocol) +
           " 00 00 c6 12 00 01 c6 12 00 02 ";
}

// IPv6 fixed header fd00:198:18::1 -> fd00:198:18::2 with next header in hex.
std::string V6(std::string_view nextHeader) {
    return "60 00 00 00 00 00 " + std::string(nextHeader) +
           " 40 fd 00 01 98 00 18 00 00 00 00 00 00 00 00 00 01"
           " fd 00 01 98 00 18 00 00 00 00 00 00 00 00 00 02 ";
}

// TCP 40003 -> 80, SYN, data offset 5.
constexpr std::string_view kTcp = "9c 43 00 50 00 00 00 01 00 00 00 00 50 02 ff ff 00 00 00 00 ";
// UDP 40001 -> 40002, length 12, "abcd".
constexpr std::string_view kUdp = "9c 41 9c 42 00 0c 00 00 61 62 63 64 ";
// ICMP / ICMPv6 echo request.
constexpr std::string_view kIcmpEcho = "08 00 f7 ff 00 00 00 00 ";

std::string operator+(std::string a, std::string_view b) {
    return a.append(b);
}

// Repeat writes `byte` (with its trailing blank) `count` times.
std::string Repeat(std::string_view byte, int count) {
    std::string out;
    for (int i = 0; i < count; ++i) {
        out += byte;
    }
    return out;
}

// ExpectTooSmall parses `bytes` and expects the size failure `message`.
void ExpectTooSmall(ByteRange range, bool requirePorts, std::string_view message) {
    ParsedPacket packet;
    try {
        packet.Parse(range, requirePorts);
        ADD_FAILURE() << "Parse did not throw";
    } catch (const qor::CheckFailedException& e) {
        EXPECT_EQ(e.Message(), message);
        EXPECT_EQ(e.Where().file, kLocation);
        EXPECT_GT(e.Where().line, 0u);
    }
}

TEST(ParsedPacketSizeCheck, ThrowsWhenAHeaderDoesNotFit) {
    struct Case {
        const char* name;
        std::string hex;
        std::string_view message;
    };
    const Case cases[] = {
        {"empty payload", "", ": payload size is to small: expected 1, actual: 0"},
        {"19-byte IPv4", "45 00 00 13 00 01 00 00 40 06 00 00 c6 12 00 01 c6 12 00",
         ": payload size is to small: expected 20, actual: 19"},
        {"1-byte IPv4", "45", ": payload size is to small: expected 20, actual: 1"},
        {"39-byte IPv6", V6("06").substr(0, 39 * 3 - 1),
         ": payload size is to small: expected 40, actual: 39"},
        {"IPv4 header length covers the packet, TCP",
         "46 00 00 18 00 01 00 00 40 06 00 00 c6 12 00 01 c6 12 00 02 01 01 01 00",
         ": payload size is to small: expected 20, actual: 0"},
        {"IPv4 header length beyond the packet, UDP",
         "47 00 00 18 00 01 00 00 40 11 00 00 c6 12 00 01 c6 12 00 02 01 01 01 00",
         ": payload size is to small: expected 8, actual: 0"},
        {"IPv4 TCP of 19 bytes", V4("00 00", "06") + kTcp.substr(0, 19 * 3 - 1),
         ": payload size is to small: expected 20, actual: 19"},
        {"IPv4 UDP of 7 bytes", V4("00 00", "11") + "9c 41 9c 42 00 08 00",
         ": payload size is to small: expected 8, actual: 7"},
        {"IPv4 first fragment with a cut TCP header", V4("20 00", "06") + "9c 43 00 50",
         ": payload size is to small: expected 20, actual: 4"},
        {"IPv6 without transport, TCP", V6("06"),
         ": payload size is to small: expected 20, actual: 0"},
        {"IPv6 UDP of 7 bytes", V6("11") + "9c 41 9c 42 00 08 00",
         ": payload size is to small: expected 8, actual: 7"},
        {"IPv6 extension reaching the end, UDP", V6("00") + "11 01 00 00 00 00 00 00 00",
         ": payload size is to small: expected 8, actual: 0"},
        {"IPv6 fragment header reaching the end, TCP", V6("2c") + "06 00 00 00 00 00 00 2a",
         ": payload size is to small: expected 20, actual: 0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto bytes = Hex(c.hex);
        ExpectTooSmall(Range(bytes), false, c.message);
        ExpectTooSmall(Range(bytes), true, c.message);
    }
}

TEST(ParsedPacketSizeCheck, NullPayloadCountsAsEmpty) {
    ExpectTooSmall(ByteRange{}, false, ": payload size is to small: expected 1, actual: 0");
}

TEST(ParsedPacketSizeCheck, FailedParseKeepsWhatWasParsedBefore) {
    const auto bytes =
        Hex("46 00 00 18 00 01 00 00 40 06 00 00 c6 12 00 01 c6 12 00 02 01 01 01 00");
    ParsedPacket packet;
    EXPECT_THROW(packet.Parse(Range(bytes), false), qor::CheckFailedException);
    EXPECT_EQ(packet.Payload().begin, bytes.data());
    EXPECT_EQ(packet.Protocol(), 6);
    ASSERT_NE(packet.Ipv4(), nullptr);
    EXPECT_TRUE(packet.Transport().IsNull());
    EXPECT_EQ(packet.Tcp(), nullptr);
}

// ExpectViewSize checks that ViewHeader<Header> needs exactly `size` bytes.
template <class Header>
void ExpectViewSize(std::size_t size) {
    SCOPED_TRACE(size);
    const std::vector<std::uint8_t> bytes(size, 0x45);
    const ByteRange full = Range(bytes);
    EXPECT_EQ(ViewHeader<Header>(full).Data(), bytes.data());
    try {
        ViewHeader<Header>({full.begin, full.end - 1});
        ADD_FAILURE() << "ViewHeader did not throw";
    } catch (const qor::CheckFailedException& e) {
        EXPECT_EQ(e.Message(), ": payload size is to small: expected " + std::to_string(size) +
                                   ", actual: " + std::to_string(size - 1));
        EXPECT_EQ(e.Where().file, kLocation);
    }
}

TEST(ParsedPacketSizeCheck, EachViewChecksItsHeaderSize) {
    ExpectViewSize<Ipv4Header>(20);
    ExpectViewSize<Ipv6Header>(40);
    ExpectViewSize<TcpHeader>(20);
    ExpectViewSize<UdpHeader>(8);

    const auto one = Hex("6f");
    EXPECT_EQ(IpVersion(Range(one)), 6);
    try {
        IpVersion({one.data(), one.data()});
        ADD_FAILURE() << "IpVersion did not throw";
    } catch (const qor::CheckFailedException& e) {
        EXPECT_EQ(e.Message(), ": payload size is to small: expected 1, actual: 0");
    }
}

TEST(ParsedPacketVersion, OtherVersionsAreInvalidArgument) {
    for (const char* hex : {"00", "15", "35", "55", "75", "f5", "05 00 00 00"}) {
        SCOPED_TRACE(hex);
        // A 60-byte tail would satisfy either header, so only the version decides.
        const auto bytes = Hex(std::string(hex) + " " + Repeat("00 ", 60));
        for (bool requirePorts : {false, true}) {
            ParsedPacket packet;
            EXPECT_EQ(packet.Parse(Range(bytes), requirePorts), qor::errors::kInvalidArgument);
            EXPECT_EQ(packet.Payload().begin, bytes.data());
            EXPECT_EQ(packet.Payload().end, bytes.data() + bytes.size());
            EXPECT_EQ(packet.Ipv4(), nullptr);
            EXPECT_EQ(packet.Ipv6(), nullptr);
            EXPECT_TRUE(packet.Transport().IsNull());
            EXPECT_EQ(packet.Source(), PacketEndpoint{});
        }
    }
    // One byte is all an unknown version needs.
    const auto single = Hex("75");
    ParsedPacket packet;
    EXPECT_EQ(packet.Parse(Range(single), false), qor::errors::kInvalidArgument);
}

TEST(ParsedPacketIpv4, OnlyUnfragmentedPacketsAndFirstFragmentsAreParsed) {
    struct Case {
        const char* name;
        std::string_view fragment;  // flags and offset, bytes 6-7
        qor::result_t result;
    };
    const Case cases[] = {
        {"unfragmented", "00 00", qor::errors::kOk},
        {"don't fragment", "40 00", qor::errors::kOk},
        {"first fragment", "20 00", qor::errors::kOk},
        {"first fragment with DF set too", "60 00", qor::errors::kOk},
        {"middle fragment", "20 b9", qor::errors::kFalse},
        {"fragment at offset 8", "20 01", qor::errors::kFalse},
        {"last fragment", "00 b9", qor::errors::kFalse},
        {"largest offset", "1f ff", qor::errors::kFalse},
        {"offset with DF", "40 01", qor::errors::kFalse},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto bytes = Hex(V4(c.fragment, "11") + kUdp);
        for (bool requirePorts : {false, true}) {
            ParsedPacket packet;
            ASSERT_EQ(packet.Parse(Range(bytes), requirePorts), c.result);
            ASSERT_NE(packet.Ipv4(), nullptr);
            EXPECT_EQ(packet.Ipv4()->Data(), bytes.data());
            if (c.result == qor::errors::kOk) {
                EXPECT_EQ(packet.Protocol(), 17);
                ASSERT_NE(packet.Udp(), nullptr);
                EXPECT_EQ(packet.Source(), (PacketEndpoint{kV4Source, 40001, 4}));
                EXPECT_EQ(packet.Destination(), (PacketEndpoint{kV4Destination, 40002, 4}));
            } else {
                EXPECT_EQ(packet.Protocol(), 0);
                EXPECT_TRUE(packet.Transport().IsNull());
                EXPECT_TRUE(packet.ApplicationPayload().IsNull());
                EXPECT_EQ(packet.Udp(), nullptr);
                EXPECT_EQ(packet.Source(), PacketEndpoint{});
                EXPECT_EQ(packet.Destination(), PacketEndpoint{});
            }
        }
    }
}

TEST(ParsedPacketIpv4, HeaderLengthDecidesWhereTransportStarts) {
    struct Case {
        const char* name;
        std::string hex;
        std::optional<std::ptrdiff_t> transport;  // offset; nullopt for null
    };
    const Case cases[] = {
        {"no options", V4("00 00", "01") + kIcmpEcho, 20},
        {"4 bytes of options", "46" + V4("00 00", "01").substr(2) + "01 01 01 00 " + kIcmpEcho, 24},
        {"header fills the packet",
         "46 00 00 18 00 01 00 00 40 01 00 00 c6 12 00 01 c6 12 00 02 01 01 01 00", std::nullopt},
        {"header longer than the packet",
         "4f 00 00 18 00 01 00 00 40 01 00 00 c6 12 00 01 c6 12 00 02 01 01 01 00", std::nullopt},
        {"20-byte packet", V4("00 00", "01"), std::nullopt},
        // A length below the minimum is not corrected: the range starts inside
        // the IPv4 header.
        {"header length 8", "42" + V4("00 00", "01").substr(2), 8},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto bytes = Hex(c.hex);
        ParsedPacket packet;
        ASSERT_EQ(packet.Parse(Range(bytes), false), qor::errors::kOk);
        EXPECT_EQ(packet.Protocol(), 1);
        if (c.transport) {
            EXPECT_EQ(Offset(bytes, packet.Transport().begin), *c.transport);
            EXPECT_EQ(packet.Transport().end, bytes.data() + bytes.size());
        } else {
            EXPECT_TRUE(packet.Transport().IsNull());
        }
        EXPECT_TRUE(packet.ApplicationPayload().IsNull());
        EXPECT_EQ(packet.Source(), (PacketEndpoint{kV4Source, 0, 4}));
        EXPECT_EQ(packet.Destination(), (PacketEndpoint{kV4Destination, 0, 4}));
    }
}

TEST(ParsedPacketTcp, DataOffsetDecidesApplicationPayload) {
    struct Case {
        const char* name;
        std::string tcp;
        std::optional<std::ptrdiff_t> application;  // offset in the packet
    };
    const std::string options = "02 04 05 b4 01 03 03 07 01 01 04 02 ";
    const Case cases[] = {
        {"header ends the packet", std::string(kTcp), 40},
        {"options and data",
         "9c 43 00 50 00 00 00 01 00 00 00 00 80 18 ff ff 00 00 00 00 " + options +
             "68 65 6c 6c 6f",
         52},
        {"options end the packet",
         "9c 43 00 50 00 00 00 01 00 00 00 00 80 02 ff ff 00 00 00 00 " + options, 52},
        {"largest offset",
         "9c 43 00 50 00 00 00 01 00 00 00 00 f0 02 ff ff 00 00 00 00 " + Repeat("01 ", 40) +
             "61 62 63",
         80},
        {"offset past the end", "9c 43 00 50 00 00 00 01 00 00 00 00 80 02 ff ff 00 00 00 00 ",
         std::nullopt},
        // Not corrected either: the application payload overlaps the header.
        {"offset 0", "9c 43 00 50 00 00 00 01 00 00 00 00 00 10 ff ff 00 00 00 00 61", 20},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto bytes = Hex(V4("40 00", "06") + c.tcp);
        ParsedPacket packet;
        ASSERT_EQ(packet.Parse(Range(bytes), true), qor::errors::kOk);
        ASSERT_NE(packet.Tcp(), nullptr);
        EXPECT_EQ(packet.Tcp()->Data(), bytes.data() + 20);
        EXPECT_EQ(Offset(bytes, packet.Transport().begin), 20);
        EXPECT_EQ(packet.Udp(), nullptr);
        EXPECT_EQ(packet.Source(), (PacketEndpoint{kV4Source, 40003, 4}));
        EXPECT_EQ(packet.Destination(), (PacketEndpoint{kV4Destination, 80, 4}));
        if (c.application) {
            EXPECT_FALSE(packet.ApplicationPayload().IsNull());
            EXPECT_EQ(Offset(bytes, packet.ApplicationPayload().begin), *c.application);
            EXPECT_EQ(packet.ApplicationPayload().end, bytes.data() + bytes.size());
        } else {
            EXPECT_TRUE(packet.ApplicationPayload().IsNull());
        }
    }
}

TEST(ParsedPacketUdp, ApplicationPayloadFollowsTheEightByteHeader) {
    struct Case {
        const char* name;
        std::string packet;
        std::ptrdiff_t application;
    };
    const Case cases[] = {
        {"IPv4 with data", V4("00 00", "11") + kUdp, 28},
        {"IPv4 header only", V4("00 00", "11") + "9c 41 9c 42 00 08 00 00", 28},
        {"IPv6 with data", V6("11") + kUdp, 48},
        {"IPv6 header only", V6("11") + "9c 41 9c 42 00 08 00 00", 48},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto bytes = Hex(c.packet);
        ParsedPacket packet;
        ASSERT_EQ(packet.Parse(Range(bytes), true), qor::errors::kOk);
        EXPECT_EQ(packet.Protocol(), 17);
        ASSERT_NE(packet.Udp(), nullptr);
        EXPECT_EQ(packet.Udp()->Data(), packet.Transport().begin);
        EXPECT_EQ(packet.Tcp(), nullptr);
        EXPECT_FALSE(packet.ApplicationPayload().IsNull());
        EXPECT_EQ(Offset(bytes, packet.ApplicationPayload().begin), c.application);
        EXPECT_EQ(packet.ApplicationPayload().end, bytes.data() + bytes.size());
        EXPECT_EQ(packet.Source().port, 40001);
        EXPECT_EQ(packet.Destination().port, 40002);
    }
}

TEST(ParsedPacketPorts, ProtocolsWithoutPortsNeedRequirePortsUnset) {
    struct Case {
        const char* name;
        std::string hex;
        std::uint8_t protocol;
        PacketEndpoint source;
        PacketEndpoint destination;
    };
    const Case cases[] = {
        {"ICMP", V4("00 00", "01") + kIcmpEcho, 1, {kV4Source, 0, 4}, {kV4Destination, 0, 4}},
        {"GRE", V4("00 00", "2f") + "00 00 08 00", 47, {kV4Source, 0, 4}, {kV4Destination, 0, 4}},
        {"ICMPv6",
         V6("3a") + "80 00 7f ff 00 00 00 00",
         58,
         {kV6Source, 0, 6},
         {kV6Destination, 0, 6}},
        {"IPv6 no next header", V6("3b"), 59, {kV6Source, 0, 6}, {kV6Destination, 0, 6}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto bytes = Hex(c.hex);
        ParsedPacket packet;
        ASSERT_EQ(packet.Parse(Range(bytes), false), qor::errors::kOk);
        EXPECT_EQ(packet.Protocol(), c.protocol);
        EXPECT_EQ(packet.Source(), c.source);
        EXPECT_EQ(packet.Destination(), c.destination);
        EXPECT_EQ(packet.Tcp(), nullptr);
        EXPECT_EQ(packet.Udp(), nullptr);
        EXPECT_TRUE(packet.ApplicationPayload().IsNull());

        ASSERT_EQ(packet.Parse(Range(bytes), true), qor::errors::kInvalidArgument);
        EXPECT_EQ(packet.Protocol(), c.protocol);
        EXPECT_EQ(packet.Source(), PacketEndpoint{});
        EXPECT_EQ(packet.Destination(), PacketEndpoint{});
    }
}

TEST(ParsedPacketIpv6, ExtensionHeadersAdvanceByTheKeptLengthRule) {
    struct Case {
        const char* name;
        std::string_view kind;     // next header of the fixed header
        std::string extension;     // from byte 40 up to the UDP header
        std::ptrdiff_t transport;  // where the UDP header is then read
    };
    // Each extension names UDP (0x11) as its next header. The rule advances by
    // length * 8 + 1, or 8 for a fragment header, not by the wire length.
    const Case cases[] = {
        {"hop-by-hop, length 0", "00", "11", 41},
        {"hop-by-hop, length 1", "00", "11 01 00 00 00 00 00 00 00", 49},
        {"routing, length 2", "2b", "11 02 " + Repeat("00 ", 15), 57},
        {"destination options, length 1", "3c", "11 01 01 05 00 00 00 00 00", 49},
        {"mobility, length 3", "87", "11 03 " + Repeat("00 ", 23), 65},
        {"fragment, length byte ignored", "2c", "11 05 00 01 00 00 00 2a", 48},
        {"fragment", "2c", "11 00 00 01 00 00 00 2a", 48},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // The first case's one-byte extension is immediately followed by the
        // UDP header, whose first byte doubles as the extension's length 0.
        const auto bytes = Hex(V6(c.kind) + c.extension + " 00 41 9c 42 00 08 00 00");
        ParsedPacket packet;
        ASSERT_EQ(packet.Parse(Range(bytes), true), qor::errors::kOk);
        EXPECT_EQ(packet.Protocol(), 17);
        ASSERT_NE(packet.Ipv6(), nullptr);
        EXPECT_EQ(packet.Ipv6()->NextHeader(), Hex(c.kind)[0]);
        EXPECT_EQ(Offset(bytes, packet.Transport().begin), c.transport);
        ASSERT_NE(packet.Udp(), nullptr);
        EXPECT_EQ(packet.Udp()->Data(), bytes.data() + c.transport);
        EXPECT_EQ(packet.Source(), (PacketEndpoint{kV6Source, 0x0041, 6}));
        EXPECT_EQ(packet.Destination(), (PacketEndpoint{kV6Destination, 0x9c42, 6}));
        EXPECT_EQ(packet.ApplicationPayload().begin, bytes.data() + bytes.size());
    }
}

TEST(ParsedPacketIpv6, ChainOfExtensionsBeforeTcp) {
    // hop-by-hop (9 bytes by the rule) -> routing (9 bytes) -> TCP at 58.
    const auto bytes = Hex(V6("00") + "2b 01 00 00 00 00 00 00 00 " +
                           "06 01 00 00 00 00 00 00 00 " + std::string(kTcp) + "68 69");
    ParsedPacket packet;
    ASSERT_EQ(packet.Parse(Range(bytes), true), qor::errors::kOk);
    EXPECT_EQ(packet.Protocol(), 6);
    EXPECT_EQ(Offset(bytes, packet.Transport().begin), 58);
    ASSERT_NE(packet.Tcp(), nullptr);
    EXPECT_EQ(Offset(bytes, packet.ApplicationPayload().begin), 78);
    EXPECT_EQ(packet.ApplicationPayload().Size(), 2u);
    EXPECT_EQ(packet.Source(), (PacketEndpoint{kV6Source, 40003, 6}));
    EXPECT_EQ(packet.Destination(), (PacketEndpoint{kV6Destination, 80, 6}));
}

TEST(ParsedPacketIpv6, ExtensionsStopWhenFewerThanTwoBytesRemainAndNullAtTheEnd) {
    struct Case {
        const char* name;
        std::string_view kind;
        std::string_view tail;  // bytes after the fixed header
        std::uint8_t protocol;
        std::optional<std::ptrdiff_t> transport;
    };
    const Case cases[] = {
        {"no bytes after the fixed header", "00", "", 0, std::nullopt},
        {"one byte: not skipped", "00", "3a", 0, 40},
        {"two bytes, length 0 skips one", "00", "3a 00", 58, 41},
        {"exactly the rule's length", "00", "3a 01 00 00 00 00 00 00 00", 58, std::nullopt},
        {"one byte more than the rule's length", "00", "3a 01 00 00 00 00 00 00 00 ff", 58, 49},
        {"fragment of exactly 8 bytes", "2c", "3a 00 00 00 00 00 00 2a", 58, std::nullopt},
        {"fragment and one byte", "2c", "3a 00 00 00 00 00 00 2a ff", 58, 48},
        {"fragment of 7 bytes", "2c", "3a 00 00 00 00 00 00", 58, std::nullopt},
        // The transport range is gone, so the named extension is not entered.
        {"extension naming an extension at the end", "00", "3c 01 00 00 00 00 00 00 00", 60,
         std::nullopt},
        {"extension naming an extension, one byte left", "00", "3c 01 00 00 00 00 00 00 00 ff", 60,
         49},
        {"routing with length 255 runs past the end", "2b", "06 ff 00 00", 6, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto bytes = Hex(V6(c.kind) + std::string(c.tail));
        ParsedPacket packet;
        if (c.protocol == 6) {
            EXPECT_THROW(packet.Parse(Range(bytes), false), qor::CheckFailedException);
        } else {
            ASSERT_EQ(packet.Parse(Range(bytes), false), qor::errors::kOk);
            EXPECT_EQ(packet.Source(), (PacketEndpoint{kV6Source, 0, 6}));
        }
        EXPECT_EQ(packet.Protocol(), c.protocol);
        if (c.transport) {
            EXPECT_EQ(Offset(bytes, packet.Transport().begin), *c.transport);
            EXPECT_EQ(packet.Transport().end, bytes.data() + bytes.size());
        } else {
            EXPECT_TRUE(packet.Transport().IsNull());
        }
    }
}

TEST(ParsedPacketIpv6, ExtensionSetIsExactlyTheFiveSkippedKinds) {
    for (int value = 0; value < 256; ++value) {
        const bool expected =
            value == 0 || value == 43 || value == 44 || value == 60 || value == 135;
        EXPECT_EQ(IsIpv6ExtensionHeader(static_cast<std::uint8_t>(value)), expected) << value;
    }
}

TEST(ParsedPacket, EveryParseStartsFromAnEmptyState) {
    const auto tcp = Hex(V4("00 00", "06") + kTcp);
    const auto fragment = Hex(V4("00 b9", "06") + kTcp);
    const auto icmp6 = Hex(V6("3a") + "80 00 7f ff 00 00 00 00");

    ParsedPacket packet;
    EXPECT_TRUE(packet.Payload().IsNull());
    EXPECT_EQ(packet.Ipv4(), nullptr);

    ASSERT_EQ(packet.Parse(Range(tcp), true), qor::errors::kOk);
    ASSERT_NE(packet.Tcp(), nullptr);

    ASSERT_EQ(packet.Parse(Range(fragment), true), qor::errors::kFalse);
    EXPECT_EQ(packet.Tcp(), nullptr);
    EXPECT_EQ(packet.Protocol(), 0);
    EXPECT_TRUE(packet.ApplicationPayload().IsNull());
    EXPECT_EQ(packet.Source(), PacketEndpoint{});

    ASSERT_EQ(packet.Parse(Range(icmp6), false), qor::errors::kOk);
    EXPECT_EQ(packet.Ipv4(), nullptr);
    ASSERT_NE(packet.Ipv6(), nullptr);
    EXPECT_EQ(packet.Source(), (PacketEndpoint{kV6Source, 0, 6}));

    // Copies answer with their own views.
    const ParsedPacket copy = packet;
    EXPECT_EQ(copy.Ipv6()->Data(), icmp6.data());
    EXPECT_NE(copy.Ipv6(), packet.Ipv6());
}

}  // namespace
}  // namespace dwi::network_interceptor
