// Firewall rule records: what the module asks the host firewall to install.
// The host turns each record into iptables/ip6tables rules tagged with the
// caller's tag and removes exactly the records it is given back.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace dwi::firewall {

// Direction selector bits of a queue rule.
//   bit 0 (kOutbound): traffic the machine sends (OUTPUT chain); without it,
//                      traffic the machine receives (INPUT chain);
//   bit 1 (kForwarded): traffic the machine forwards (FORWARD chain); with
//                      bit 0 the rule matches by output interface, else by
//                      input interface.
// The interceptor queues selectors 0 and 2 to its input queue and every
// other value to its output queue.
enum DirectionBits : std::uint32_t {
    kInbound = 0,
    kOutbound = 1u << 0,
    kForwarded = 1u << 1,
};

// IpNetwork is an address with a prefix length; family 0 means "any".
struct IpNetwork {
    std::uint8_t family = 0;                 // 0 any, 4 IPv4, 6 IPv6
    std::array<std::uint8_t, 16> address{};  // network byte order; IPv4 in the first 4 bytes
    std::uint8_t prefixLength = 0;           // 0..32 or 0..128
    friend bool operator==(const IpNetwork&, const IpNetwork&) = default;
};

// PortRange matches [first, last]; first == 0 and last == 0 mean "any".
struct PortRange {
    std::uint16_t first = 0;
    std::uint16_t last = 0;
    friend bool operator==(const PortRange&, const PortRange&) = default;
};

// QueueRule sends matching packets to an NFQUEUE queue. Consumers pass these
// as their interception filter; the interceptor fills in `queueNumber`.
struct QueueRule {
    std::uint32_t direction = kInbound;  // DirectionBits; the first field by contract
    std::uint16_t queueNumber = 0;
    std::uint8_t family = 0;    // 0 both IPv4 and IPv6, 4, 6
    std::uint8_t protocol = 0;  // IP protocol number; 0 any
    IpNetwork localAddress;     // destination when inbound, source when outbound
    IpNetwork remoteAddress;    // the other side
    PortRange localPorts;       // TCP/UDP only
    PortRange remotePorts;      // TCP/UDP only
    // Input interface without kOutbound, output interface with it; empty: any.
    std::string interfaceName;
    friend bool operator==(const QueueRule&, const QueueRule&) = default;
};

// Chain codes of NFLOG rules.
enum ChainCode : std::uint8_t {
    kChainInput = 2,
    kChainOutput = 3,
    kChainForward = 4,
};

// NflogRule copies matching packets to an NFLOG group.
struct NflogRule {
    std::string name;        // e.g. "zolt_stats_in"; also the rule's comment
    std::uint8_t chain = 0;  // ChainCode
    std::uint16_t nflogGroup = 0;
    std::uint32_t bypassMark = 0;           // packets carrying this mark are not logged ...
    bool bypassMarkSet = false;             // ... when this flag is set
    bool excludeLoopback = false;           // skip traffic on loopback interfaces
    bool excludeMulticast = false;          // skip multicast and broadcast destinations
    std::optional<std::uint8_t> ipVersion;  // 4: IPv4 only (iptables without ip6tables)
    friend bool operator==(const NflogRule&, const NflogRule&) = default;
};

// Rule is one record of the firewall's rule variant. Queue rules are the
// alternative at index 2. Records compare equal field by field; RemoveRules
// finds what to remove that way.
using Rule = std::variant<std::monostate, NflogRule, QueueRule>;
inline constexpr std::size_t kQueueRuleIndex = 2;
static_assert(std::is_same_v<std::variant_alternative_t<kQueueRuleIndex, Rule>, QueueRule>);

using Rules = std::vector<Rule>;
// Filter is what an interception consumer passes: the traffic to queue.
using Filter = std::vector<QueueRule>;

}  // namespace dwi::firewall
