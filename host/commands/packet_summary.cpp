#include "host/commands/packet_summary.h"

#include <arpa/inet.h>

namespace nti::host {
namespace {

std::uint16_t Be16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}

std::string AddressText(int family, const std::uint8_t* p) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(family, p, text, sizeof(text));
    return text;
}

bool IsExtensionHeader(std::uint8_t next) {
    // Hop-by-hop, routing, destination options, mobility: length in 8-byte units.
    return next == 0 || next == 43 || next == 60 || next == 135;
}

}  // namespace

PacketSummary Summarize(const std::uint8_t* data, std::size_t size) {
    PacketSummary s;
    std::size_t offset = 0;
    if (size >= 20 && data[0] >> 4 == 4) {
        const std::size_t headerLength = (data[0] & 0x0Fu) * 4u;
        if (headerLength < 20 || headerLength > size) {
            return s;
        }
        s.version = 4;
        s.protocol = data[9];
        s.source = AddressText(AF_INET, data + 12);
        s.destination = AddressText(AF_INET, data + 16);
        // Only the first fragment carries the ports.
        if ((Be16(data + 6) & 0x1FFFu) != 0) {
            return s;
        }
        offset = headerLength;
    } else if (size >= 40 && data[0] >> 4 == 6) {
        s.version = 6;
        s.source = AddressText(AF_INET6, data + 8);
        s.destination = AddressText(AF_INET6, data + 24);
        std::uint8_t next = data[6];
        offset = 40;
        while (IsExtensionHeader(next)) {
            if (offset + 8 > size) {
                return s;
            }
            const std::uint8_t following = data[offset];
            offset += (std::size_t{data[offset + 1]} + 1) * 8;
            next = following;
        }
        if (next == 44) {  // fragment: ports only in the first one
            if (offset + 8 > size || (Be16(data + offset + 2) & 0xFFF8u) != 0) {
                return s;
            }
            next = data[offset];
            offset += 8;
        }
        s.protocol = next;
    } else {
        return s;
    }
    const std::uint8_t p = *s.protocol;
    if ((p == 6 || p == 17 || p == 132 || p == 136) && offset + 4 <= size) {
        s.sourcePort = Be16(data + offset);
        s.destinationPort = Be16(data + offset + 2);
    }
    return s;
}

}  // namespace nti::host
