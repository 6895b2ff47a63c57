// The local network inventory: interfaces and their default gateways.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qor/result.h"

namespace dwi::network {

using Mac48 = std::array<std::uint8_t, 6>;

struct Gateway {
    std::uint8_t family = 4;                 // 4 or 6
    std::array<std::uint8_t, 16> address{};  // network order; IPv4 in the first 4 bytes
    std::optional<Mac48> mac;                // from the neighbour table, when known
};

struct NetworkInterface {
    std::uint32_t index = 0;
    std::string name;
    bool enabled = false;                // IFF_UP
    std::string dnsSuffix;               // empty when unknown
    std::uint32_t type = 0;              // ARPHRD_* from /sys/class/net/<name>/type
    std::optional<Mac48> mac;            // MAC-48 from /sys/class/net/<name>/address
    bool tunnel = false;                 // tun/tap, ip tunnels, WireGuard and the like
    std::optional<Gateway> ipv4Gateway;  // default route of the main table
    std::optional<Gateway> ipv6Gateway;
};

// GetNetworkInterfaces lists the interfaces of the calling thread's network
// namespace with their default gateways (a NETLINK_ROUTE dump restricted to
// the main table). Returns 0, or a failure code and leaves `out` untouched.
[[nodiscard]] qor::result_t GetNetworkInterfaces(std::vector<NetworkInterface>& out);

}  // namespace dwi::network
