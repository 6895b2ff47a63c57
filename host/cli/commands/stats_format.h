// Command-line values and output of `nti stats`.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dwi/firewall/rules.h"
#include "network_traffic_interceptor/connection_counters.h"
#include "network_traffic_interceptor/statistics.h"

namespace nti::host {

// ParseAlignment: "epoch" or "registration".
std::optional<system_interceptors::net::statistics::PeriodAlignment> ParseAlignment(
    std::string_view text);

// InterfaceIdentity is what tells an interface's connections apart: its
// addresses and its MAC address.
struct InterfaceIdentity {
    std::vector<system_interceptors::net::statistics::ip_t> addresses;
    std::optional<qor::mac48_address_t> mac;
};
// LookupInterface reads the interface's current addresses; nullopt when no
// interface has that name.
std::optional<InterfaceIdentity> LookupInterface(const std::string& name);

// StatsFilter selects the connections `nti stats` prints; empty parts match
// everything.
struct StatsFilter {
    std::optional<std::uint8_t> protocol;
    std::optional<dwi::firewall::IpNetwork> address;  // either end
    std::optional<InterfaceIdentity> interface;       // the local end
};

// Filtered keeps the counters the filter selects, in their order.
std::vector<system_interceptors::net::statistics::ConnectionCounter> Filtered(
    const std::vector<system_interceptors::net::statistics::ConnectionCounter>& counters,
    const StatsFilter& filter);

// MergedByConnection adds up the counters of one connection (addresses,
// ports and protocol): the module counts received and sent packets under
// keys that differ in what only one direction knows, such as the MACs.
std::vector<system_interceptors::net::statistics::ConnectionCounter> MergedByConnection(
    const std::vector<system_interceptors::net::statistics::ConnectionCounter>& counters);

// SortedByBytes orders the counters by bytes sent plus received, largest
// first; ties by local then remote endpoint text, so output is stable.
std::vector<system_interceptors::net::statistics::ConnectionCounter> SortedByBytes(
    const std::vector<system_interceptors::net::statistics::ConnectionCounter>& counters);

// IntervalHeader describes where an interval came from.
struct IntervalHeader {
    std::uint32_t collector = 0;
    bool restored = false;  // saved by an earlier run
};

// FormatTable renders one interval: a title line, a column header and one
// row per connection (merged, largest first), each line ending in '\n';
// `wide` adds the MAC addresses.
std::string FormatTable(const IntervalHeader& header,
                        const system_interceptors::net::statistics::IntervalCounters& interval,
                        bool wide = false);

}  // namespace nti::host
