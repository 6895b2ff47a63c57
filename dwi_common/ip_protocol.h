// Names of IP protocols: one table for options, firewall rules and output.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace dwi::network {

// ProtocolName: "icmp", "tcp", "udp" or "ipv6-icmp" (the names of
// /etc/protocols, which iptables-save prints too), else the decimal number.
std::string ProtocolName(std::uint8_t protocol);

// ParseProtocol: a name ProtocolName gives, "icmpv6" (the common spelling
// of ipv6-icmp) or a number 1-255.
std::optional<std::uint8_t> ParseProtocol(std::string_view text);

// HasPorts: TCP, UDP, DCCP, SCTP and UDP-Lite, whose headers start with
// the two ports.
bool HasPorts(std::uint8_t protocol);

}  // namespace dwi::network
