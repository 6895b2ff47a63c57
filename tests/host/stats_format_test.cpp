#include "host/commands/stats_format.h"

#include <gtest/gtest.h>

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

TEST(StatsFormatTest, TicksAreUtcWithMilliseconds) {
    EXPECT_EQ(TicksToIso8601(kUnixEpochTicks), "1970-01-01T00:00:00.000Z");
    // 2026-11-21T21:03:21.123Z is 1795295001.123 s after 1970.
    EXPECT_EQ(TicksToIso8601(kUnixEpochTicks + 17952950011234567ull), "2026-11-21T21:03:21.123Z");
    EXPECT_EQ(TicksToIso8601(0), "1970-01-01T00:00:00.000Z");  // before 1970: clamped
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

TEST(StatsFormatTest, JsonLineHasEveryFieldAndNullsForAbsentOnes) {
    IntervalCounters interval;
    interval.begin = kUnixEpochTicks;
    interval.end = kUnixEpochTicks + 50'000'000;
    ConnectionCounter c = Udp(40000, 128, 1028);
    c.gatewayIp = V4(198, 18, 0, 254);
    c.gatewayMac = qor::mac48_address_t{{0x02, 0, 0, 0, 0, 0xfe}};
    c.remoteMac = qor::mac48_address_t{{0x02, 0, 0, 0, 0, 0x02}};
    ConnectionCounter icmp;
    icmp.localIp = V4(198, 18, 0, 1);
    icmp.ipProtocol = 1;
    icmp.packetsSent = 1;
    icmp.bytesSent = 84;
    interval.counters = {icmp, c};
    EXPECT_EQ(FormatJsonLine({7, true}, interval),
              "{\"collector\":7,\"restored\":true,\"begin\":116444736000000000,"
              "\"end\":116444736050000000,\"beginTime\":\"1970-01-01T00:00:00.000Z\","
              "\"endTime\":\"1970-01-01T00:00:05.000Z\",\"connections\":["
              "{\"localMac\":null,\"localIp\":\"198.18.0.1\",\"localPort\":40000,"
              "\"remoteMac\":\"02:00:00:00:00:02\",\"remoteIp\":\"198.18.0.2\",\"remotePort\":53,"
              "\"protocol\":17,\"etherType\":2048,\"packetsSent\":1,\"bytesSent\":128,"
              "\"packetsReceived\":1,\"bytesReceived\":1028,\"gatewayIp\":\"198.18.0.254\","
              "\"gatewayMac\":\"02:00:00:00:00:fe\"},"
              "{\"localMac\":null,\"localIp\":\"198.18.0.1\",\"localPort\":null,"
              "\"remoteMac\":null,\"remoteIp\":null,\"remotePort\":null,\"protocol\":1,"
              "\"etherType\":0,\"packetsSent\":1,\"bytesSent\":84,\"packetsReceived\":0,"
              "\"bytesReceived\":0,\"gatewayIp\":null,\"gatewayMac\":null}]}\n");
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
    EXPECT_EQ(table.rfind("collector 1 interval 1970-01-01T00:00:00.000Z .. "
                          "1970-01-01T00:00:01.000Z: 2 connections\nLOCAL",
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
