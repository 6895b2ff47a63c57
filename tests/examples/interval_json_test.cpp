#include "examples/stats_to_json/interval_json.h"

#include <gtest/gtest.h>

namespace {

namespace stats = system_interceptors::net::statistics;
using stats_json::ConnectionJson;
using stats_json::IntervalJson;
using stats_json::JsonString;
using stats_json::TicksToUtc;

constexpr std::uint64_t kUnixEpochTicks = 116444736000000000ULL;

TEST(IntervalJsonTest, RecordTimesInUtc) {
    EXPECT_EQ(TicksToUtc(kUnixEpochTicks), "1970-01-01T00:00:00.0000000Z");
    // 2026-11-21T20:44:09 UTC is 1795293849 s after the Unix epoch.
    EXPECT_EQ(TicksToUtc(kUnixEpochTicks + 1795293849ULL * 10000000 + 1234567),
              "2026-11-21T20:44:09.1234567Z");
    EXPECT_EQ(TicksToUtc(0), "1970-01-01T00:00:00.0000000Z");
}

TEST(IntervalJsonTest, StringsAreEscaped) {
    EXPECT_EQ(JsonString("plain"), "\"plain\"");
    EXPECT_EQ(JsonString("a\"b\\c"), "\"a\\\"b\\\\c\"");
    // Control characters, an embedded NUL among them, become \u escapes.
    EXPECT_EQ(JsonString(std::string("l1\nl2\t\x01", 8)), "\"l1\\u000al2\\u0009\\u0001\\u0000\"");
    EXPECT_EQ(JsonString("b\xc3\xbc"), "\"b\xc3\xbc\"");  // UTF-8 passes through
}

stats::ip_t V4(std::uint8_t last) {
    stats::ip_t ip;
    ip.family = 4;
    ip.v4.bytes = {198, 18, 0, last};
    return ip;
}

TEST(IntervalJsonTest, ConnectionsCarryPresentFieldsOnly) {
    stats::ConnectionCounter full;
    full.etherType = 0x0800;
    full.ipProtocol = 6;
    full.localIp = V4(1);
    full.localPort = 40000;
    full.remoteIp = V4(2);
    full.remotePort = 443;
    full.gatewayIp = V4(254);
    full.gatewayMac = qor::mac48_address_t{{0x02, 0x00, 0x5e, 0x10, 0xab, 0xff}};
    full.domain = "example.test";
    full.packetsSent = 3;
    full.bytesSent = 180;
    full.packetsReceived = 2;
    full.bytesReceived = 1500;
    EXPECT_EQ(ConnectionJson(full),
              "{\"etherType\":2048,\"ipProtocol\":6,\"localIp\":\"198.18.0.1\",\"localPort\":40000,"
              "\"remoteIp\":\"198.18.0.2\",\"remotePort\":443,\"gatewayIp\":\"198.18.0.254\","
              "\"gatewayMac\":\"02:00:5e:10:ab:ff\",\"domain\":\"example.test\","
              "\"proxyDetected\":false,\"packetsSent\":3,\"bytesSent\":180,"
              "\"packetsReceived\":2,\"bytesReceived\":1500}");

    stats::ConnectionCounter v6;
    v6.etherType = 0x86DD;
    stats::ip_t remote;
    remote.family = 6;
    remote.v6.bytes = {0xfd, 0x00, 0x01, 0x98, 0x00, 0x18, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7};
    v6.remoteIp = remote;
    EXPECT_EQ(ConnectionJson(v6),
              "{\"etherType\":34525,\"remoteIp\":\"fd00:198:18::7\",\"proxyDetected\":false,"
              "\"packetsSent\":0,\"bytesSent\":0,\"packetsReceived\":0,\"bytesReceived\":0}");
}

TEST(IntervalJsonTest, OneLinePerInterval) {
    stats::IntervalCounters interval;
    interval.begin = kUnixEpochTicks;
    interval.end = kUnixEpochTicks + 50000000;
    EXPECT_EQ(IntervalJson(7, interval),
              "{\"collector\":7,\"begin\":\"1970-01-01T00:00:00.0000000Z\","
              "\"end\":\"1970-01-01T00:00:05.0000000Z\",\"connections\":[]}");

    interval.counters.resize(2);
    const std::string line = IntervalJson(7, interval);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    EXPECT_NE(line.find("\"connections\":[{\"etherType\":0,"), std::string::npos);
    EXPECT_NE(line.find("},{\"etherType\":0,"), std::string::npos);
    EXPECT_EQ(line.substr(line.size() - 3), "}]}");
}

}  // namespace
