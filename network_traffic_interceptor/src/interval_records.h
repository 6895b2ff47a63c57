// Interval records: what a harvest closes, built from the NFLOG collector's
// per-connection counters and the default gateways of the interfaces.
#pragma once

#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "dwi_common/network_interfaces.h"
#include "network_traffic_interceptor/src/nflog_connection_collector.h"
#include "network_traffic_interceptor/statistics.h"

namespace dwi::network_interceptor {

struct GatewayAddress {
    system_interceptors::net::statistics::ip_t address;
    std::optional<qor::mac48_address_t> mac;
};
struct InterfaceGateways {
    std::optional<GatewayAddress> ipv4;
    std::optional<GatewayAddress> ipv6;
};
// GatewayMap: the gateways of each interface with one, by interface index.
using GatewayMap = std::unordered_map<std::uint32_t, InterfaceGateways>;

// GatewaysOf collects the default gateways of `interfaces`.
GatewayMap GatewaysOf(const std::vector<dwi::network::NetworkInterface>& interfaces);

// BuildInterval makes the record of the interval [begin, end] with one
// counter per connection of `connections`, each with the gateway of its
// interface and address family when there is one.
system_interceptors::net::statistics::IntervalCounters BuildInterval(
    std::uint64_t begin, std::uint64_t end, const ConnectionMap& connections,
    const GatewayMap& gatewayMap);

}  // namespace dwi::network_interceptor
