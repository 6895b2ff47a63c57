// The list and packet logic of block_list: list entries, the addresses and
// ports of a packet, and which entry a packet's remote end falls under.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <istream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace block_list {

// Endpoint is an address (IPv4 in the first four bytes) and maybe a port.
struct Endpoint {
    int family = 0;  // AF_INET or AF_INET6
    std::array<std::uint8_t, 16> address{};
    std::optional<std::uint16_t> port;

    bool Covers(const Endpoint& other) const {
        return family == other.family && address == other.address &&
               (!port || (other.port && *port == *other.port));
    }
};

// ToString writes "198.18.0.7", "198.18.0.7:443" or "[fd00:198:18::7]:53".
inline std::string ToString(const Endpoint& e) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(e.family, e.address.data(), text, sizeof(text));
    if (!e.port) {
        return text;
    }
    char withPort[INET6_ADDRSTRLEN + 8];
    std::snprintf(withPort, sizeof(withPort), e.family == AF_INET6 ? "[%s]:%u" : "%s:%u", text,
                  unsigned{*e.port});
    return withPort;
}

// ParsePort reads a port of 1 to 65535.
inline std::optional<std::uint16_t> ParsePort(std::string_view text) {
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != text.npos) {
        return std::nullopt;
    }
    const unsigned long port = std::stoul(std::string(text));
    if (port == 0 || port > 65535) {
        return std::nullopt;
    }
    return static_cast<std::uint16_t>(port);
}

// ParseEndpoint reads one list entry (see block_list.cpp).
inline std::optional<Endpoint> ParseEndpoint(std::string_view text) {
    Endpoint e;
    std::string address;
    if (text.starts_with('[')) {
        const auto close = text.find(']');
        if (close == text.npos) {
            return std::nullopt;
        }
        address = text.substr(1, close - 1);
        const std::string_view rest = text.substr(close + 1);
        if (!rest.empty()) {
            if (!rest.starts_with(':') || !(e.port = ParsePort(rest.substr(1)))) {
                return std::nullopt;
            }
        }
        e.family = AF_INET6;
    } else if (text.find(':') != text.rfind(':')) {
        address = text;  // a bare IPv6 address has two colons at least
        e.family = AF_INET6;
    } else {
        const auto colon = text.find(':');
        address = text.substr(0, colon);
        if (colon != text.npos && !(e.port = ParsePort(text.substr(colon + 1)))) {
            return std::nullopt;
        }
        e.family = AF_INET;
    }
    if (inet_pton(e.family, address.c_str(), e.address.data()) != 1) {
        return std::nullopt;
    }
    return e;
}

// ReadList reads the entries of `in`, named `name` in errors; throws
// std::runtime_error naming the first bad line.
inline std::vector<Endpoint> ReadList(std::istream& in, const std::string& name) {
    std::vector<Endpoint> list;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        line.erase(std::min(line.find('#'), line.size()));
        const auto first = line.find_first_not_of(" \t\r");
        if (first == line.npos) {
            continue;
        }
        const auto last = line.find_last_not_of(" \t\r");
        const auto entry = ParseEndpoint(std::string_view(line).substr(first, last - first + 1));
        if (!entry) {
            throw std::runtime_error(name + ":" + std::to_string(number) +
                                     ": not an address[:port]");
        }
        list.push_back(*entry);
    }
    return list;
}

// Flow is what the example reads from a packet's network and transport headers.
struct Flow {
    Endpoint source;
    Endpoint destination;
    std::uint8_t protocol = 0;
};

// ParseFlow reads a network-layer packet. IPv6 extension headers are skipped;
// ports are read from TCP, UDP, UDP-Lite and SCTP headers of first fragments.
inline std::optional<Flow> ParseFlow(const std::uint8_t* p, const std::uint8_t* end) {
    if (p == nullptr || end <= p) {
        return std::nullopt;
    }
    const std::size_t size = static_cast<std::size_t>(end - p);
    Flow flow;
    std::size_t transport = 0;
    bool firstFragment = true;
    if ((p[0] >> 4) == 4) {
        const std::size_t headerLength = (p[0] & 0x0F) * 4u;
        if (size < 20 || headerLength < 20 || headerLength > size) {
            return std::nullopt;
        }
        flow.source.family = flow.destination.family = AF_INET;
        std::copy(p + 12, p + 16, flow.source.address.begin());
        std::copy(p + 16, p + 20, flow.destination.address.begin());
        flow.protocol = p[9];
        firstFragment = ((p[6] & 0x1F) | p[7]) == 0;
        transport = headerLength;
    } else if ((p[0] >> 4) == 6) {
        if (size < 40) {
            return std::nullopt;
        }
        flow.source.family = flow.destination.family = AF_INET6;
        std::copy(p + 8, p + 24, flow.source.address.begin());
        std::copy(p + 24, p + 40, flow.destination.address.begin());
        std::uint8_t next = p[6];
        std::size_t at = 40;
        // Hop-by-hop, routing, destination options, fragment, authentication.
        while ((next == 0 || next == 43 || next == 60 || next == 44 || next == 51) &&
               at + 8 <= size) {
            std::size_t length = next == 44   ? 8
                                 : next == 51 ? (p[at + 1] + 2u) * 4u
                                              : (p[at + 1] + 1u) * 8u;
            if (next == 44) {
                firstFragment = ((p[at + 2] << 8 | p[at + 3]) & 0xFFF8) == 0;
            }
            next = p[at];
            at += length;
        }
        flow.protocol = next;
        transport = at;
    } else {
        return std::nullopt;
    }
    const bool hasPorts = flow.protocol == IPPROTO_TCP || flow.protocol == IPPROTO_UDP ||
                          flow.protocol == IPPROTO_SCTP || flow.protocol == IPPROTO_UDPLITE;
    if (hasPorts && firstFragment && transport + 4 <= size) {
        flow.source.port = static_cast<std::uint16_t>(p[transport] << 8 | p[transport + 1]);
        flow.destination.port =
            static_cast<std::uint16_t>(p[transport + 2] << 8 | p[transport + 3]);
    }
    return flow;
}

// FindBlocked returns the first entry covering the remote end of `flow`: its
// destination when the packet is outbound, else its source.
inline const Endpoint* FindBlocked(const std::vector<Endpoint>& list, const Flow& flow,
                                   bool outbound) {
    const Endpoint& remote = outbound ? flow.destination : flow.source;
    const auto it = std::find_if(list.begin(), list.end(),
                                 [&](const Endpoint& entry) { return entry.Covers(remote); });
    return it == list.end() ? nullptr : &*it;
}

}  // namespace block_list
