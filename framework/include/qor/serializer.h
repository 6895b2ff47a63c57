// Host serialisers driven by metadata.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qor/byte_vector.h"
#include "qor/meta.h"
#include "qor/object.h"

namespace qor {

// IBinarySerializer turns described objects into a self-describing binary
// form and back.
struct IBinarySerializer : IObject {
    static constexpr iid_t IID = 0x239FC1DB;
    // Serialize writes `data` into a buffer from `alloc`, returned in
    // `*ptr`/`*len` (the caller frees it through `alloc`).
    virtual result_t Serialize(const AnyRef& data, IAllocator* alloc, void** ptr, std::size_t* len,
                               std::uint32_t mode) noexcept = 0;
    // Deserialize reads `len` bytes at `blob` into `data`. Damaged or foreign
    // input gives a failure code, never a crash.
    virtual result_t Deserialize(const void* blob, const AnyRef& data, std::size_t len,
                                 std::uint32_t mode) noexcept = 0;

protected:
    ~IBinarySerializer() = default;
};

}  // namespace qor
