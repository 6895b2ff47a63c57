#include "host/cli/commands/intercept_options.h"

#include <gtest/gtest.h>

#include "host/services/packet_summary.h"

namespace nti::host {
namespace {

using dwi::network_interceptor::Verdict;

TEST(InterceptOptionsTest, ParsesAcceptedTextsAndRejectsTheRest) {
    for (std::uint32_t bits = 0; const char* text : {"in", "out", "fwd-in", "fwd-out"}) {
        EXPECT_EQ(ParseDirection(text), bits++) << text;
    }
    EXPECT_FALSE(ParseDirection("fwd"));

    EXPECT_EQ(ParseProtocol("icmpv6"), 58);  // the name users know besides ipv6-icmp
    EXPECT_EQ(ParseProtocol("132"), 132);
    // Every name printed (iptables rules, tables, JSON) reads back as its number.
    for (unsigned n = 1; n <= 255; ++n) {
        EXPECT_EQ(ParseProtocol(ProtocolName(static_cast<std::uint8_t>(n))), n) << n;
    }
    for (const char* bad : {"0", "256", "", "udp6", "-1"}) {
        EXPECT_FALSE(ParseProtocol(bad)) << bad;
    }

    EXPECT_EQ(ParsePortRange("53"), (dwi::firewall::PortRange{53, 53}));
    EXPECT_EQ(ParsePortRange("1-65535"), (dwi::firewall::PortRange{1, 65535}));
    for (const char* bad : {"0", "65536", "9-8", "5-", "-5", "a", ""}) {
        EXPECT_FALSE(ParsePortRange(bad)) << bad;
    }

    // Other forms are read back through the rule and stats filter texts.
    EXPECT_EQ(ParseNetwork("198.18.0.1"), (dwi::firewall::IpNetwork{4, {198, 18, 0, 1}, 32}));
    for (const char* bad : {"198.18.0.1/33", "fd00::/129", "198.18.0/8", "host", "1.2.3.4/"}) {
        EXPECT_FALSE(ParseNetwork(bad)) << bad;
    }

    EXPECT_EQ(ParseQueueRange("0-65535"), (std::pair<std::uint16_t, std::uint16_t>{0, 65535}));
    for (const char* bad : {"5", "9-8", "1-65536", "a-b"}) {
        EXPECT_FALSE(ParseQueueRange(bad)) << bad;
    }

    for (const auto& [text, verdict, laterMs] :
         {std::tuple{"later:200", Verdict::LATER, 200u}, std::tuple{"drop", Verdict::DROP, 0u},
          std::tuple{"repeat", Verdict::REPEAT, 0u}, std::tuple{"allow", Verdict::ALLOW, 0u}}) {
        const auto parsed = ParseVerdict(text);
        ASSERT_TRUE(parsed) << text;
        EXPECT_EQ(std::pair(parsed->verdict, parsed->laterMs), std::pair(verdict, laterMs)) << text;
    }
    for (const char* bad : {"later:", "later:-1", "later", "accept"}) {
        EXPECT_FALSE(ParseVerdict(bad)) << bad;
    }
}

TEST(InterceptOptionsTest, BuildsOneRulePerDirectionOrExplains) {
    FilterOptions f;
    std::string error;
    f.directions = {0, 1, 3};
    f.protocol = 17;
    f.localPorts = {5000, 5000};
    auto filter = BuildFilter(f, error);
    ASSERT_TRUE(filter);
    ASSERT_EQ(filter->size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ((*filter)[i].direction, f.directions[i]);
        EXPECT_EQ((*filter)[i].localPorts, f.localPorts);
    }

    f.protocol = 1;
    EXPECT_FALSE(BuildFilter(f, error));
    EXPECT_NE(error.find("ports need"), std::string::npos);
}

// IPv4 UDP with its ports is in the documented JSON example (stats_format_test).
TEST(PacketSummaryTest, ReadsAddressesAndPorts) {
    // A later fragment of IPv4 UDP 198.18.0.1:40000 -> 198.18.0.2:5000 has no ports.
    std::vector<std::uint8_t> v4 = {0x45, 0, 0,   28, 0, 0, 0x00, 0x10, 64,   17,   0, 0, 198, 18,
                                    0,    1, 198, 18, 0, 2, 0x9c, 0x40, 0x13, 0x88, 0, 8, 0,   0};
    PacketSummary s = Summarize(v4.data(), v4.size());
    EXPECT_EQ(s.protocol, 17);
    EXPECT_FALSE(s.sourcePort);

    // IPv6 TCP behind a hop-by-hop header.
    // fd00::1 -> fd00::2, hop-by-hop (8 bytes), then TCP 80 -> 1024.
    const std::vector<std::uint8_t> v6 = {
        0x60, 0, 0, 0, 0, 0, 0, 0, 0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1,  0xfd, 0,
        0,    0, 0, 0, 0, 0, 0, 0, 0,    0, 0, 0, 0, 2, 6, 0, 0, 0, 0, 0, 0, 0, 0, 80, 4,    0};
    s = Summarize(v6.data(), v6.size());
    EXPECT_EQ(s.version, 6);
    EXPECT_EQ(s.source, "fd00::1");
    EXPECT_EQ(s.destination, "fd00::2");
    EXPECT_EQ(s.protocol, 6);
    EXPECT_EQ(s.sourcePort, 80);
    EXPECT_EQ(s.destinationPort, 1024);

    // Truncated or unknown data names nothing it cannot read.
    s = Summarize(v6.data(), 45);
    EXPECT_EQ(s.version, 6);
    EXPECT_FALSE(s.protocol);
    EXPECT_EQ(Summarize(v4.data(), 19).version, 0);
    const std::uint8_t badIhl[20] = {0x44};
    EXPECT_EQ(Summarize(badIhl, sizeof(badIhl)).version, 0);
}

// OnesComplementSum of `data`, folded; a packet with a right checksum sums
// to 0xFFFF over the checked span.
std::uint16_t OnesSum(const std::vector<std::uint8_t>& data, std::size_t from, std::size_t to,
                      std::uint32_t acc = 0) {
    for (std::size_t i = from; i + 1 < to; i += 2) {
        acc += static_cast<std::uint32_t>(data[i] << 8 | data[i + 1]);
    }
    if ((to - from) % 2 == 1) {
        acc += static_cast<std::uint32_t>(data[to - 1] << 8);
    }
    while (acc >> 16) {
        acc = (acc & 0xFFFF) + (acc >> 16);
    }
    return static_cast<std::uint16_t>(acc);
}

TEST(FillChecksumsTest, WritesIpv4HeaderAndUdpChecksums) {
    // The IPv4 header of a well-known example (checksum 0xb861 at total
    // length 0x73; 0xb8b5 at 0x1f), carrying UDP 40000 -> 5000 and "abc".
    std::vector<std::uint8_t> p = {0x45, 0x00, 0x00, 0x1f, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11, 0xde,
                                   0xad, 0xc0, 0xa8, 0x00, 0x01, 0xc0, 0xa8, 0x00, 0xc7, 0x9c, 0x40,
                                   0x13, 0x88, 0x00, 0x0b, 0xbe, 0xef, 'a',  'b',  'c'};
    ASSERT_TRUE(FillChecksums(p.data(), p.size()));
    EXPECT_EQ(p[10], 0xb8);
    EXPECT_EQ(p[11], 0xb5);
    // Pseudo header: addresses, protocol, UDP length.
    const std::uint32_t pseudo = OnesSum(p, 12, 20) + 17 + 11;
    EXPECT_EQ(OnesSum(p, 20, p.size(), pseudo), 0xFFFF);
}

TEST(FillChecksumsTest, LeavesWhatItCannotCheckAlone) {
    std::vector<std::uint8_t> icmp = {0x45, 0, 0,   28, 0, 0, 0x40, 0, 64, 1, 0, 0, 198, 18,
                                      0,    1, 198, 18, 0, 2, 8,    0, 0,  0, 0, 0, 0,   0};
    const auto before = icmp;
    EXPECT_FALSE(FillChecksums(icmp.data(), icmp.size()));
    EXPECT_EQ(icmp, before);
    std::vector<std::uint8_t> fragment = {0x45, 0,    0,    28,   0, 0, 0x20, 0,  64, 17,
                                          0,    0,    198,  18,   0, 1, 198,  18, 0,  2,
                                          0x9c, 0x40, 0x13, 0x88, 0, 8, 0,    0};
    EXPECT_FALSE(FillChecksums(fragment.data(), fragment.size()));
}

}  // namespace
}  // namespace nti::host
