// The IPv6 fixed header view and the extension headers that packet parsing
// skips. Views read the packet bytes in place: no copies, no alignment needs.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace dwi::network_interceptor {

namespace wire {

// LoadBe16 reads a big-endian 16-bit number at `p`, any alignment.
inline std::uint16_t LoadBe16(const std::uint8_t* p) noexcept {
    return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}

// LoadBe32 reads a big-endian 32-bit number at `p`, any alignment.
inline std::uint32_t LoadBe32(const std::uint8_t* p) noexcept {
    std::uint32_t value;
    std::memcpy(&value, p, sizeof(value));
    return __builtin_bswap32(value);
}

// LoadBe128 reads a big-endian 128-bit number (an IPv6 address) at `p`.
inline __uint128_t LoadBe128(const std::uint8_t* p) noexcept {
    std::uint64_t high;
    std::uint64_t low;
    std::memcpy(&high, p, sizeof(high));
    std::memcpy(&low, p + sizeof(high), sizeof(low));
    return (static_cast<__uint128_t>(__builtin_bswap64(high)) << 64) | __builtin_bswap64(low);
}

}  // namespace wire

// HeaderView is what every header view is: the address of the header's first
// byte in the packet, null for a default view (no such header). Views do not
// check sizes; obtain them through ViewHeader (packet.h) for outside bytes.
// Their accessors return numbers in host order.
class HeaderView {
public:
    HeaderView() noexcept = default;
    explicit HeaderView(const std::uint8_t* bytes) noexcept : m_bytes(bytes) {}

    const std::uint8_t* Data() const noexcept { return m_bytes; }

protected:
    const std::uint8_t* m_bytes = nullptr;
};

// Ipv6Header is a view of the 40-byte IPv6 fixed header.
class Ipv6Header : public HeaderView {
public:
    static constexpr std::size_t kSize = 40;

    using HeaderView::HeaderView;

    std::uint8_t Version() const noexcept { return m_bytes[0] >> 4; }
    std::uint8_t TrafficClass() const noexcept {
        return static_cast<std::uint8_t>((m_bytes[0] << 4) | (m_bytes[1] >> 4));
    }
    std::uint32_t FlowLabel() const noexcept { return wire::LoadBe32(m_bytes) & 0xFFFFFu; }
    // PayloadLength counts the bytes after the fixed header, extensions included.
    std::uint16_t PayloadLength() const noexcept { return wire::LoadBe16(m_bytes + 4); }
    std::uint8_t NextHeader() const noexcept { return m_bytes[6]; }
    std::uint8_t HopLimit() const noexcept { return m_bytes[7]; }
    __uint128_t SourceAddress() const noexcept { return wire::LoadBe128(m_bytes + 8); }
    __uint128_t DestinationAddress() const noexcept { return wire::LoadBe128(m_bytes + 24); }
};

// Next-header values of the extension headers that parsing steps over.
inline constexpr std::uint8_t kIpv6HopByHopOptions = 0;
inline constexpr std::uint8_t kIpv6Routing = 43;
inline constexpr std::uint8_t kIpv6Fragment = 44;
inline constexpr std::uint8_t kIpv6DestinationOptions = 60;
inline constexpr std::uint8_t kIpv6Mobility = 135;

// IsIpv6ExtensionHeader tells whether parsing steps over a header announced
// by `nextHeader`. The table is built once, on first use.
inline bool IsIpv6ExtensionHeader(std::uint8_t nextHeader) noexcept {
    static const std::array<bool, 256> kExtensions = [] {
        std::array<bool, 256> set{};
        for (std::uint8_t value : {kIpv6HopByHopOptions, kIpv6Routing, kIpv6Fragment,
                                   kIpv6DestinationOptions, kIpv6Mobility}) {
            set[value] = true;
        }
        return set;
    }();
    return kExtensions[nextHeader];
}

// Ipv6ExtensionLength is how far parsing advances over the extension header
// of kind `nextHeader` whose first byte is at `extension` (at least 2 bytes
// must be readable there): 8 for a fragment header, otherwise the length byte
// times 8 plus 1. This differs from the wire length ((length + 1) * 8) on
// purpose; keep it.
inline std::size_t Ipv6ExtensionLength(std::uint8_t nextHeader,
                                       const std::uint8_t* extension) noexcept {
    if (nextHeader == kIpv6Fragment) {
        return 8;
    }
    return static_cast<std::size_t>(extension[1]) * 8 + 1;
}

}  // namespace dwi::network_interceptor
