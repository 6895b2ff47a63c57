#include "examples/block_list/block_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <sstream>

namespace {

using block_list::Endpoint;
using block_list::FindBlocked;
using block_list::Flow;
using block_list::ParseEndpoint;
using block_list::ParseFlow;
using block_list::ReadList;
using block_list::ToString;

std::vector<std::uint8_t> Bytes(std::initializer_list<int> values) {
    return std::vector<std::uint8_t>(values.begin(), values.end());
}

void Append(std::vector<std::uint8_t>& to, const std::vector<std::uint8_t>& more) {
    to.insert(to.end(), more.begin(), more.end());
}

// IPv4 198.18.0.1 -> 198.18.0.2 with `protocol`; `fragment` is the 16-bit
// flags and offset field.
std::vector<std::uint8_t> Ipv4(int protocol, int fragment = 0, int ihl = 5) {
    auto p = Bytes(
        {0x40 | ihl, 0, 0,   0,  0, 0, fragment >> 8, fragment & 0xFF, 64, protocol, 0, 0, 198, 18,
         0,          1, 198, 18, 0, 2});
    // Options as zero bytes; appended rather than resized, which GCC 12 at -O3
    // misreads as an out-of-bounds copy.
    if (ihl > 5) {
        p.insert(p.end(), static_cast<std::size_t>(ihl - 5) * 4, 0);
    }
    return p;
}

// IPv6 fd00:198:18::1 -> fd00:198:18::2 with next header `next`.
std::vector<std::uint8_t> Ipv6(int next) {
    auto p = Bytes({0x60, 0, 0, 0, 0, 0, next, 64});
    for (int end : {1, 2}) {
        Append(p, Bytes({0xfd, 0x00, 0x01, 0x98, 0x00, 0x18, 0, 0, 0, 0, 0, 0, 0, 0, 0, end}));
    }
    return p;
}

const auto kPorts = Bytes({0x9c, 0x40, 0x01, 0xbb});  // 40000 -> 443

std::optional<Flow> Parse(const std::vector<std::uint8_t>& p) {
    return ParseFlow(p.data(), p.data() + p.size());
}

TEST(BlockListEntryTest, AcceptedAndRejectedForms) {
    for (const char* good : {"198.18.0.7", "198.18.0.7:443", "fd00:198:18::7", "[fd00:198:18::7]",
                             "[fd00:198:18::7]:53", "::1"}) {
        const auto e = ParseEndpoint(good);
        ASSERT_TRUE(e) << good;
        EXPECT_EQ(ToString(*e), std::string(good).starts_with("[") && !e->port
                                    ? std::string(good).substr(1, std::string(good).size() - 2)
                                    : std::string(good));
    }
    for (const char* bad :
         {"198.18.0.7:", "198.18.0.7:0", "198.18.0.7:65536", "198.18.0.7:http", "198.18.0",
          "[fd00::7", "[fd00::7]53", "[198.18.0.7]:53", "fd00::7:53x", "host.example"}) {
        EXPECT_FALSE(ParseEndpoint(bad)) << bad;
    }
}

TEST(BlockListEntryTest, ListSkipsCommentsAndNamesTheBadLine) {
    std::istringstream good("# blocked\n\n  198.18.0.7  \n[fd00:198:18::7]:53 # dns\r\n");
    const auto list = ReadList(good, "l.txt");
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(ToString(list[1]), "[fd00:198:18::7]:53");

    std::istringstream bad("198.18.0.7\n198.18.0.8:99999\n");
    EXPECT_THAT([&] { ReadList(bad, "l.txt"); },
                testing::ThrowsMessage<std::runtime_error>("l.txt:2: not an address[:port]"));
}

// Ports only from first fragments, past IPv4 options and IPv6 extension
// headers; "" where no flow is read.
TEST(BlockListFlowTest, PortsOnlyWhereTheTransportHeaderIs) {
    const auto cat = [](std::vector<std::uint8_t> p, std::initializer_list<int> more) {
        Append(p, Bytes(more));
        Append(p, kPorts);
        return p;
    };
    const struct {
        const char* name;
        std::vector<std::uint8_t> packet;
        int protocol;
        const char* flow;
    } cases[] = {
        {"tcp", cat(Ipv4(IPPROTO_TCP), {}), IPPROTO_TCP, "198.18.0.1:40000 198.18.0.2:443"},
        {"options", cat(Ipv4(IPPROTO_UDP, 0, 6), {}), IPPROTO_UDP,
         "198.18.0.1:40000 198.18.0.2:443"},
        // Offset 16*8: no transport header here.
        {"later fragment", cat(Ipv4(IPPROTO_UDP, 0x0010), {}), IPPROTO_UDP,
         "198.18.0.1 198.18.0.2"},
        {"icmp", cat(Ipv4(IPPROTO_ICMP), {}), IPPROTO_ICMP, "198.18.0.1 198.18.0.2"},
        {"short", Bytes({0x45, 0, 0}), 0, ""},
        {"header length below 20", Ipv4(IPPROTO_TCP, 0, 4), 0, ""},
        // Hop-by-hop (8 bytes) -> destination options (16 bytes) -> TCP.
        {"extension headers", cat(Ipv6(0), {60, 0, 0, 0, 0, 0, 0, 0, IPPROTO_TCP, 1, 0, 0,
                                            0,  0, 0, 0, 0, 0, 0, 0, 0,           0, 0, 0}),
         IPPROTO_TCP, "[fd00:198:18::1]:40000 [fd00:198:18::2]:443"},
        // Offset 0, more fragments.
        {"first fragment", cat(Ipv6(44), {IPPROTO_UDP, 0, 0x00, 0x01, 0, 0, 0, 1}), IPPROTO_UDP,
         "[fd00:198:18::1]:40000 [fd00:198:18::2]:443"},
        // Offset 23*8.
        {"later v6 fragment", cat(Ipv6(44), {IPPROTO_UDP, 0, 0x00, 0xb8, 0, 0, 0, 1}), IPPROTO_UDP,
         "fd00:198:18::1 fd00:198:18::2"},
        {"extension header past the end", cat(Ipv6(0), {IPPROTO_TCP, 4, 0, 0, 0, 0, 0, 0}), 0,
         "fd00:198:18::1 fd00:198:18::2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto flow = Parse(c.packet);
        EXPECT_EQ(flow ? ToString(flow->source) + " " + ToString(flow->destination) : "", c.flow);
        if (flow && c.protocol != 0) {
            EXPECT_EQ(flow->protocol, c.protocol);
        }
    }
    EXPECT_FALSE(ParseFlow(nullptr, nullptr));
}

TEST(BlockListMatchTest, RemoteEndDependsOnDirectionAndPortIsOptional) {
    auto tcp = Ipv4(IPPROTO_TCP);
    Append(tcp, kPorts);
    const Flow flow = *Parse(tcp);
    const std::vector<Endpoint> remoteHttps = {*ParseEndpoint("198.18.0.2:443")};
    const std::vector<Endpoint> remoteAnyPort = {*ParseEndpoint("198.18.0.1")};
    const std::vector<Endpoint> otherPort = {*ParseEndpoint("198.18.0.2:80")};
    const std::vector<Endpoint> v6Twin = {*ParseEndpoint("[::ffff:198.18.0.2]:443")};

    EXPECT_NE(FindBlocked(remoteHttps, flow, /*outbound=*/true), nullptr);
    EXPECT_EQ(FindBlocked(remoteHttps, flow, /*outbound=*/false), nullptr);
    EXPECT_NE(FindBlocked(remoteAnyPort, flow, /*outbound=*/false), nullptr);
    EXPECT_EQ(FindBlocked(otherPort, flow, /*outbound=*/true), nullptr);
    EXPECT_EQ(FindBlocked(v6Twin, flow, /*outbound=*/true), nullptr);

    // An entry with a port never matches a packet without ports.
    auto icmp = Ipv4(IPPROTO_ICMP);
    EXPECT_EQ(FindBlocked(remoteHttps, *Parse(icmp), true), nullptr);
}

}  // namespace
