#include "host/services/packet_summary.h"

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

// Sum adds 16-bit big-endian words to a one's-complement accumulator.
std::uint32_t Sum(const std::uint8_t* p, std::size_t n, std::uint32_t acc = 0) {
    for (; n > 1; p += 2, n -= 2) {
        acc += Be16(p);
    }
    if (n == 1) {
        acc += static_cast<std::uint32_t>(p[0] << 8);
    }
    return acc;
}

std::uint16_t Fold(std::uint32_t acc) {
    while ((acc >> 16) != 0) {
        acc = (acc & 0xFFFFu) + (acc >> 16);
    }
    return static_cast<std::uint16_t>(~acc & 0xFFFFu);
}

void Put16(std::uint8_t* p, std::uint16_t v) {
    p[0] = static_cast<std::uint8_t>(v >> 8);
    p[1] = static_cast<std::uint8_t>(v);
}

}  // namespace

bool FillChecksums(std::uint8_t* data, std::size_t size) {
    const PacketSummary s = Summarize(data, size);
    if (!s.sourcePort || s.fragment || (*s.protocol != 6 && *s.protocol != 17)) {
        return false;
    }
    const std::size_t field = s.transportOffset + (*s.protocol == 6 ? 16 : 6);
    if (field + 2 > size) {
        return false;
    }
    std::uint32_t pseudo = 0;
    if (s.version == 4) {
        if (Be16(data + 2) != size) {
            return false;  // padding or truncation we cannot judge
        }
        Put16(data + 10, 0);
        Put16(data + 10, Fold(Sum(data, s.transportOffset)));
        pseudo = Sum(data + 12, 8);
    } else {
        if (std::size_t{Be16(data + 4)} + 40 != size) {
            return false;
        }
        pseudo = Sum(data + 8, 32);
    }
    const std::size_t length = size - s.transportOffset;
    Put16(data + field, 0);
    pseudo += static_cast<std::uint32_t>(length) + *s.protocol;
    std::uint16_t checksum = Fold(Sum(data + s.transportOffset, length, pseudo));
    if (checksum == 0 && *s.protocol == 17) {
        checksum = 0xFFFF;  // 0 means "no checksum" in UDP
    }
    Put16(data + field, checksum);
    return true;
}

PacketSummary Summarize(const std::uint8_t* data, std::size_t size) {
    PacketSummary s;
    std::size_t offset = 0;
    if (size >= 20 && data[0] >> 4 == 4) {
        const std::size_t headerLength = static_cast<std::size_t>(data[0] & 0x0Fu) * 4u;
        if (headerLength < 20 || headerLength > size) {
            return s;
        }
        s.version = 4;
        s.protocol = data[9];
        s.source = AddressText(AF_INET, data + 12);
        s.destination = AddressText(AF_INET, data + 16);
        // Only the first fragment carries the ports.
        s.fragment = (Be16(data + 6) & 0x3FFFu) != 0;
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
            s.fragment = true;
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
        s.transportOffset = offset;
    }
    return s;
}

}  // namespace nti::host
