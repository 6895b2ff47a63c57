#include "host/commands/stats_format.h"

#include <gtest/gtest.h>

#include <fstream>

#include "host/json_records.h"

namespace nti::host {
namespace {

using system_interceptors::net::statistics::ConnectionCounter;
using system_interceptors::net::statistics::IntervalCounters;
using system_interceptors::net::statistics::ip_t;
using system_interceptors::net::statistics::PeriodAlignment;

constexpr std::uint64_t kUnixEpochTicks = 116'444'736'000'000'000;

TEST(StatsOptionsTest, PeriodsInSecondsOrMilliseconds) {
    const std::pair<const char*, std::optional<std::uint32_t>> cases[] = {
        {"5", 5000},           {"5s", 5000},
        {"250ms", 250},        {"1ms", 1},
        {"86400", 86400000},   {"86401", std::nullopt},
        {"0", std::nullopt},   {"0ms", std::nullopt},
        {"", std::nullopt},    {"ms", std::nullopt},
        {"5m", std::nullopt},  {"-5", std::nullopt},
        {"5 s", std::nullopt}, {"1.5", std::nullopt}};
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(ParsePeriod(text), expected) << '"' << text << '"';
    }
    EXPECT_EQ(ParseAlignment("epoch"), PeriodAlignment::EpochStartDate);
    EXPECT_EQ(ParseAlignment("registration"), PeriodAlignment::CollectorRegistration);
    EXPECT_FALSE(ParseAlignment("Epoch"));
    EXPECT_FALSE(ParseAlignment(""));
}

TEST(JsonRecordsTest, TimesAreUtcWithDateAndMicroseconds) {
    EXPECT_EQ(TicksToIso8601(kUnixEpochTicks), "1970-01-01T00:00:00.000000Z");
    // 2026-11-21T21:03:21.123456Z is 1795295001.123456 s after 1970.
    EXPECT_EQ(TicksToIso8601(kUnixEpochTicks + 17952950011234567ull),
              "2026-11-21T21:03:21.123456Z");
    EXPECT_EQ(TicksToIso8601(0), "1970-01-01T00:00:00.000000Z");  // before 1970: clamped
    EXPECT_EQ(TimeToIso8601(std::chrono::system_clock::time_point(
                  std::chrono::microseconds(1795295001123456))),
              "2026-11-21T21:03:21.123456Z");
}

ip_t V4(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
    ip_t ip;
    ip.family = 4;
    ip.v4.bytes = {a, b, c, d};
    return ip;
}

ConnectionCounter Udp(std::uint16_t localPort, std::uint64_t sent, std::uint64_t received) {
    ConnectionCounter c;
    c.localIp = V4(198, 18, 0, 1);
    c.localPort = localPort;
    c.remoteIp = V4(198, 18, 0, 2);
    c.remotePort = 53;
    c.ipProtocol = 17;
    c.etherType = 0x0800;
    c.packetsSent = 1;
    c.bytesSent = sent;
    c.packetsReceived = 1;
    c.bytesReceived = received;
    return c;
}

TEST(StatsFormatTest, SortedByTotalBytesThenEndpoints) {
    const std::vector<ConnectionCounter> counters{Udp(3, 10, 10), Udp(2, 5, 100), Udp(1, 20, 0),
                                                  Udp(4, 0, 105)};
    std::vector<std::uint16_t> ports;
    for (const auto& c : SortedByBytes(counters)) {
        ports.push_back(*c.localPort);
    }
    EXPECT_EQ(ports, (std::vector<std::uint16_t>{2, 4, 1, 3}));
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
    return {0x45, 0,    0,    30,   0,    1,    0,    0,    64, 17, 0, 0, 198, 18, 0,
            2,    198,  18,   0,    1,    0x9c, 0x40, 0x13, 0x88, 0, 10, 0, 0, 'h', 'i'};
}

// The documented examples are what the writer makes of the same records,
// members in the same order; JsonLine keeps each on one line.
TEST(JsonRecordsTest, DocumentedExamplesAreWhatTheWriterWrites) {
    const std::uint64_t begin = kUnixEpochTicks + 17953009660520000ull;  // 2026-11-21T22:42:46.052Z
    IntervalCounters interval{begin, begin + 10'000'000, {}};
    ConnectionCounter udp;
    udp.etherType = 0x0800;
    udp.ipProtocol = 17;
    udp.localIp = V4(198, 18, 0, 1);
    udp.localPort = 7001;
    udp.localMac = Mac(1);
    udp.remoteIp = V4(198, 18, 0, 2);
    udp.remotePort = 38984;
    udp.remoteMac = Mac(2);
    udp.packetsReceived = 10;
    udp.bytesReceived = 920;
    ConnectionCounter ping;
    ping.etherType = 0x86DD;
    ping.ipProtocol = 58;
    ping.localIp = Fd00(1);
    ping.remoteIp = Fd00(2);
    ping.packetsSent = 3;
    ping.bytesSent = 312;
    interval.counters = {udp, ping};

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

TEST(StatsFormatTest, TableRowsFollowTheHeaderLargestFirst) {
    IntervalCounters interval;
    interval.begin = kUnixEpochTicks;
    interval.end = kUnixEpochTicks + 10'000'000;
    ConnectionCounter v6;
    v6.localIp = ip_t{6, {}, {{0xfd, 0, 0x01, 0x98, 0, 0x18, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}};
    v6.localPort = 443;
    v6.ipProtocol = 6;
    v6.bytesReceived = 5000;
    interval.counters = {Udp(1, 10, 10), v6};
    const std::string table = FormatTable({1, false}, interval);
    EXPECT_EQ(table.rfind("collector 1 interval 1970-01-01T00:00:00.000000Z .. "
                          "1970-01-01T00:00:01.000000Z: 2 connections\nLOCAL",
                          0),
              0u)
        << table;
    const auto v6Row = table.find("[fd00:198:18::1]:443");
    const auto udpRow = table.find("198.18.0.1:1 ");
    ASSERT_NE(v6Row, std::string::npos);
    ASSERT_NE(udpRow, std::string::npos);
    EXPECT_LT(v6Row, udpRow);
    EXPECT_NE(table.find("tcp"), std::string::npos);
    EXPECT_TRUE(
        FormatTable({1, true}, IntervalCounters{}).ends_with(" (saved earlier): 0 connections\n"));
}

}  // namespace
}  // namespace nti::host
