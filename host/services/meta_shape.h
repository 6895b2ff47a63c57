// Access to the values of described primitives, shared by the host's
// serialisers: unsigned integers, byte arrays, MACs and addresses.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qor/meta.h"
#include "qor/result.h"

namespace nti::host::meta_shape {

inline const std::uint8_t* Bytes(const void* p) noexcept {
    return static_cast<const std::uint8_t*>(p);
}
inline std::uint8_t* Bytes(void* p) noexcept {
    return static_cast<std::uint8_t*>(p);
}

// IsValidStruct is true when every field of a Struct has a name and a type.
bool IsValidStruct(const qor::meta::TypeDescriptor& type) noexcept;

// IsUnsigned is true for the UInt8..UInt64 kinds.
bool IsUnsigned(qor::meta::Kind kind) noexcept;

// GetUnsigned reads an unsigned integer of `type` (0x8000005D for a size
// beyond 8 bytes).
[[nodiscard]] qor::result_t GetUnsigned(const qor::meta::TypeDescriptor& type, const void* object,
                                        std::uint64_t* value) noexcept;
// SetUnsigned stores `value`; 0x8000005E when it does not fit the kind.
[[nodiscard]] qor::result_t SetUnsigned(const qor::meta::TypeDescriptor& type, void* object,
                                        std::uint64_t value) noexcept;

// IsRaw is true for the kinds whose value is a fixed run of bytes:
// FixedBytes, Mac48, Ipv4, Ipv6.
bool IsRaw(qor::meta::Kind kind) noexcept;
// GetRaw exposes those bytes (0x8000005D for a malformed descriptor).
[[nodiscard]] qor::result_t GetRaw(const qor::meta::TypeDescriptor& type, const void* object,
                                   const std::uint8_t** data, std::size_t* size) noexcept;
// SetRaw copies exactly the type's size (0x8000005C for another size).
[[nodiscard]] qor::result_t SetRaw(const qor::meta::TypeDescriptor& type, void* object,
                                   const std::uint8_t* data, std::size_t size) noexcept;

// GetAddress exposes the 4 or 16 bytes of an IpAddress by its family
// (0x80000046 for a family other than 4 or 6).
[[nodiscard]] qor::result_t GetAddress(const qor::meta::TypeDescriptor& type, const void* object,
                                       const std::uint8_t** data, std::size_t* size) noexcept;
// SetAddress sets family 4 or 6 from a 4- or 16-byte address and zeroes the
// other member (0x8000005C for any other size).
[[nodiscard]] qor::result_t SetAddress(const qor::meta::TypeDescriptor& type, void* object,
                                       const std::uint8_t* data, std::size_t size) noexcept;

}  // namespace nti::host::meta_shape
