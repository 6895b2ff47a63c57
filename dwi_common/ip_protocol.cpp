#include "dwi_common/ip_protocol.h"

#include <array>
#include <charconv>
#include <utility>

namespace dwi::network {
namespace {

constexpr std::array<std::pair<std::string_view, std::uint8_t>, 5> kNames{{
    {"icmp", 1},
    {"tcp", 6},
    {"udp", 17},
    {"ipv6-icmp", 58},
    {"icmpv6", 58},  // accepted only: ProtocolName finds ipv6-icmp first
}};

}  // namespace

std::string ProtocolName(std::uint8_t protocol) {
    for (const auto& [name, number] : kNames) {
        if (number == protocol) {
            return std::string(name);
        }
    }
    return std::to_string(protocol);
}

std::optional<std::uint8_t> ParseProtocol(std::string_view text) {
    for (const auto& [name, number] : kNames) {
        if (name == text) {
            return number;
        }
    }
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size() || value == 0 ||
        value > 255) {
        return std::nullopt;
    }
    return static_cast<std::uint8_t>(value);
}

bool HasPorts(std::uint8_t protocol) {
    return protocol == 6 || protocol == 17 || protocol == 33 || protocol == 132 || protocol == 136;
}

}  // namespace dwi::network
