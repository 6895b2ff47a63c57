// The framework's byte vector and allocator interface.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "qor/object.h"

namespace qor {

// IAllocator hands out raw memory across the module boundary.
struct IAllocator : IObject {
    static constexpr iid_t IID = 0x9CCA5603;
    // Allocate returns `size` bytes or null.
    virtual void* Allocate(std::size_t size) noexcept = 0;
    // Free gives back memory from Allocate (null is ignored).
    virtual void Free(void* p) noexcept = 0;

protected:
    ~IAllocator() = default;
};

// ByteVector: begin, end, capacity and an optional allocator that supplies its
// memory (malloc/free without one).
class ByteVector {
public:
    ByteVector() noexcept = default;
    explicit ByteVector(IAllocator* allocator) noexcept : m_allocator(allocator) {}
    ByteVector(const std::uint8_t* data, std::size_t size) { Assign(data, size); }
    ByteVector(const ByteVector& other);
    ByteVector(ByteVector&& other) noexcept { Swap(other); }
    ByteVector& operator=(ByteVector other) noexcept {
        Swap(other);
        return *this;
    }
    ~ByteVector() { Release(); }

    const std::uint8_t* begin() const noexcept { return m_begin; }
    const std::uint8_t* end() const noexcept { return m_end; }
    std::uint8_t* data() noexcept { return m_begin; }
    const std::uint8_t* data() const noexcept { return m_begin; }
    std::size_t size() const noexcept { return static_cast<std::size_t>(m_end - m_begin); }
    std::size_t capacity() const noexcept { return static_cast<std::size_t>(m_capacity - m_begin); }
    bool empty() const noexcept { return m_begin == m_end; }
    IAllocator* allocator() const noexcept { return m_allocator.Get(); }

    void clear() noexcept { m_end = m_begin; }
    // Assign makes the vector equal to `size` bytes at `data`. When the
    // capacity is too small it allocates max(size, 4) bytes from its own
    // allocator and releases the old storage; otherwise it copies in place.
    // Throws std::bad_alloc when allocation fails (the vector is unchanged).
    void Assign(const std::uint8_t* data, std::size_t size);
    void Swap(ByteVector& other) noexcept {
        std::swap(m_begin, other.m_begin);
        std::swap(m_end, other.m_end);
        std::swap(m_capacity, other.m_capacity);
        std::swap(m_allocator, other.m_allocator);
    }
    friend bool operator==(const ByteVector& a, const ByteVector& b) noexcept;

private:
    void Release() noexcept;

    std::uint8_t* m_begin = nullptr;
    std::uint8_t* m_end = nullptr;
    std::uint8_t* m_capacity = nullptr;
    RefPtr<IAllocator> m_allocator;
};

}  // namespace qor
