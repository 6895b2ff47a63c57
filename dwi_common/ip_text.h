// Text forms of IP addresses, as records, tables and traces show them.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <string>

namespace dwi::network {

using IpTextBuffer = std::array<char, INET6_ADDRSTRLEN>;

// FormatIp writes an IPv4 (`version` 4: the first 4 bytes of `bytes`) or
// IPv6 address into `text` and returns it; nullptr for another version.
const char* FormatIp(std::uint8_t version, const std::uint8_t* bytes, IpTextBuffer& text) noexcept;

// IpText: the same as a string, "" for another version.
std::string IpText(std::uint8_t version, const std::uint8_t* bytes);

}  // namespace dwi::network
