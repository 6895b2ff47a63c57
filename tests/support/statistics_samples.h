// Statistics records that exercise every field shape: both address
// families, MACs, absent optionals, empty vectors and maximum values.
#pragma once

#include <cstdint>
#include <limits>

#include "network_traffic_interceptor/src/connection_counters_data.h"
#include "network_traffic_interceptor/statistics.h"

namespace nti::test {

namespace stats = system_interceptors::net::statistics;
namespace data = dwi::network_interceptor::connection_counters_data;

inline stats::ip_t Ipv4(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
    stats::ip_t ip;
    ip.family = 4;
    ip.v4.bytes = {a, b, c, d};
    return ip;
}

inline stats::ip_t Ipv6Sample() {
    stats::ip_t ip;
    ip.family = 6;
    ip.v6.bytes = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff};
    return ip;
}

// FullCounter fills every optional, with maximum values in the counters.
inline stats::ConnectionCounter FullCounter() {
    constexpr auto kMax = std::numeric_limits<std::uint64_t>::max();
    stats::ConnectionCounter c;
    c.localMac = qor::mac48_address_t{{0x02, 0x00, 0x00, 0x00, 0x00, 0x01}};
    c.localIp = Ipv4(192, 168, 1, 10);
    c.localPort = 65535;
    c.remoteMac = qor::mac48_address_t{{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}};
    c.remoteIp = Ipv4(255, 255, 255, 255);
    c.remotePort = 0;
    c.proxyDetected = true;
    c.domain = "example.org";
    c.gatewayMac = qor::mac48_address_t{{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}};
    c.gatewayIp = Ipv4(192, 168, 1, 1);
    c.bytesSent = kMax;
    c.packetsSent = kMax - 1;
    c.bytesReceived = 1;
    c.packetsReceived = 0;
    c.etherType = 0xFFFF;
    c.ipProtocol = 255;
    c.payloadPrefix = {0x00, 0x01, 0xfe, 0xff};
    return c;
}

// SparseCounter is an IPv6 connection as the module makes it: no MACs, no
// gateway, no domain, an empty payload prefix.
inline stats::ConnectionCounter SparseCounter() {
    stats::ConnectionCounter c;
    c.localIp = Ipv6Sample();
    c.remoteIp = Ipv6Sample();
    c.remoteIp->v6.bytes[15] = 0x01;
    c.localPort = 443;
    c.bytesSent = 1500;
    c.packetsSent = 1;
    c.etherType = 0x86DD;
    c.ipProtocol = 6;
    return c;
}

inline data::Collectors SampleCollectors() {
    data::Collectors collectors;
    data::CollectorData first;
    first.collector = std::numeric_limits<std::uint32_t>::max();
    first.period = 60;
    first.periodAlignment = 1;
    stats::IntervalCounters interval;
    interval.begin = 133000000000000000ull;
    interval.end = std::numeric_limits<std::uint64_t>::max();
    interval.counters = {FullCounter(), SparseCounter(), stats::ConnectionCounter{}};
    first.readyCounters = {interval, stats::IntervalCounters{}};
    data::CollectorData empty;  // a registered collector with nothing ready
    empty.collector = 7;
    empty.period = 3600;
    collectors.collectors = {first, empty};
    return collectors;
}

}  // namespace nti::test
