#include "host/cli/commands/stats_format.h"

#include <gtest/gtest.h>

#include <fstream>

#include "host/cli/commands/intercept_options.h"
#include "host/services/duration.h"
#include "host/services/json_records.h"

// Records are written with designated initializers: the fields left out keep
// their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace nti::host {
namespace {

using system_interceptors::net::statistics::ConnectionCounter;
using system_interceptors::net::statistics::IntervalCounters;
using system_interceptors::net::statistics::ip_t;
using system_interceptors::net::statistics::PeriodAlignment;

constexpr std::uint64_t kUnixEpochTicks = 116'444'736'000'000'000;

TEST(StatsOptionsTest, DurationsWithUnits) {
    using std::chrono::milliseconds;
    const std::pair<const char*, std::optional<milliseconds>> cases[] = {
        {"5", milliseconds(5000)},   {"250ms", milliseconds(250)},
        {"1m", milliseconds(60000)}, {"1.5", milliseconds(1500)},
        {"0", milliseconds(0)},      {"8760h", milliseconds(31536000000)},
        {"8761h", std::nullopt},     {"", std::nullopt},
        {"-5", std::nullopt},        {"5 s", std::nullopt},
        {"1e3", std::nullopt},       {"5d", std::nullopt}};
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(ParseDuration(text), expected) << '"' << text << '"';
    }
    EXPECT_EQ(ParseAlignment("epoch"), PeriodAlignment::EpochStartDate);
    EXPECT_EQ(ParseAlignment("registration"), PeriodAlignment::CollectorRegistration);
}

ip_t V4(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
    ip_t ip;
    ip.family = 4;
    ip.v4.bytes = {a, b, c, d};
    return ip;
}

// DocumentedExamples reads the ```json blocks of docs/json.md in order.
std::vector<JsonRecord> DocumentedExamples() {
    std::ifstream in(NTI_SOURCE_DIR "/docs/json.md");
    std::vector<JsonRecord> blocks;
    std::string line;
    std::string block;
    bool inside = false;
    while (std::getline(in, line)) {
        if (line == "```json") {
            inside = true;
            block.clear();
        } else if (inside && line == "```") {
            inside = false;
            blocks.push_back(JsonRecord::parse(block));
        } else if (inside) {
            block += line + '\n';
        }
    }
    return blocks;
}

qor::mac48_address_t Mac(std::uint8_t last) {
    return qor::mac48_address_t{{0x02, 0, 0, 0, 0, last}};
}

ip_t Fd00(std::uint8_t last) {
    return ip_t{6, {}, {{0xfd, 0, 0x01, 0x98, 0, 0x18, 0, 0, 0, 0, 0, 0, 0, 0, 0, last}}};
}

// Udp4Packet is 198.18.0.2:40000 -> 198.18.0.1:5000 with a 2-byte payload.
std::vector<std::uint8_t> Udp4Packet() {
    return {0x45, 0,   0,  30, 0, 1,    0,    0,    64,   17, 0,  0, 198, 18,  0,
            2,    198, 18, 0,  1, 0x9c, 0x40, 0x13, 0x88, 0,  10, 0, 0,   'h', 'i'};
}

// The module counts a connection's received packets under a key with the
// MACs and its sent ones under a key without: the table shows one row.
IntervalCounters OneUdpExchangeAndAPing() {
    const ConnectionCounter received{.localMac = Mac(1),
                                     .localIp = V4(198, 18, 0, 1),
                                     .localPort = 7001,
                                     .remoteMac = Mac(2),
                                     .remoteIp = V4(198, 18, 0, 2),
                                     .remotePort = 38984,
                                     .bytesReceived = 920,
                                     .packetsReceived = 10,
                                     .etherType = 0x0800,
                                     .ipProtocol = 17};
    const ConnectionCounter sent{.localIp = V4(198, 18, 0, 1),
                                 .localPort = 7001,
                                 .remoteIp = V4(198, 18, 0, 2),
                                 .remotePort = 38984,
                                 .bytesSent = 920,
                                 .packetsSent = 10,
                                 .etherType = 0x0800,
                                 .ipProtocol = 17};
    const ConnectionCounter ping{.localIp = Fd00(1),
                                 .localPort = 0,  // ICMP has no ports: a zero must not show
                                 .remoteIp = Fd00(2),
                                 .remotePort = 0,
                                 .gatewayIp = V4(198, 18, 0, 254),
                                 .bytesSent = 312,
                                 .packetsSent = 3,
                                 .etherType = 0x86DD,
                                 .ipProtocol = 58};
    return {kUnixEpochTicks, kUnixEpochTicks + 10'000'000, {ping, received, sent}};
}

// The documented examples are what the writer makes of the same records,
// members in the same order; JsonLine keeps each on one line.
TEST(JsonRecordsTest, DocumentedExamplesAreWhatTheWriterWrites) {
    const std::uint64_t begin = kUnixEpochTicks + 17953009660520000ull;  // 2026-11-21T22:42:46.052Z
    auto counters = OneUdpExchangeAndAPing().counters;                   // ping, received, sent
    counters[0].gatewayIp = {};
    counters[0].localPort = counters[0].remotePort = std::nullopt;
    const IntervalCounters interval{begin, begin + 10'000'000, {counters[1], counters[0]}};

    std::vector<std::uint8_t> bytes = Udp4Packet();
    dwi::network_interceptor::Packet packet;
    packet.id = 1;
    packet.queue = 1;
    packet.payloadBegin = bytes.data();
    packet.payloadEnd = bytes.data() + bytes.size();
    const PacketContext context{
        std::chrono::system_clock::time_point(std::chrono::microseconds(1795300862113456)), 1000,
        "veth-dut", ""};

    const std::vector<JsonRecord> written{
        IntervalJson(1, interval),
        PacketJson(packet, dwi::network_interceptor::Verdict::ALLOW, context)};
    const std::vector<JsonRecord> documented = DocumentedExamples();
    ASSERT_EQ(documented.size(), written.size());
    for (std::size_t i = 0; i < written.size(); ++i) {
        EXPECT_EQ(JsonLine(documented[i]), JsonLine(written[i]));
        EXPECT_EQ(JsonLine(written[i]).find('\n'), JsonLine(written[i]).size() - 1);
    }
}

// Interface names and domains are bytes from the system: whatever they hold,
// the line parses back to them (bytes that are not UTF-8 as U+FFFD).
TEST(JsonRecordsTest, EveryStringIsEscaped) {
    const std::pair<std::string, std::string> cases[] = {
        {"eq\"\\", "eq\"\\"},
        {"tab\tnl\n\x01", "tab\tnl\n\x01"},
        {"b\xc3\xbc", "b\xc3\xbc"},
        {"bad\xff", "bad\xef\xbf\xbd"},
    };
    std::vector<std::uint8_t> bytes = Udp4Packet();
    dwi::network_interceptor::Packet packet;
    packet.payloadBegin = bytes.data();
    packet.payloadEnd = bytes.data() + bytes.size();
    for (const auto& [name, read] : cases) {
        const std::string packetLine = JsonLine(
            PacketJson(packet, dwi::network_interceptor::Verdict::DROP, {{}, -1, name, name}));
        EXPECT_EQ(JsonRecord::parse(packetLine)["indev"], read) << packetLine;
        ConnectionCounter c;
        c.domain = name;
        const std::string intervalLine = JsonLine(IntervalJson(1, {0, 0, {c}}));
        EXPECT_EQ(JsonRecord::parse(intervalLine)["connections"][0]["domain"], read)
            << intervalLine;
    }
}

TEST(StatsFormatTest, OneRowPerConnectionLargestFirst) {
    const std::string head =
        "collector 1 interval 1970-01-01T00:00:00.000000Z .. 1970-01-01T00:00:01.000000Z: 2 "
        "connections\n";
    const struct {
        const char* name;
        IntervalHeader header;
        IntervalCounters interval;
        bool wide;
        std::string table;
    } cases[] = {
        {"plain",
         {1, false},
         OneUdpExchangeAndAPing(),
         false,
         head + "PROTO      LOCAL             REMOTE            PKTS_OUT  BYTES_OUT  PKTS_IN  "
                "BYTES_IN  "
                "GATEWAY\n"
                "udp        198.18.0.1:7001   198.18.0.2:38984        10        920       10       "
                "920  "
                "-\n"
                "ipv6-icmp  [fd00:198:18::1]  [fd00:198:18::2]         3        312        0       "
                "  0  "
                "198.18.0.254\n"},
        {"restored, empty",
         {2, true},
         {},
         false,
         "collector 2 interval 1970-01-01T00:00:00.000000Z .. 1970-01-01T00:00:00.000000Z (saved "
         "earlier): 0 connections\n"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(FormatTable(c.header, c.interval, c.wide), c.table) << c.name;
    }
}

TEST(StatsFormatTest, FiltersSelectByProtocolAddressAndInterface) {
    const std::vector<ConnectionCounter> counters = OneUdpExchangeAndAPing().counters;
    const InterfaceIdentity byMac{{}, Mac(1)};
    const InterfaceIdentity byAddress{{V4(198, 18, 0, 1)}, Mac(9)};
    const struct {
        const char* name;
        std::optional<std::uint8_t> protocol;
        const char* address;
        const InterfaceIdentity* interface;
        std::vector<std::uint64_t> bytesSent;  // of the counters kept, in order
    } cases[] = {
        {"none", std::nullopt, nullptr, nullptr, {312, 0, 920}},
        {"udp", 17, nullptr, nullptr, {0, 920}},
        {"remote v6 host", std::nullopt, "fd00:198:18::2", nullptr, {312}},
        {"v4 network", std::nullopt, "198.18.0.0/15", nullptr, {0, 920}},
        {"udp in other network", 17, "fd00:198:18::/64", nullptr, {}},
        {"interface by MAC", std::nullopt, nullptr, &byMac, {0}},
        {"interface by address", std::nullopt, nullptr, &byAddress, {0, 920}},
    };
    for (const auto& c : cases) {
        StatsFilter filter;
        filter.protocol = c.protocol;
        if (c.address != nullptr) {
            filter.address = ParseNetwork(c.address);
        }
        if (c.interface != nullptr) {
            filter.interface = *c.interface;
        }
        std::vector<std::uint64_t> kept;
        for (const auto& counter : Filtered(counters, filter)) {
            kept.push_back(counter.bytesSent);
        }
        EXPECT_EQ(kept, c.bytesSent) << c.name;
    }
}

}  // namespace
}  // namespace nti::host
