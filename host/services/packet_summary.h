// The addresses and ports of a network-layer packet, for printing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace nti::host {

struct PacketSummary {
    int version = 0;  // 4, 6, or 0 when the header was not recognised
    std::string source;
    std::string destination;
    std::optional<std::uint8_t> protocol;  // after IPv6 extension headers
    std::optional<std::uint16_t> sourcePort;
    std::optional<std::uint16_t> destinationPort;
    std::size_t transportOffset = 0;  // start of the header that has the ports
    bool fragment = false;            // one piece of a fragmented packet
};

// Summarize reads the IPv4 or IPv6 header (skipping IPv6 extension headers)
// and, for TCP, UDP, UDP-Lite and SCTP, the ports. Short or malformed data
// leaves the fields it would need absent.
PacketSummary Summarize(const std::uint8_t* data, std::size_t size);

// FillChecksums writes the IPv4 header checksum and the TCP or UDP checksum
// of a whole (unfragmented) packet. A payload handed back with a verdict
// replaces the kernel's copy, whose checksum may still have been left to the
// sending device (veth, offload): the receiver would drop it. Returns false,
// changing nothing, for what it cannot check (other protocols, fragments,
// truncated data).
bool FillChecksums(std::uint8_t* data, std::size_t size);

}  // namespace nti::host
