// Byte helpers shared by the packet view tests.
#pragma once

#include <cctype>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "network_traffic_interceptor/packet.h"

namespace nti::test {

// Hex turns "45 00 0a" (blanks anywhere) into bytes.
inline std::vector<std::uint8_t> Hex(std::string_view text) {
    std::vector<std::uint8_t> bytes;
    int high = -1;
    for (char c : text) {
        if (std::isspace(static_cast<unsigned char>(c))) {
            continue;
        }
        if (!std::isxdigit(static_cast<unsigned char>(c))) {
            throw std::invalid_argument("not a hex digit");
        }
        const int nibble = std::isdigit(static_cast<unsigned char>(c))
                               ? c - '0'
                               : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
        if (high < 0) {
            high = nibble;
        } else {
            bytes.push_back(static_cast<std::uint8_t>(high << 4 | nibble));
            high = -1;
        }
    }
    if (high >= 0) {
        throw std::invalid_argument("odd number of hex digits");
    }
    return bytes;
}

// Range views all of `bytes`; an empty vector still gives a non-null range.
inline dwi::network_interceptor::ByteRange Range(const std::vector<std::uint8_t>& bytes) {
    static const std::uint8_t kEmpty = 0;
    const std::uint8_t* begin = bytes.empty() ? &kEmpty : bytes.data();
    return {begin, begin + bytes.size()};
}

// Offset is where `p` lies in `bytes`.
inline std::ptrdiff_t Offset(const std::vector<std::uint8_t>& bytes, const std::uint8_t* p) {
    return p - bytes.data();
}

}  // namespace nti::test
