// Command-line values of `nti intercept` and the filter they make.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dwi/firewall/rules.h"
#include "dwi_common/ip_protocol.h"
#include "network_traffic_interceptor/verdict.h"

namespace nti::host {

using dwi::network::ParseProtocol;
using dwi::network::ProtocolName;

// Each Parse* returns nullopt for text it does not accept.

// ParseDirection: "in", "out", "fwd-in", "fwd-out" as direction bits.
std::optional<std::uint32_t> ParseDirection(std::string_view text);
// ParsePortRange: "N" or "N-M" with 1 <= N <= M <= 65535.
std::optional<dwi::firewall::PortRange> ParsePortRange(std::string_view text);
// ParseNetwork: an IPv4 or IPv6 address with an optional "/prefix" (a host
// address without one).
std::optional<dwi::firewall::IpNetwork> ParseNetwork(std::string_view text);
// ParseFamily: "4", "6" or "any" (0).
std::optional<std::uint8_t> ParseFamily(std::string_view text);
// ParseQueueRange: "A-B" with A <= B.
std::optional<std::pair<std::uint16_t, std::uint16_t>> ParseQueueRange(std::string_view text);

// VerdictChoice is what the consumer answers every packet.
struct VerdictChoice {
    dwi::network_interceptor::Verdict verdict = dwi::network_interceptor::Verdict::ALLOW;
    std::uint32_t laterMs = 0;  // LATER: allowed this long after arrival
    bool mixed = false;         // each packet gets MixedVerdict's answer
};
// ParseVerdict: "allow", "drop", "repeat", "later:<ms>" or "mix:<ms>".
std::optional<VerdictChoice> ParseVerdict(std::string_view text);

// MixedVerdict answers ALLOW, DROP or LATER, about a third each, by the
// 32-bit FNV-1a hash of the transport payload (of the whole packet when it
// has no UDP or TCP header), modulo 3 in that order: the same datagram always
// gets the same answer, so a test can tell which ones must arrive.
dwi::network_interceptor::Verdict MixedVerdict(const std::uint8_t* packet, std::size_t size);

// FilterOptions are the already validated match options.
struct FilterOptions {
    std::vector<std::uint32_t> directions;  // none: inbound only
    std::uint8_t family = 0;
    std::uint8_t protocol = 0;
    dwi::firewall::PortRange localPorts;
    dwi::firewall::PortRange remotePorts;
    dwi::firewall::IpNetwork localAddress;
    dwi::firewall::IpNetwork remoteAddress;
    std::string interfaceName;
};

// BuildFilter makes one queue rule per direction, or an error text when
// the options contradict each other (ports without TCP/UDP, an address of
// the other family, ...).
std::optional<dwi::firewall::Filter> BuildFilter(const FilterOptions& options, std::string& error);

}  // namespace nti::host
