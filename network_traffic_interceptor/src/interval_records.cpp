#include "network_traffic_interceptor/src/interval_records.h"

#include <cstring>

namespace dwi::network_interceptor {

using namespace system_interceptors::net::statistics;

namespace {

ip_t ToIp(const IpAddress& address) noexcept {
    ip_t ip;
    ip.family = address.version;
    if (address.version == 4) {
        std::memcpy(ip.v4.bytes.data(), address.bytes.data(), ip.v4.bytes.size());
    } else {
        std::memcpy(ip.v6.bytes.data(), address.bytes.data(), ip.v6.bytes.size());
    }
    return ip;
}

ip_t ToIp(const dwi::network::Gateway& gateway) noexcept {
    ip_t ip;
    ip.family = gateway.family;
    if (gateway.family == 4) {
        std::memcpy(ip.v4.bytes.data(), gateway.address.data(), ip.v4.bytes.size());
    } else {
        std::memcpy(ip.v6.bytes.data(), gateway.address.data(), ip.v6.bytes.size());
    }
    return ip;
}

std::optional<qor::mac48_address_t> ToMac(const std::optional<Mac48>& mac) noexcept {
    if (!mac) {
        return std::nullopt;
    }
    return qor::mac48_address_t{*mac};
}

std::optional<ip_t> ToOptionalIp(const std::optional<IpAddress>& address) noexcept {
    if (!address) {
        return std::nullopt;
    }
    return ToIp(*address);
}

std::uint8_t KeyFamily(const ConnectionKey& key) noexcept {
    if (key.localIp) {
        return key.localIp->version;
    }
    return key.remoteIp ? key.remoteIp->version : 0;
}

}  // namespace

GatewayMap GatewaysOf(const std::vector<dwi::network::NetworkInterface>& interfaces) {
    GatewayMap gateways;
    gateways.max_load_factor(1.0f);
    for (const auto& networkInterface : interfaces) {
        if (!networkInterface.ipv4Gateway && !networkInterface.ipv6Gateway) {
            continue;
        }
        InterfaceGateways& entry = gateways[networkInterface.index];
        if (const auto& gateway = networkInterface.ipv4Gateway) {
            entry.ipv4 = GatewayAddress{ToIp(*gateway), ToMac(gateway->mac)};
        }
        if (const auto& gateway = networkInterface.ipv6Gateway) {
            entry.ipv6 = GatewayAddress{ToIp(*gateway), ToMac(gateway->mac)};
        }
    }
    return gateways;
}

IntervalCounters BuildInterval(std::uint64_t begin, std::uint64_t end,
                               const ConnectionMap& connections, const GatewayMap& gatewayMap) {
    IntervalCounters interval;
    interval.begin = begin;
    interval.end = end;
    interval.counters.reserve(connections.size());
    for (const auto& [key, traffic] : connections) {
        ConnectionCounter& counter = interval.counters.emplace_back();
        counter.localMac = ToMac(key.localMac);
        counter.localIp = ToOptionalIp(key.localIp);
        counter.localPort = key.localPort;
        counter.remoteMac = ToMac(key.remoteMac);
        counter.remoteIp = ToOptionalIp(key.remoteIp);
        counter.remotePort = key.remotePort;
        counter.bytesSent = traffic.bytesOut;
        counter.packetsSent = traffic.packetsOut;
        counter.bytesReceived = traffic.bytesIn;
        counter.packetsReceived = traffic.packetsIn;
        counter.etherType = key.etherType.value_or(0);
        counter.ipProtocol = key.ipProto;
        if (const auto gateways = gatewayMap.find(key.ifindex); gateways != gatewayMap.end()) {
            const std::optional<GatewayAddress>& gateway =
                KeyFamily(key) == 4 ? gateways->second.ipv4 : gateways->second.ipv6;
            if (gateway) {
                counter.gatewayIp = gateway->address;
                counter.gatewayMac = gateway->mac;
            }
        }
    }
    return interval;
}

}  // namespace dwi::network_interceptor
