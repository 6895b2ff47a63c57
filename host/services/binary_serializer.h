// The host's binary serialiser: a CBOR encoding driven by the records'
// metadata.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "qor/object.h"
#include "qor/serializer.h"

namespace nti::host {

// BinarySerializer writes [format, version, type id, value] as one CBOR array.
// Structs are maps keyed by field name in field order, vectors arrays,
// optionals null or their value, MACs and addresses byte strings (an ip_t is
// 4 or 16 bytes). Reading accepts exactly that shape: wrong format, version,
// type id or kinds, values out of range, truncated or trailing bytes all
// give a failure code. Memory grows only with what the input really holds.
class BinarySerializer : public qor::object::Ifaces<qor::IBinarySerializer> {
public:
    static constexpr std::string_view kFormat = "nti.bin";
    static constexpr std::uint64_t kVersion = 1;
    // Nesting deeper than this is refused (guards against cyclic metadata).
    static constexpr int kMaxDepth = 32;

    // Serialize supports mode 0 only (0x80000042 otherwise).
    [[nodiscard]] qor::result_t Serialize(const qor::AnyRef& data, qor::IAllocator* alloc,
                                          void** ptr, std::size_t* len,
                                          std::uint32_t mode) noexcept override;
    // Deserialize fills `data` from `blob`; on failure the object keeps what
    // was read up to the fault.
    [[nodiscard]] qor::result_t Deserialize(const void* blob, const qor::AnyRef& data,
                                            std::size_t len, std::uint32_t mode) noexcept override;
};

}  // namespace nti::host
