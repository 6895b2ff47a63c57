// The host's allocator service.
#pragma once

#include <cstdlib>

#include "qor/byte_vector.h"
#include "qor/object.h"

namespace nti::host {

// MallocAllocator hands out malloc memory; Allocate(0) gives a unique
// non-null block.
class MallocAllocator : public qor::object::Ifaces<qor::IAllocator> {
public:
    void* Allocate(std::size_t size) noexcept override { return std::malloc(size == 0 ? 1 : size); }
    void Free(void* p) noexcept override { std::free(p); }
};

}  // namespace nti::host
