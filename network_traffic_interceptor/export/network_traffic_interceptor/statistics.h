// Statistics records handed to statistics clients and stored across restarts.
// Field order is serialisation order.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qor {
// mac48_address_t: a MAC-48 address in transmission order.
struct mac48_address_t {
    std::array<std::uint8_t, 6> bytes{};
    friend bool operator==(const mac48_address_t&, const mac48_address_t&) = default;
};
}  // namespace qor

namespace system_interceptors::net::statistics {

// ipv4_t: an IPv4 address, network byte order.
struct ipv4_t {
    std::array<std::uint8_t, 4> bytes{};
    friend bool operator==(const ipv4_t&, const ipv4_t&) = default;
};
// ipv6_t: an IPv6 address, network byte order.
struct ipv6_t {
    std::array<std::uint8_t, 16> bytes{};
    friend bool operator==(const ipv6_t&, const ipv6_t&) = default;
};
// ip_t: either family; `family` is 4 or 6 and selects the valid member.
struct ip_t {
    std::uint8_t family = 4;
    ipv4_t v4;
    ipv6_t v6;
    friend bool operator==(const ip_t&, const ip_t&) = default;
};

// Type identifiers of the records.
inline constexpr std::uint32_t kIntervalCountersTypeId = 0x792d16ae;
inline constexpr std::uint32_t kConnectionCounterTypeId = 0x93bc078b;
inline constexpr std::uint32_t kIpTypeId = 0xb1550054;
inline constexpr std::uint32_t kIpv4TypeId = 0x58e5a230;
inline constexpr std::uint32_t kIpv6TypeId = 0x5b61765e;

// ConnectionCounter: one connection's traffic in one interval.
struct ConnectionCounter {
    std::optional<qor::mac48_address_t> localMac;
    std::optional<ip_t> localIp;
    std::optional<std::uint16_t> localPort;
    std::optional<qor::mac48_address_t> remoteMac;
    std::optional<ip_t> remoteIp;
    std::optional<std::uint16_t> remotePort;
    bool proxyDetected = false;
    std::optional<std::string> domain;
    std::optional<qor::mac48_address_t> gatewayMac;
    std::optional<ip_t> gatewayIp;
    std::uint64_t bytesSent = 0;
    std::uint64_t packetsSent = 0;
    std::uint64_t bytesReceived = 0;
    std::uint64_t packetsReceived = 0;
    std::uint16_t etherType = 0;
    std::optional<std::uint8_t> ipProtocol;
    std::vector<std::uint8_t> payloadPrefix;
    friend bool operator==(const ConnectionCounter&, const ConnectionCounter&) = default;
};

// IntervalCounters: the connections of one closed interval.
struct IntervalCounters {
    std::uint64_t begin = 0;  // 100-ns ticks since 1601-01-01 UTC
    std::uint64_t end = 0;
    std::vector<ConnectionCounter> counters;
    friend bool operator==(const IntervalCounters&, const IntervalCounters&) = default;
};

}  // namespace system_interceptors::net::statistics
